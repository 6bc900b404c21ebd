#include <apps/TALORender/RemoteServer.h>

#include <algorithm>
#include <utility>

#include <NetBase/buffers/kyNetError.h>
#include <NetBase/links/kySocketLink.h>
#include <NetBase/receivers/kyNetMultiLinkReceiver.h>
#include <apps/common/SceneWire.h>

namespace render {

namespace {

/// One tile is rendered while the next one waits: the server's wait for orders is none.
constexpr std::size_t s_tilesInFlight = 2;

/// Seconds that a server has for its answer to Hello.
constexpr double s_helloTimeout = 30.0;

} // namespace

RemoteServer::RemoteServer(const NodeAddress& node, const Hello& job, std::int32_t rank)
    : m_client(node), m_job(job), m_rank(rank)
{
    ServiceClient::ServerSettings settings;
    settings.bookingId = job.bookingId;
    const ServiceClient::StartedServer server = m_client.startServer(settings);
    m_serverId = server.id;
    try {
        m_orders = kyNetStream(server.link);
        introduce(m_orders, kyNodeConnectionType::LowLatency);

        const int channels = m_job.channels.getChannels(kyNodeConnectionType::Image);
        std::vector<std::shared_ptr<kyNetLink>> links(static_cast<std::size_t>(channels));
        for (auto& link : links) {
            link = openChannel(kyNodeConnectionType::Image);
        }
        m_images.setReceiver(kyNetMultiLinkReceiver::create(links));
    } catch (const std::exception& e) {
        throw kyNetError(describe() + ": " + e.what());
    }
}

std::string RemoteServer::describe() const
{
    return "server " + std::to_string(m_serverId) + " on " + getNode().toString();
}

std::shared_ptr<kySocketLink> RemoteServer::openChannel(kyNodeConnectionType type) const
{
    auto link = m_client.connectServer(m_serverId);
    kyNetStream stream(link);
    introduce(stream, type);
    return link;
}

void RemoteServer::introduce(kyNetStream& stream, kyNodeConnectionType type) const
{
    Hello hello = m_job;
    hello.type = type;
    hello.rank = m_rank;
    const auto link = stream.getFirstLink();
    link->setRecvTimeout(s_helloTimeout);
    stream.setRank(s_applicationRank);
    stream << hello;
    stream.flush();
    stream.recvResult();
    link->setRecvTimeout(0.0);
}

std::shared_ptr<kyNetLink> RemoteServer::openSyncChannel() const
{
    return openChannel(kyNodeConnectionType::Sync);
}

void RemoteServer::loadScene(const Scene& scene)
{
    m_orders << Order::LoadScene;
    putScene(m_orders, scene);
    m_orders.flush();
    recvAnswer();
}

void RemoteServer::beginFrame(std::int32_t number, const Frame& frame)
{
    m_orders << Order::BeginFrame << number << frame;
    m_orders.flush();
    recvAnswer();
}

void RemoteServer::renderTiles(TileScheduler& tiles, double timeout, const TileHandler& onTile)
{
    try {
        m_orders.getFirstLink()->setRecvTimeout(timeout);
        for (;;) {
            // With a tile on its way there is always something to wait for, else only others'
            // tiles.
            while (m_inFlight.size() < s_tilesInFlight) {
                const auto tile = m_inFlight.empty() ? tiles.take() : tiles.tryTake();
                if (!tile) {
                    break;
                }
                order(*tile);
            }
            if (m_inFlight.empty()) {
                m_orders.getFirstLink()->setRecvTimeout(0.0);
                return;
            }
            m_work.seconds += recvAnswer();
            recvTile(onTile);
            tiles.finish();
        }
    } catch (const std::exception&) {
        for (const Tile& tile : std::exchange(m_inFlight, {})) {
            tiles.giveBack(tile);
        }
        throw;
    }
}

void RemoteServer::order(const Tile& tile)
{
    m_inFlight.push_back(tile);
    m_orders << Order::RenderTile << tile;
    m_orders.flush();
}

void RemoteServer::recvTile(const TileHandler& onTile)
{
    TileMessage message;
    m_images.recvMessage(message);
    Tile tile;
    const std::vector<Vector> pixels = message.getTile(tile);
    // Over several links the second tile may be here before the first.
    const auto ordered = std::find(m_inFlight.begin(), m_inFlight.end(), tile);
    if (ordered == m_inFlight.end()) {
        throw kyNetError("Received a tile that was not ordered");
    }
    onTile(tile, pixels);
    m_inFlight.erase(ordered);
    ++m_work.tiles;
}

double RemoteServer::recvAnswer()
{
    m_orders.recvResult();
    double seconds = 0.0;
    m_orders >> seconds;
    return seconds;
}

void RemoteServer::addTraffic(std::uint64_t sentBytes, std::uint64_t receivedBytes)
{
    m_work.sentBytes += sentBytes;
    m_work.receivedBytes += receivedBytes;
}

RemoteServer::Work RemoteServer::getWork() const
{
    Work work = m_work;
    for (const kyNetStream* stream : {&m_orders, &m_images}) {
        work.sentBytes += stream->getSentBytes();
        work.receivedBytes += stream->getRecevedBytes();
    }
    return work;
}

} // namespace render
