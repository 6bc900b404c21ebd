#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include <apps/common/RenderChannels.h>
#include <apps/common/RenderProtocol.h>

class kyNetLink;

namespace render {

/// Decides who may open which channel to a server, and keeps the channels until a chain takes them.
///
/// Whoever opens the first low latency channel is the application that the server works for. All
/// further channels must be of its session and rank, and no more than it announced: channels of its
/// own, and image channels of one other server that relays the scene (inlets).
///
/// Threads: any.
class ChannelLobby
{
public:
    using Links = std::vector<std::shared_ptr<kyNetLink>>;

    /// Admits a channel by its first words; true for the application's first one. Throws kyNetError
    /// that says why it is refused.
    bool admit(const Hello& hello);

    /// Keeps an admitted low latency or image channel, whose Hello has been answered.
    void keep(const Hello& hello, const std::shared_ptr<kyNetLink>& link);

    /// Waits up to `timeout` seconds until all channels that the application announced are here.
    /// Throws kyNetError if they are not, kyConnectionClosed if the lobby is closed.
    RenderChannels waitForChannels(double timeout);

    /// The same for the inlets, which must be those of this server.
    Links waitForInlets(std::int32_t source, double timeout);

    /// Shuts down all inlets, also those that are still to come.
    void closeInlets();

    /// Shuts down all channels, also those that are still to come, and wakes who waits for them.
    void close();

private:
    void admitInlet(const Hello& hello);
    int& countOf(kyNodeConnectionType type);
    int announced(kyNodeConnectionType type) const;
    void waitUntilFull(std::unique_lock<std::mutex>& guard, const Links& links,
                       kyNodeConnectionType type, double timeout);

    std::mutex m_lock;
    std::condition_variable m_changed;
    std::optional<Hello> m_application;
    std::int32_t m_inletSource = 0;

    // Admitted; those whose Hello is not answered yet are not kept yet.
    int m_imageCount = 0;
    int m_lowLatencyCount = 0;
    int m_inletCount = 0;

    RenderChannels m_channels;
    Links m_inlets;
    bool m_areInletsClosed = false;
    bool m_isClosed = false;
};

} // namespace render
