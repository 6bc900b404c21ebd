#include <apps/TALOClusterServer/RenderServer.h>

#include <exception>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyConnectionTimeout.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/links/kySocketLink.h>
#include <NetBase/serialization/kyNetStream.h>
#include <Utils/kyLog.h>
#include <apps/TALOClusterServer/OrderBook.h>

namespace render {

namespace {

constexpr std::chrono::seconds s_abandonedAfter{10};
/// Seconds that a connection has for its Hello.
constexpr double s_helloTimeout = 30.0;
/// Seconds between two looks whether anybody is still connected.
constexpr double s_lookInterval = 1.0;
constexpr int s_maxImageChannels = 64;

/// Wakes the thread that runs: without its application a server has no purpose.
struct ShutdownOnExit
{
    kySocketPipe& pipe;
    ~ShutdownOnExit() { pipe.shutdown(); }
};

void answerSuccess(kyNetStream& stream)
{
    stream.sendSuccess();
    stream.flush();
}

} // namespace

RenderServer::RenderServer(const std::string& socketPipe)
    : m_pipe(socketPipe), m_lastConnected(std::chrono::steady_clock::now())
{
}

RenderServer::~RenderServer()
{
    m_gate.close();
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
    kyNetStream stream(connection.link);
    try {
        converse(*connection.link, stream);
    } catch (const kyConnectionClosed&) {
        // The usual end of a connection.
    } catch (const std::exception& e) {
        kyLog::error("A connection was refused: %s", e.what());
        try {
            stream.clearSendBuffer();
            stream.sendException(e).flush();
        } catch (const std::exception&) {
            // Then its end has to say it.
        }
    }
    connection.link->shutdown();
    connection.isDone = true;
}

void RenderServer::converse(kySocketLink& link, kyNetStream& stream)
{
    link.setRecvTimeout(s_helloTimeout);
    const Hello hello = recvHello(stream);
    link.setRecvTimeout(0.0);
    stream.setRank(hello.rank);

    switch (hello.type) {
    case kyNodeConnectionType::LowLatency:
        serveApplication(stream);
        break;
    case kyNodeConnectionType::Image:
        m_images.add(link.getSharedPtr(), hello.rank, s_maxImageChannels);
        answerSuccess(stream);
        // Nothing comes on it; this waits for its end.
        stream.recvAll();
        break;
    case kyNodeConnectionType::Sync:
        answerSuccess(stream);
        serveSync(stream);
        break;
    }
}

Hello RenderServer::recvHello(kyNetStream& stream)
{
    Hello hello;
    stream >> hello;
    if (hello.type != kyNodeConnectionType::Sync && hello.type != kyNodeConnectionType::Image &&
        hello.type != kyNodeConnectionType::LowLatency) {
        throw kyNetError("Unknown connection type " +
                         std::to_string(static_cast<std::int32_t>(hello.type)));
    }
    if (hello.rank < s_firstServerRank) {
        throw kyNetError("A server cannot have the rank " + std::to_string(hello.rank));
    }
    const std::lock_guard<std::mutex> guard(m_lock);
    if (hello.type == kyNodeConnectionType::LowLatency) {
        if (m_application) {
            throw kyNetError("This server works for an application already");
        }
        m_application = hello;
    } else if (!m_application || m_application->session != hello.session ||
               m_application->rank != hello.rank) {
        throw kyNetError("This server does not work for this application");
    }
    return hello;
}

void RenderServer::serveApplication(kyNetStream& stream)
{
    const ShutdownOnExit endOfServer{m_pipe};
    answerSuccess(stream);
    OrderBook(stream, m_images, m_gate).run();
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
