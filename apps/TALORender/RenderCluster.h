#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <NetBase/buffers/kyNetHeader.h>
#include <NetBase/buffers/kyNetInterfaceOptions.h>
#include <apps/TALORender/Image.h>
#include <apps/TALORender/RelayPlan.h>
#include <apps/TALORender/RemoteServer.h>
#include <apps/TALORender/Watchdog.h>
#include <apps/common/NodeAddress.h>

namespace render {

/// The render servers of one job, on any number of nodes.
///
///     RenderCluster cluster(settings, warn);
///     cluster.loadScene(scene);
///     cluster.render(frames, [&](std::size_t i, const Image& picture) { ... });
///     cluster.reportTraffic();
///
/// A node that cannot be reached and a server that fails, dies or hangs are reported to `warn` and
/// left out; the others take over. Only when none is left does a call throw kyNetError. All
/// servers end when the cluster is destroyed.
///
/// Threads: one at a time. `warn` is called on other threads too, one call at a time.
class RenderCluster
{
public:
    struct Settings
    {
        std::vector<NodeAddress> nodes;
        /// How many servers to start, spread evenly over the nodes that can be reached.
        int servers = 1;
        std::string bookingId;
        /// How many channels each server gets; what is not set is as the library has it.
        kyNetInterfaceOptions channels;
        /// How the servers compress pictures.
        kyNetCompression imageCompression = kyNetCompression::None;
        /// What the services and servers know the application by; empty: nothing.
        std::shared_ptr<const SharedKey> key;
        /// Whether the servers of a node relay the scene to each other.
        bool isRelayed = false;
        /// Seconds that a server has for an answer, beside a millisecond for each path of a tile
        /// and five seconds for each million triangles that all servers together are sent; one
        /// that needs longer hangs, and counts as lost. Starting a server and connecting to it has
        /// limits of its own, see ServiceClient.
        double patience = 60.0;
    };

    using Warn = std::function<void(const std::string&)>;

    /// Takes a finished picture, of the frame with this position.
    using PictureHandler = std::function<void(std::size_t, const Image&)>;

    /// Starts the servers. Blocks.
    RenderCluster(const Settings& settings, Warn warn);

    /// Hands the scene to every server. Blocks. Once.
    void loadScene(const Scene& scene);

    /// Renders pictures of the scene, in order: while the last tiles of one are on their way, those
    /// of the next one are rendered. The handler is called on the calling thread while servers go
    /// on rendering; what it throws ends the job. Reports all tiles to kyNetProgress. Blocks.
    void render(const std::vector<Frame>& frames, const PictureHandler& onPicture);

    /// Asks every server what it has sent, for RemoteServer::getWork. Blocks.
    void reportTraffic();

    /// Every server that was started, the lost ones included.
    const std::vector<std::shared_ptr<RemoteServer>>& getServers() const { return m_started; }

private:
    using Servers = std::vector<std::shared_ptr<RemoteServer>>;

    std::vector<NodeAddress> findNodes() const;
    void startServers(const std::vector<NodeAddress>& nodes);
    void setUpServers();
    Setup makeSetup(std::size_t server) const;
    const RelayPlace& findPlace(const RemoteServer& server) const;

    void lead(FrameQueue& queue, std::int32_t first, std::int32_t end, double limit,
              const std::function<void(std::int32_t)>& deliver);

    void forEach(const Servers& servers, const std::function<void(RemoteServer&)>& task);
    void lose(RemoteServer& server, const std::string& reason);
    bool isLost(const RemoteServer& server) const;
    Servers getLiving() const;
    void requireServers() const;
    void warn(const std::string& text) const;

    const Settings m_settings;
    const Warn m_warn;
    mutable std::mutex m_warnLock;
    const std::shared_ptr<Watchdog> m_watchdog = std::make_shared<Watchdog>();

    Servers m_started;
    std::vector<RelayPlace> m_places; ///< of the started ones
    mutable std::mutex m_lostLock;
    std::set<const RemoteServer*> m_lost;
    std::atomic<bool> m_isEnding{false};

    std::int32_t m_lastFrame = 0;
};

} // namespace render
