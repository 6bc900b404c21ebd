#include <apps/TALORender/RenderCluster.h>

#include <algorithm>
#include <exception>
#include <future>
#include <iterator>
#include <map>
#include <random>
#include <utility>

#include <NetBase/buffers/kyNetError.h>
#include <NetBase/buffers/kyNetProgress.h>
#include <apps/common/MethodCompressor.h>

namespace render {

namespace {

/// Edge of a tile in pixels: small enough that servers of different speed end together, large
/// enough that an order costs nothing against it.
constexpr std::uint32_t s_tileEdge = 32;

/// Seconds that a service takes to end a server that hangs, beside what it is asked for meanwhile.
constexpr double s_endingTime = 30.0;

/// Bytes of a warning that are passed on: a server may give any reason for its failure.
constexpr std::size_t s_maxWarning = 4096;

constexpr const char* s_noServers = "No render server is left";

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

std::size_t countTriangles(const Scene& scene)
{
    std::size_t count = 0;
    for (const Mesh& mesh : scene.meshes) {
        count += mesh.triangles.size();
    }
    return count;
}

/// The paths of the most expensive tile.
double countPaths(const std::vector<Frame>& frames)
{
    std::uint32_t samples = 0;
    for (const Frame& frame : frames) {
        samples = std::max(samples, frame.samples);
    }
    return double{s_tileEdge} * s_tileEdge * samples;
}

/// The pictures that are being rendered, by the numbers of their frames.
///
/// Threads: any.
class Pictures
{
public:
    void setTile(std::int32_t number, const Frame& frame, const Tile& tile,
                 const std::vector<Vector>& pixels)
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_pictures.try_emplace(number, frame.width, frame.height)
            .first->second.setTile(tile, pixels);
    }

    Image take(std::int32_t number)
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        return std::move(m_pictures.extract(number).mapped());
    }

private:
    std::mutex m_lock;
    std::map<std::int32_t, Image> m_pictures;
};

} // namespace

RenderCluster::RenderCluster(const Settings& settings, Warn warn)
    : m_settings(settings), m_warn(std::move(warn))
{
    startServers(findNodes());
    setUpServers();
    requireServers();
}

std::vector<NodeAddress> RenderCluster::findNodes() const
{
    const std::vector<NodeAddress>& nodes = m_settings.nodes;
    std::vector<char> isFound(nodes.size(), 0);
    forEachAtOnce(nodes.size(), [&](std::size_t i) {
        try {
            ServiceClient(nodes[i], std::nullopt, m_settings.key).status();
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

void RenderCluster::startServers(const std::vector<NodeAddress>& nodes)
{
    RemoteServer::Job job;
    job.hello.session = makeSession();
    job.hello.bookingId = m_settings.bookingId;
    job.hello.channels = m_settings.channels;
    job.key = m_settings.key;
    job.compressor = std::make_shared<MethodCompressor>();
    job.watchdog = m_watchdog;
    job.patience = m_settings.patience;

    Servers servers(static_cast<std::size_t>(m_settings.servers));
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

void RenderCluster::setUpServers()
{
    m_places.resize(m_started.size());
    if (m_settings.isRelayed) {
        std::vector<std::string> nodes;
        for (const auto& server : m_started) {
            nodes.push_back(server->getNode().toString());
        }
        m_places = planRelays(nodes);
    }
    // Who is to be relayed to is told so only when the one who relays has connected to it.
    std::map<std::size_t, std::vector<std::size_t>> levels;
    for (std::size_t i = 0; i < m_started.size(); ++i) {
        levels[m_places[i].level].push_back(i);
    }
    for (const auto& [level, members] : levels) {
        Servers servers;
        std::map<const RemoteServer*, Setup> setups;
        for (const std::size_t i : members) {
            servers.push_back(m_started[i]);
            setups[m_started[i].get()] = makeSetup(i);
        }
        forEach(servers, [&](RemoteServer& server) { server.setUp(setups.at(&server)); });
    }
}

Setup RenderCluster::makeSetup(std::size_t server) const
{
    const RelayPlace& place = m_places[server];
    Setup setup;
    setup.imageCompression = m_settings.imageCompression;
    setup.servicePort = static_cast<std::uint16_t>(m_started[server]->getNode().port);
    if (place.parent && !isLost(*m_started[*place.parent])) {
        setup.sceneSource = m_started[*place.parent]->getRank();
    }
    for (const std::size_t child : place.children) {
        setup.relayTargets.push_back(
            {m_started[child]->getRank(), m_started[child]->getServerId()});
    }
    return setup;
}

void RenderCluster::loadScene(const Scene& scene)
{
    const double limit = m_settings.patience + 5e-6 * static_cast<double>(countTriangles(scene)) *
                                                   static_cast<double>(m_started.size());
    std::map<const RemoteServer*, std::promise<bool>> promises;
    std::vector<std::shared_future<bool>> isLoaded;
    for (const auto& server : m_started) {
        isLoaded.emplace_back(promises[server.get()].get_future());
        if (isLost(*server)) {
            promises[server.get()].set_value(false);
        }
    }
    forEach(getLiving(), [&](RemoteServer& server) {
        // Its time begins when the one that relays to it is through. One that hangs has to be ended
        // before those behind it notice.
        const auto parent = findPlace(server).parent;
        const double grace = !parent || isLoaded[*parent].get() ? 0.0 : s_endingTime;
        try {
            server.loadScene(scene, limit + grace, limit);
        } catch (const std::exception&) {
            promises.at(&server).set_value(false);
            throw;
        }
        promises.at(&server).set_value(true);
    });
    requireServers();
}

const RelayPlace& RenderCluster::findPlace(const RemoteServer& server) const
{
    const auto isIt = [&](const auto& each) { return each.get() == &server; };
    const auto found = std::find_if(m_started.begin(), m_started.end(), isIt);
    return m_places[static_cast<std::size_t>(found - m_started.begin())];
}

void RenderCluster::render(const std::vector<Frame>& frames, const PictureHandler& onPicture)
{
    requireServers();
    const std::int32_t first = m_lastFrame + 1;
    m_lastFrame += static_cast<std::int32_t>(frames.size());
    const double limit = m_settings.patience + 0.001 * countPaths(frames);

    FrameQueue queue(frames, first, s_tileEdge);
    Pictures pictures;
    kyNetProgress::start("Rendering", static_cast<double>(queue.countTiles()));
    auto crew = std::async(std::launch::async, [&] {
        forEach(getLiving(), [&](RemoteServer& server) {
            server.render(queue, limit, [&](auto number, auto& tile, auto& pixels) {
                pictures.setTile(number, queue.getFrame(number), tile, pixels);
                kyNetProgress::add(1.0);
            });
        });
        // Nobody is left who could finish anything.
        queue.close();
    });
    try {
        lead(queue, first, m_lastFrame + 1, limit, [&](std::int32_t number) {
            onPicture(static_cast<std::size_t>(number - first), pictures.take(number));
        });
    } catch (const std::exception&) {
        m_isEnding = true;
        queue.close();
        for (const auto& server : m_started) {
            server->shutdown();
        }
        throw;
    }
}

void RenderCluster::lead(FrameQueue& queue, std::int32_t first, std::int32_t end, double limit,
                         const std::function<void(std::int32_t)>& deliver)
{
    const auto finish = [&](std::int32_t number) {
        if (!queue.waitFinished(number)) {
            throw kyNetError(s_noServers);
        }
        deliver(number);
    };
    for (std::int32_t number = first; number < end; ++number) {
        queue.announce(number);
        // A server may have two tiles in work before it comes to the frame.
        forEach(getLiving(),
                [&](RemoteServer& server) { server.synchronise(number, 2.0 * limit); });
        requireServers();
        queue.release(number);
        // A server knows two frames only: the next one has to wait until the last is complete.
        if (number > first) {
            finish(number - 1);
        }
    }
    finish(end - 1);
}

void RenderCluster::reportTraffic()
{
    forEach(getLiving(), [](RemoteServer& server) { server.reportTraffic(); });
}

void RenderCluster::forEach(const Servers& servers, const std::function<void(RemoteServer&)>& task)
{
    forEachAtOnce(servers.size(), [&](std::size_t i) {
        try {
            task(*servers[i]);
        } catch (const std::exception& e) {
            lose(*servers[i], e.what());
        }
    });
}

void RenderCluster::lose(RemoteServer& server, const std::string& reason)
{
    {
        const std::lock_guard<std::mutex> guard(m_lostLock);
        if (m_isEnding || !m_lost.insert(&server).second) {
            return;
        }
    }
    warn("Lost " + server.describe() + ": " + reason);
    server.giveUp();
}

bool RenderCluster::isLost(const RemoteServer& server) const
{
    const std::lock_guard<std::mutex> guard(m_lostLock);
    return m_lost.count(&server) != 0;
}

RenderCluster::Servers RenderCluster::getLiving() const
{
    Servers living;
    std::copy_if(m_started.begin(), m_started.end(), std::back_inserter(living),
                 [this](const auto& server) { return !isLost(*server); });
    return living;
}

void RenderCluster::requireServers() const
{
    if (getLiving().empty()) {
        throw kyNetError(s_noServers);
    }
}

void RenderCluster::warn(const std::string& text) const
{
    const std::lock_guard<std::mutex> guard(m_warnLock);
    m_warn(text.substr(0, s_maxWarning));
}

} // namespace render
