#include <apps/TALORender/RemoteServer.h>

#include <algorithm>
#include <sstream>
#include <utility>

#include <NetBase/buffers/kyNetError.h>
#include <NetBase/buffers/kyNetOptions.h>
#include <NetBase/links/kySocketLink.h>
#include <NetBase/receivers/kyNetMultiLinkReceiver.h>
#include <NetBase/senders/kyNetSender.h>
#include <apps/TALORender/Watchdog.h>
#include <apps/common/KeyExchange.h>
#include <apps/common/SceneWire.h>

namespace render {

namespace {

/// One tile is rendered while the next one waits: the server's wait for orders is none.
constexpr std::size_t s_tilesInFlight = 2;

} // namespace

RemoteServer::RemoteServer(const NodeAddress& node, const Job& job, std::int32_t rank)
    : m_client(node, std::nullopt, job.key), m_job(job), m_rank(rank)
{
    ServiceClient::ServerSettings settings;
    settings.bookingId = job.hello.bookingId;
    const ServiceClient::StartedServer server = m_client.startServer(settings);
    m_serverId = server.id;
    try {
        m_first = server.link;
        introduce(m_first, kyNodeConnectionType::LowLatency);
        m_channels.lowLatency = openChannels(kyNodeConnectionType::LowLatency, 1);
        m_channels.lowLatency.insert(m_channels.lowLatency.begin(), m_first);
        m_channels.image = openChannels(kyNodeConnectionType::Image, 0);
        const auto sync = openChannels(kyNodeConnectionType::Sync, 0);
        m_sync.setRank(s_applicationRank);
        m_sync.setSender(
            kyNetSender::createBundle(sync, false, {static_cast<unsigned int>(m_rank)}));
        m_sync.setReceiver(kyNetMultiLinkReceiver::create(sync));
    } catch (const std::exception& e) {
        giveUp();
        throw kyNetError(describe() + ": " + e.what());
    }
}

RemoteServer::~RemoteServer()
{
    shutdown();
}

std::string RemoteServer::describe() const
{
    return "server " + std::to_string(m_serverId) + " on " + getNode().toString();
}

std::vector<std::shared_ptr<kyNetLink>> RemoteServer::openChannels(kyNodeConnectionType type,
                                                                   std::size_t opened)
{
    std::vector<std::shared_ptr<kyNetLink>> links(
        static_cast<std::size_t>(m_job.hello.channels.getChannels(type)) - opened);
    for (auto& link : links) {
        const std::shared_ptr<kySocketLink> opening = m_client.connectServer(m_serverId);
        introduce(opening, type);
        link = opening;
    }
    return links;
}

void RemoteServer::introduce(const std::shared_ptr<kySocketLink>& link, kyNodeConnectionType type)
{
    hold(link);
    within(m_job.patience, [&] {
        KeyExchange::offer(link, m_job.key);
        Hello hello = m_job.hello;
        hello.type = type;
        hello.rank = m_rank;
        kyNetStream stream(link);
        stream.setRank(s_applicationRank);
        stream << hello << kyNetStream::flush;
        stream.recvResult();
    });
}

void RemoteServer::hold(const std::shared_ptr<kyNetLink>& link)
{
    const std::lock_guard<std::mutex> guard(m_linksLock);
    m_links.push_back(link);
    if (m_isShutDown) {
        link->shutdown();
    }
}

void RemoteServer::setUp(const Setup& setup)
{
    within(m_job.patience, [&] {
        kyNetStream stream(m_first);
        stream.setRank(s_applicationRank);
        stream << setup << kyNetStream::flush;
        stream.recvResult() >> m_work.hasPlainRays;
    });
    m_isRelayed = setup.sceneSource != s_applicationRank;
    m_stream.setRank(s_applicationRank);
    m_stream.setSender(m_channels.makeSender(m_job.compressor, static_cast<unsigned int>(m_rank),
                                             kyNetOptions::getLowLatencyClientThreshold()));
    m_stream.setReceiver(m_channels.makeReceiver(m_job.compressor));
}

void RemoteServer::loadScene(const Scene& scene, double relayLimit, double limit)
{
    bool isLoaded = false;
    if (m_isRelayed) {
        within(relayLimit, [&] {
            AnswerMessage message;
            m_stream.recvMessage(message);
            // Whatever became of the relays before it, the scene itself may be sound.
            isLoaded = message.getAnswer().failure.empty();
        });
    }
    if (!isLoaded) {
        within(limit, [&] {
            sendScene(scene);
            recvAnswer(Order::LoadScene);
        });
    }
    // All has left; this only waits for the last to be counted.
    m_stream.waitAllDataTransfered();
    m_work.scene = {m_stream.getSentBytes(), m_stream.getCompressedBytes()};
}

void RemoteServer::sendScene(const Scene& scene)
{
    m_stream << Order::LoadScene;
    putScene(m_stream, scene);
    m_stream.flush();
}

void RemoteServer::render(FrameQueue& queue, double limit, const TileHandler& onTile)
{
    std::int32_t begun = 0;
    try {
        for (;;) {
            // With a tile on its way there is always something to wait for, else only what others
            // do.
            while (m_inFlight.size() < s_tilesInFlight) {
                const auto task = m_inFlight.empty() ? queue.take(begun) : queue.tryTake(begun);
                if (!task) {
                    break;
                }
                perform(*task, queue.getFrame(task->frame));
            }
            if (m_inFlight.empty()) {
                return;
            }
            within(limit, [&] { queue.finish(recvTile(onTile)); });
        }
    } catch (const std::exception&) {
        for (const FrameQueue::Task& task : std::exchange(m_inFlight, {})) {
            queue.giveBack(task);
        }
        throw;
    }
}

void RemoteServer::perform(const FrameQueue::Task& task, const Frame& frame)
{
    kyNetMessage message;
    if (task.tile) {
        m_inFlight.push_back(task);
        message << Order::RenderTile << task.frame << *task.tile;
    } else {
        message << Order::BeginFrame << task.frame << frame;
    }
    within(m_job.patience, [&] { send(message); });
}

FrameQueue::Task RemoteServer::recvTile(const TileHandler& onTile)
{
    const Answer answer = recvAnswer(Order::RenderTile);
    // Over several links the second tile may be here before the first.
    const auto ordered = std::find_if(m_inFlight.begin(), m_inFlight.end(), [&](const auto& task) {
        return task.frame == answer.frame && task.tile == answer.tile;
    });
    if (ordered == m_inFlight.end()) {
        throw kyNetError("Received a tile that was not ordered");
    }
    const FrameQueue::Task task = *ordered;
    onTile(answer.frame, answer.tile, answer.pixels);
    m_inFlight.erase(ordered);
    ++m_work.tiles;
    m_work.seconds += answer.seconds;
    return task;
}

void RemoteServer::synchronise(std::int32_t frame, double limit)
{
    within(limit, [&] {
        m_sync.sendSync(frame);
        const std::int32_t begun = m_sync.waitSync();
        if (begun != frame) {
            throw kyNetError("It has begun frame " + std::to_string(begun) + " instead of " +
                             std::to_string(frame));
        }
    });
}

void RemoteServer::reportTraffic()
{
    within(m_job.patience, [&] {
        kyNetMessage message;
        message << Order::ReportTraffic;
        send(message);
        const Answer answer = recvAnswer(Order::ReportTraffic);
        m_work.received = {answer.sentBytes, answer.compressedBytes};
    });
}

void RemoteServer::send(kyNetMessage& message)
{
    m_stream.sendMessage(message, m_rank, kyNetBufferSendMode::Automatic);
}

Answer RemoteServer::recvAnswer(Order order)
{
    AnswerMessage message;
    m_stream.recvMessage(message);
    Answer answer = message.getAnswer();
    if (!answer.failure.empty()) {
        throw kyNetError(answer.failure);
    }
    if (answer.order != order) {
        throw kyNetError("Received an answer to another order");
    }
    return answer;
}

template <class Action> void RemoteServer::within(double seconds, const Action& action)
{
    const Watchdog::Guard guard(*m_job.watchdog, seconds, [this, seconds] {
        m_silence = seconds;
        shutdown();
    });
    try {
        action();
    } catch (const std::exception&) {
        // Its end is what all who wait for it see of a server that hangs.
        if (!isHanging()) {
            throw;
        }
    }
    if (isHanging()) {
        std::ostringstream text;
        text << "It gave no answer within " << m_silence << " seconds";
        throw kyNetError(text.str());
    }
}

void RemoteServer::shutdown()
{
    const std::lock_guard<std::mutex> guard(m_linksLock);
    m_isShutDown = true;
    for (const auto& link : m_links) {
        link->shutdown();
    }
}

void RemoteServer::giveUp()
{
    shutdown();
    if (!isHanging()) {
        return;
    }
    try {
        m_client.stopServer(m_serverId);
    } catch (const std::exception&) {
        // It is gone already, or its service is.
    }
}

RemoteServer::Work RemoteServer::getWork() const
{
    Work work = m_work;
    work.sent = {m_stream.getSentBytes(), m_stream.getCompressedBytes()};
    return work;
}

} // namespace render
