#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include <NetBase/serialization/kyNetStream.h>
#include <apps/common/RenderProtocol.h>

class kyNetLink;

namespace render {

/// The way back of finished tiles: the image channels in turn.
///
/// Threads: any.
class ImageChannels
{
public:
    /// Adds a channel on which the application has said Hello and been answered. Throws
    /// kyNetError if there are enough.
    void add(const std::shared_ptr<kyNetLink>& link, std::int32_t rank, int limit);

    /// Sends a tile to the application. Blocks until it is on its way. Throws kyConnectionClosed
    /// if there is no channel or the next one is gone.
    void send(TileMessage& message);

    /// Closes every channel, which ends a send that waits for the application to read.
    void close();

private:
    /// Held while a tile is sent.
    std::mutex m_sendLock;
    kyNetStream m_stream;

    std::mutex m_linksLock;
    std::vector<std::shared_ptr<kyNetLink>> m_links;
};

} // namespace render
