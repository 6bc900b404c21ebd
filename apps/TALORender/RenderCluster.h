#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <apps/TALORender/Image.h>
#include <apps/TALORender/RemoteServer.h>
#include <apps/TALORender/SyncGroup.h>
#include <apps/common/NodeAddress.h>

namespace render {

/// The render servers of one job, on any number of nodes.
///
///     RenderCluster cluster({nodes, 4, ""}, warn);
///     cluster.loadScene(scene);
///     Image image = cluster.render(frame);
///
/// A node that cannot be reached and a server that fails or dies are reported to `warn` and left
/// out; the others take over. Only when none is left does a call throw kyNetError. All servers end
/// when the cluster is destroyed.
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
        /// Seconds, beside a millisecond for each path, that a server has for a tile; one that
        /// needs longer hangs, and counts as lost.
        double patience = 60.0;
    };

    using Warn = std::function<void(const std::string&)>;

    /// Starts the servers. Blocks.
    RenderCluster(const Settings& settings, Warn warn);

    /// Hands the scene to every server. Blocks.
    void loadScene(const Scene& scene);

    /// Renders a picture of the scene. Reports its tiles to kyNetProgress. Blocks.
    Image render(const Frame& frame);

    /// Every server that was started, the lost ones included.
    const std::vector<std::shared_ptr<RemoteServer>>& getServers() const { return m_started; }

private:
    using Servers = std::vector<std::shared_ptr<RemoteServer>>;

    std::vector<NodeAddress> findNodes(const std::vector<NodeAddress>& nodes);
    void startServers(const std::vector<NodeAddress>& nodes, const Settings& settings);
    void forEachLiving(const std::function<void(RemoteServer&)>& task);
    void synchronise(std::int32_t frame);
    void openSync();
    void warn(const std::string& text);
    void requireServers() const;

    const double m_patience;
    Warn m_warn;
    std::mutex m_warnLock;
    Servers m_started;
    Servers m_living;
    Servers m_synchronised;
    std::unique_ptr<SyncGroup> m_sync;
    std::int32_t m_frameNumber = 0;
};

} // namespace render
