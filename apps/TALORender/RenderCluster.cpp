#include <apps/TALORender/RenderCluster.h>

#include <algorithm>
#include <exception>
#include <future>
#include <map>
#include <random>
#include <utility>

#include <NetBase/buffers/kyNetError.h>
#include <NetBase/buffers/kyNetProgress.h>

namespace render {

namespace {

/// Edge of a tile in pixels: small enough that servers of different speed end together, large
/// enough that an order costs nothing against it.
constexpr std::uint32_t s_tileEdge = 32;

constexpr int s_imageChannels = 2;

std::uint64_t makeSession()
{
    std::random_device random;
    return (std::uint64_t{random()} << 32) | random();
}

/// Calls task(0) to task(count - 1), each on a thread of its own, and waits for all of them.
void forEachAtOnce(std::size_t count, const std::function<void(std::size_t)>& task)
{
    std::vector<std::future<void>> running;
    for (std::size_t i = 0; i < count; ++i) {
        running.push_back(std::async(std::launch::async, task, i));
    }
    for (std::future<void>& each : running) {
        each.get();
    }
}

} // namespace

RenderCluster::RenderCluster(const Settings& settings, Warn warn)
    : m_patience(settings.patience), m_warn(std::move(warn))
{
    startServers(findNodes(settings.nodes), settings);
    m_living = m_started;
    requireServers();
}

std::vector<NodeAddress> RenderCluster::findNodes(const std::vector<NodeAddress>& nodes)
{
    std::vector<char> isFound(nodes.size(), 0);
    forEachAtOnce(nodes.size(), [&](std::size_t i) {
        try {
            ServiceClient(nodes[i]).status();
            isFound[i] = 1;
        } catch (const std::exception& e) {
            this->warn(std::string(e.what()) + ". The node is left out.");
        }
    });
    std::vector<NodeAddress> found;
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        if (isFound[i] != 0) {
            found.push_back(nodes[i]);
        }
    }
    if (found.empty()) {
        throw kyNetError("No node can be reached");
    }
    return found;
}

void RenderCluster::startServers(const std::vector<NodeAddress>& nodes, const Settings& settings)
{
    Hello job;
    job.session = makeSession();
    job.bookingId = settings.bookingId;
    job.channels.setSyncChannels(1);
    job.channels.setImageChannels(s_imageChannels);
    job.channels.setLowLatencyChannels(1);

    Servers servers(static_cast<std::size_t>(settings.servers));
    forEachAtOnce(servers.size(), [&](std::size_t i) {
        const NodeAddress& node = nodes[i % nodes.size()];
        try {
            servers[i] = std::make_shared<RemoteServer>(
                node, job, s_firstServerRank + static_cast<std::int32_t>(i));
        } catch (const std::exception& e) {
            this->warn("A server could not be started: " + std::string(e.what()));
        }
    });
    std::copy_if(servers.begin(), servers.end(), std::back_inserter(m_started),
                 [](const std::shared_ptr<RemoteServer>& server) { return server != nullptr; });
}

void RenderCluster::loadScene(const Scene& scene)
{
    forEachLiving([&](RemoteServer& server) { server.loadScene(scene); });
    requireServers();
}

Image RenderCluster::render(const Frame& frame)
{
    const std::int32_t number = ++m_frameNumber;
    forEachLiving([&](RemoteServer& server) { server.beginFrame(number, frame); });
    synchronise(number);
    requireServers();

    Image image(frame.width, frame.height);
    std::mutex imageLock;
    const double pathsPerTile = double{s_tileEdge} * s_tileEdge * frame.samples;
    const double tileTimeout = m_patience + 0.001 * pathsPerTile;
    TileScheduler tiles(frame.width, frame.height, s_tileEdge);
    kyNetProgress::start("Rendering", static_cast<double>(tiles.getCount()));
    forEachLiving([&](RemoteServer& server) {
        server.renderTiles(tiles, tileTimeout,
                           [&](const Tile& tile, const std::vector<Vector>& pixels) {
                               const std::lock_guard<std::mutex> guard(imageLock);
                               image.setTile(tile, pixels);
                               kyNetProgress::add(1.0);
                           });
    });
    if (!tiles.isFinished()) {
        requireServers();
    }
    synchronise(number);
    return image;
}

void RenderCluster::forEachLiving(const std::function<void(RemoteServer&)>& task)
{
    const Servers servers = m_living;
    std::vector<char> isLost(servers.size(), 0);
    forEachAtOnce(servers.size(), [&](std::size_t i) {
        try {
            task(*servers[i]);
        } catch (const std::exception& e) {
            isLost[i] = 1;
            this->warn("Lost " + servers[i]->describe() + ": " + e.what());
        }
    });
    m_living.clear();
    for (std::size_t i = 0; i < servers.size(); ++i) {
        if (isLost[i] == 0) {
            m_living.push_back(servers[i]);
        }
    }
}

void RenderCluster::synchronise(std::int32_t frame)
{
    // A group fails because a member is gone, whom the next group is made without; this is for a
    // member that comes back each time.
    std::size_t attempts = m_living.size() + 1;
    while (!m_living.empty()) {
        if (m_synchronised != m_living) {
            openSync();
            continue;
        }
        try {
            m_sync->synchronise(frame);
            return;
        } catch (const std::exception&) {
            m_synchronised.clear();
            if (--attempts == 0) {
                throw;
            }
        }
    }
}

void RenderCluster::openSync()
{
    m_sync.reset();
    std::mutex lock;
    std::map<const RemoteServer*, std::shared_ptr<kyNetLink>> channelOf;
    forEachLiving([&](RemoteServer& server) {
        auto channel = server.openSyncChannel();
        const std::lock_guard<std::mutex> guard(lock);
        channelOf[&server] = std::move(channel);
    });
    std::vector<std::shared_ptr<kyNetLink>> channels;
    for (const auto& server : m_living) {
        channels.push_back(channelOf[server.get()]);
    }
    if (!channels.empty()) {
        m_sync = std::make_unique<SyncGroup>(m_living, channels);
    }
    m_synchronised = m_living;
}

void RenderCluster::warn(const std::string& text)
{
    const std::lock_guard<std::mutex> guard(m_warnLock);
    m_warn(text);
}

void RenderCluster::requireServers() const
{
    if (m_living.empty()) {
        throw kyNetError("No render server is left");
    }
}

} // namespace render
