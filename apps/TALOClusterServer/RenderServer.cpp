#include <apps/TALOClusterServer/RenderServer.h>

#include <exception>
#include <optional>
#include <utility>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyConnectionTimeout.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/buffers/kyNetOptions.h>
#include <NetBase/links/kySocketLink.h>
#include <NetBase/senders/kyNetSender.h>
#include <NetBase/serialization/kyNetStream.h>
#include <Utils/kyLog.h>
#include <apps/TALOClusterServer/OrderBook.h>
#include <apps/TALOClusterServer/RayCaster.h>
#include <apps/TALOClusterServer/SceneInlet.h>
#include <apps/common/KeyExchange.h>
#include <apps/common/MethodCompressor.h>
#include <apps/common/ServiceClient.h>

namespace render {

namespace {

constexpr std::chrono::seconds s_abandonedAfter{10};
/// Seconds that a connection has for each word up to its Hello.
constexpr double s_helloTimeout = 30.0;
/// Seconds that announced channels have to be opened once the application says what to set up.
constexpr double s_channelTimeout = 30.0;
/// Seconds between two looks whether anybody is still connected.
constexpr double s_lookInterval = 1.0;

/// The way to another server of this node: through the service that started this one.
SceneRelay::Opener openByService(const std::shared_ptr<const SharedKey>& key)
{
    return [key](std::uint16_t port, std::uint32_t serverId) {
        return ServiceClient({"127.0.0.1", port}, std::nullopt, key).connectServer(serverId);
    };
}

/// Ends what waits for the servers that a scene is relayed to.
struct EndOfRelay
{
    std::shared_ptr<kyNetSender> relay;
    ~EndOfRelay()
    {
        if (relay) {
            relay->shutdown();
        }
    }
};

void answerSuccess(kyNetStream& stream)
{
    stream.sendSuccess();
    stream.flush();
}

} // namespace

RenderServer::RenderServer(const std::string& socketPipe,
                           const std::shared_ptr<const SharedKey>& key)
    : RenderServer(socketPipe, key, openByService(key))
{
}

RenderServer::RenderServer(const std::string& socketPipe, std::shared_ptr<const SharedKey> key,
                           SceneRelay::Opener opener)
    : m_pipe(socketPipe),
      m_key(std::move(key)),
      m_opener(std::move(opener)),
      m_lastConnected(std::chrono::steady_clock::now())
{
}

RenderServer::~RenderServer()
{
    m_gate.close();
    m_lobby.close();
    for (Connection& connection : m_connections) {
        connection.link->shutdown();
    }
    for (Connection& connection : m_connections) {
        connection.thread.join();
    }
}

void RenderServer::run()
{
    try {
        while (!isAbandoned()) {
            acceptConnection();
            removeDone();
        }
    } catch (const kyConnectionClosed&) {
        // The service has stopped this server or is gone, or the application is.
    }
}

void RenderServer::acceptConnection()
{
    std::shared_ptr<kySocketLink> link;
    try {
        link = std::make_shared<kySocketLink>(m_pipe, s_lookInterval);
    } catch (const kyConnectionTimeout&) {
        return;
    }
    Connection& connection = m_connections.emplace_back();
    connection.link = std::move(link);
    try {
        connection.thread = std::thread([this, &connection] { serve(connection); });
    } catch (const std::exception&) {
        m_connections.pop_back();
        throw;
    }
}

void RenderServer::removeDone()
{
    for (auto connection = m_connections.begin(); connection != m_connections.end();) {
        if (connection->isDone) {
            connection->thread.join();
            connection = m_connections.erase(connection);
        } else {
            ++connection;
        }
    }
}

bool RenderServer::isAbandoned()
{
    const auto now = std::chrono::steady_clock::now();
    if (!m_connections.empty()) {
        m_lastConnected = now;
    }
    return now - m_lastConnected > s_abandonedAfter;
}

void RenderServer::serve(Connection& connection)
{
    bool isOver = true;
    try {
        recvKey(connection.link);
        isOver = converse(connection);
    } catch (const kyConnectionClosed&) {
        // The usual end of a connection.
    } catch (const std::exception& e) {
        kyLog::error("A connection was refused: %s", e.what());
    }
    if (isOver) {
        connection.link->shutdown();
    }
    if (connection.isApplication) {
        // Without its application a server has no purpose.
        m_lobby.close();
        m_pipe.shutdown();
    }
    connection.isDone = true;
}

void RenderServer::recvKey(const std::shared_ptr<kySocketLink>& link)
{
    link->setRecvTimeout(s_helloTimeout);
    // Without a key the exchange only looks at what is there.
    if (!link->pollReadable(s_helloTimeout)) {
        throw kyConnectionTimeout();
    }
    KeyExchange::answer(link, m_key);
}

bool RenderServer::converse(Connection& connection)
{
    kyNetStream stream(connection.link);
    try {
        return converse(connection, stream);
    } catch (const kyConnectionClosed&) {
        throw;
    } catch (const std::exception& e) {
        stream.clearSendBuffer();
        stream.sendException(e).flush();
        throw;
    }
}

bool RenderServer::converse(Connection& connection, kyNetStream& stream)
{
    Hello hello;
    stream >> hello;
    connection.link->setRecvTimeout(0.0);
    connection.isApplication = m_lobby.admit(hello);
    stream.setRank(hello.rank);
    answerSuccess(stream);

    if (hello.type == kyNodeConnectionType::Sync) {
        serveSync(stream);
        return true;
    }
    m_lobby.keep(hello, connection.link);
    if (connection.isApplication) {
        serveApplication(hello, stream);
    }
    return connection.isApplication;
}

void RenderServer::serveApplication(const Hello& application, kyNetStream& stream)
{
    Setup setup;
    stream >> setup;
    if (!MethodCompressor::knows(setup.imageCompression)) {
        throw kyNetError("Unknown compression method " +
                         std::to_string(static_cast<std::int32_t>(setup.imageCompression)));
    }
    const RenderChannels channels = m_lobby.waitForChannels(s_channelTimeout);
    const auto relay = SceneRelay::open(application, setup, m_opener, m_key);
    kyNetOptions::setImageCompression(setup.imageCompression);
    stream.sendSuccess() << RayCaster::s_isPlain << kyNetStream::flush;
    // From here on only the chains read and write the channels.
    carryOut(application.rank, setup.sceneSource, channels, relay);
}

void RenderServer::carryOut(std::int32_t rank, std::int32_t sceneSource,
                            const RenderChannels& channels,
                            const std::shared_ptr<kyNetSender>& relay)
{
    const bool isRelayed = sceneSource != s_applicationRank;
    const auto compressor = std::make_shared<MethodCompressor>();
    kyNetStream stream;
    const EndOfRelay endOfRelay{relay};
    stream.setRank(rank);
    stream.setSender(channels.makeSender(compressor, s_applicationRank,
                                         kyNetOptions::getLowLatencyServerThreshold()));
    stream.setReceiver(channels.makeReceiver(compressor, isRelayed ? nullptr : relay, rank));

    OrderBook orders(stream, m_gate);
    std::optional<SceneInlet> inlet;
    if (isRelayed) {
        inlet.emplace(sceneSource, rank, m_lobby, relay, orders);
    }
    orders.run();
}

void RenderServer::serveSync(kyNetStream& stream)
{
    for (;;) {
        const std::int32_t frame = stream.waitSync();
        if (!m_gate.wait(frame)) {
            return;
        }
        stream.sendSync(frame);
    }
}

} // namespace render
