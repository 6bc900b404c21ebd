#include <NetBase/service/kyNetService.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <thread>
#include <utility>

#include <QCoreApplication>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyConnectionTimeout.h>
#include <NetBase/buffers/kyNetBufferPool.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/buffers/kyNetMem.h>
#include <NetBase/buffers/kyNetOptions.h>
#include <NetBase/links/kyBoundSocketLink.h>
#include <NetBase/links/kySocketAddress.h>
#include <NetBase/links/kySocketLink.h>
#include <NetBase/platform/kyThreads.h>
#include <NetBase/serialization/kyNetStream.h>
#include <NetBase/service/kyNetClientVersion.h>
#include <NetBase/service/kyNetServerProcess.h>
#include <NetBase/service/kyNetServiceCommand.h>
#include <NetBase/service/kyNetServiceStatus.h>
#include <Utils/kyLog.h>
#include <VersionInfo/kyVersionInfo.h>

namespace {

/// Seconds that a relay has to connect to the other service.
constexpr double s_relayConnectTimeout = 5.0;

/// Seconds for which a hand-over waits before it looks whether the server still runs: the end of a
/// server that never took its connection is noticed this fast.
constexpr double s_handOverSlice = 0.1;

constexpr std::chrono::milliseconds s_handOverPause{1};

/// How often the in-process host looks for its first server.
constexpr std::chrono::milliseconds s_firstServerInterval{10};

bool isActive(const kyNetServerProcess& server)
{
    return server.isRunning() && !server.isStopRequested();
}

/// Gives the server the client's connection as soon as it asks for it, however long it takes.
void handOver(kyNetServerProcess& server, kySocketLink& link)
{
    for (;;) {
        // Asked first: what a server did before its end is seen by the attempt that follows.
        const bool isRunning = server.isRunning();
        try {
            server.sendSocket(link, s_handOverSlice);
            return;
        } catch (const kyConnectionTimeout&) {
            QCoreApplication::processEvents();
            if (!isRunning) {
                throw kyNetError("Failed to connect started server");
            }
            // Who wants to stop the server needs its pipe, too.
            std::this_thread::sleep_for(s_handOverPause);
        }
    }
}

} // namespace

struct kyNetService::StartRequest
{
    std::string arguments;
    std::string version;
    std::string bookingId;
    bool hasDisplay = false;
    bool isStereo = false;
    bool flagZ = false;
    bool flagT = false;
    bool flagTA = false;
};

std::atomic<bool> kyNetService::s_inProcessHasDisplay{false};
std::atomic<bool> kyNetService::s_inProcessIsStereo{false};

kyNetService::kyNetService(int port, std::string serverPath)
    : m_port(port), m_serverPath(std::move(serverPath))
{
}

kyNetService::~kyNetService() = default;

std::shared_ptr<kyBoundSocketLink> kyNetService::listen()
{
    auto listener = std::make_shared<kyBoundSocketLink>(m_port);
    m_port = listener->getAddress().getPort();
    bool isShutDown = false;
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_listener = listener;
        isShutDown = m_isShutDown;
    }
    if (isShutDown) {
        listener->shutdown();
    }
    return listener;
}

std::shared_ptr<kyBoundSocketLink> kyNetService::getListener() const
{
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_listener;
}

void kyNetService::run()
{
    try {
        const std::shared_ptr<kyBoundSocketLink> listener = getListener();
        acceptClients(listener ? *listener : *listen());
    } catch (const kyConnectionClosed&) {
        // The listener was shut down. A client that left before its handshake word ends the
        // service just as silently; this is intended.
    } catch (const std::exception& e) {
        kyLog::error("%s", e.what());
    }
}

void kyNetService::acceptClients(const kyBoundSocketLink& listener)
{
    for (;;) {
        const auto link = std::make_shared<kySocketLink>(listener);

        std::array<char, 4> handshakeWord;
        link->recv(handshakeWord.data(), handshakeWord.size());
        link->send(handshakeWord.data(), handshakeWord.size());

        try {
            handleRequest(link.get());
        } catch (const std::exception& e) {
            kyLog::error("%s\n", e.what());
        }
    }
}

void kyNetService::handleExternalRequest(kySocketLink* link)
{
    try {
        handleRequest(link);
    } catch (const std::exception& e) {
        kyLog::error("Request error %s\n", e.what());
    }
}

void kyNetService::handleRequest(kySocketLink* link)
{
    kyNetStream stream(link->getSharedPtr());
    try {
        dispatch(stream, *link);
    } catch (const std::exception& e) {
        // What was written of an answer must not stand before the exception.
        stream.clearSendBuffer();
        stream.sendException(e);
        stream.flush();
    }
}

void kyNetService::dispatch(kyNetStream& stream, kySocketLink& link)
{
    kyNetServiceCommand command{};
    stream >> command;
    switch (command) {
    case kyNetServiceCommand::StartServer:
        startServer(stream, link);
        break;
    case kyNetServiceCommand::ConnectServer:
        connectServer(stream, link);
        break;
    case kyNetServiceCommand::StopService:
        stopService(stream);
        break;
    case kyNetServiceCommand::ConnectService:
        connectService(stream);
        return; // the relay answers
    case kyNetServiceCommand::StopServer:
        stopServer(stream);
        // The client need not wait for the server's end.
        stream.flush();
        removeStoppedServers();
        return;
    case kyNetServiceCommand::GetStatus:
        getStatus(stream);
        break;
    case kyNetServiceCommand::StopServersByBookingId:
        stopServerByBookingId(stream);
        break;
    default:
        throw kyNetError("Unknown service command");
    }
    stream.flush();
}

void kyNetService::startServer(kyNetStream& stream, kySocketLink& link)
{
    removeStoppedServers();
    const StartRequest request = readStartRequest(stream);
    s_inProcessHasDisplay = request.hasDisplay;
    s_inProcessIsStereo = request.isStereo;

    const std::shared_ptr<kyNetServerProcess> server = addServer(request);
    const std::uint32_t id = server->getServerId();
    try {
        server->start(m_console);
        handOver(*server, link);
    } catch (const std::exception& e) {
        kyLog::error("Failed to start server: %s\n", e.what());
        const std::lock_guard<std::mutex> guard(m_lock);
        m_starting.erase(id);
        m_servers.erase(id);
        throw;
    }
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_starting.erase(id);
    }
    stream.sendSuccess() << id << kyNetMem::getAvailableMemory()
                         << static_cast<std::int32_t>(serverCount());
}

kyNetService::StartRequest kyNetService::readStartRequest(kyNetStream& stream)
{
    StartRequest request;
    std::string reportedVersion;
    std::string unused;
    stream >> request.arguments >> reportedVersion >> unused;

    const kyNetClientVersion version(reportedVersion);
    request.version = version.getText();
    const std::string& ownVersion = kyVersionInfo::the().getVersionString();
    if (version.isNewerThan(ownVersion)) {
        throw kyNetError("Incompatible versions: TALOClusterService " + ownVersion +
                         " request from " + request.version);
    }

    if (version.tellsDisplay()) {
        stream >> request.hasDisplay;
    }
    stream >> request.flagZ >> request.flagT >> request.flagTA;
    if (version.tellsBookingId()) {
        stream >> request.bookingId;
    }
    if (version.tellsStereo()) {
        stream >> request.isStereo;
    }
    return request;
}

std::shared_ptr<kyNetServerProcess> kyNetService::addServer(const StartRequest& request)
{
    const std::lock_guard<std::mutex> guard(m_lock);
    if (m_isShutDown) {
        throw kyNetError("Service is shutting down");
    }
    const std::uint32_t id = ++m_lastServerId;
    auto server = kyNetServerProcess::create(request.arguments, id, m_serverPath, request.version,
                                             request.hasDisplay, request.isStereo, request.flagZ,
                                             request.flagT, request.flagTA, request.bookingId);
    m_starting.insert(id);
    m_servers[id] = server;
    return server;
}

void kyNetService::connectServer(kyNetStream& stream, kySocketLink& link)
{
    std::uint32_t id = 0;
    stream >> id;
    handOver(*getServer(id), link);
    stream.sendSuccess();
}

void kyNetService::stopService(kyNetStream& stream)
{
    stream.sendSuccess();
    stream.flush();
    if (const std::shared_ptr<kyBoundSocketLink> listener = getListener()) {
        listener->shutdown();
    }
}

void kyNetService::connectService(kyNetStream& stream)
{
    std::string host;
    std::uint32_t port = 0;
    stream >> host >> port;
    kyThreads::startDetached([client = stream.getFirstLink(), host, port] {
        relay(client, host, static_cast<int>(port));
    });
}

void kyNetService::relay(const std::shared_ptr<kyNetLink>& client, const std::string& host,
                         int port)
{
    try {
        kyNetStream stream(client);
        std::shared_ptr<kySocketLink> remote;
        try {
            remote =
                std::make_shared<kySocketLink>(kySocketAddress(host, port), s_relayConnectTimeout);
            remote->signalHPCNetSocket();
            stream << true;
            stream.flush();
        } catch (const std::exception&) {
            stream.clearSendBuffer();
            stream << false;
            stream.flush();
            return;
        }
        // Buffers are passed on as they are: a cipher is now the affair of the two ends.
        client->setCipher(nullptr);
        // The answer is out before anything that the other service says can be.
        kyThreads::startDetached([client, remote] { connectLinks(client, remote); });
        try {
            kyThreads::startDetached([client, remote] { connectLinks(remote, client); });
        } catch (...) {
            client->shutdown();
            remote->shutdown();
        }
    } catch (...) {
        // The client is gone; nobody is left to be told.
    }
}

void kyNetService::connectLinks(const std::shared_ptr<kyNetLink>& from,
                                const std::shared_ptr<kyNetLink>& to)
{
    try {
        std::shared_ptr<kyNetBuffer> buffer = kyNetBufferPool::pop();
        for (;;) {
            from->recv(buffer);
            to->send(buffer);
        }
    } catch (...) {
        // Neither end may go on waiting for the other one, which would never hear of this end.
        from->shutdown();
        to->shutdown();
    }
}

void kyNetService::stopServer(kyNetStream& stream)
{
    std::uint32_t id = 0;
    stream >> id;
    getServer(id)->stop();
    stream.sendSuccess();
}

void kyNetService::stopServerByBookingId(kyNetStream& stream)
{
    std::string bookingId;
    stream >> bookingId;
    std::vector<std::shared_ptr<kyNetServerProcess>> booked;
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        for (const auto& [id, server] : m_servers) {
            if (server->bookingId() == bookingId) {
                booked.push_back(server);
            }
        }
    }
    for (const auto& server : booked) {
        server->stop();
    }
    stream.sendSuccess();
}

void kyNetService::getStatus(kyNetStream& stream) const
{
    kyNetServiceStatus status;
    status.setNumberOfClusterServers(serverCount());
    status.setFreeMemory(kyNetMem::getAvailableMemory());
    status.setIsRunning(true);
    status.setVersion(kyVersionInfo::the().getVersionString());
    status.setBookingIds(bookingIds());
    // The CPU usage is left out on purpose: readers take it for 0.
    stream.sendSuccess() << status;
}

int kyNetService::serverCount() const
{
    const std::lock_guard<std::mutex> guard(m_lock);
    return static_cast<int>(
        std::count_if(m_servers.begin(), m_servers.end(),
                      [](const auto& entry) { return isActive(*entry.second); }));
}

std::vector<std::string> kyNetService::bookingIds() const
{
    std::vector<std::string> ids;
    const std::lock_guard<std::mutex> guard(m_lock);
    for (const auto& [serverId, server] : m_servers) {
        std::string bookingId = server->bookingId();
        if (!bookingId.empty() && isActive(*server)) {
            ids.push_back(std::move(bookingId));
        }
    }
    return ids;
}

std::shared_ptr<kyNetServerProcess> kyNetService::getServer(unsigned int id) const
{
    const std::lock_guard<std::mutex> guard(m_lock);
    const auto found = m_servers.find(id);
    if (found == m_servers.end()) {
        throw kyNetError("Unknown server:" + std::to_string(id));
    }
    return found->second;
}

void kyNetService::removeStoppedServers()
{
    // Destroyed when the lock is free again: a server that does not want to end takes seconds.
    std::vector<std::shared_ptr<kyNetServerProcess>> stopped;
    const std::lock_guard<std::mutex> guard(m_lock);
    for (auto entry = m_servers.begin(); entry != m_servers.end();) {
        if (m_starting.count(entry->first) == 0 && !isActive(*entry->second)) {
            stopped.push_back(std::move(entry->second));
            entry = m_servers.erase(entry);
        } else {
            ++entry;
        }
    }
}

void kyNetService::shutdown()
{
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_isShutDown = true;
    }
    if (const std::shared_ptr<kyBoundSocketLink> listener = getListener()) {
        listener->shutdown();
    }
    for (const auto& server : allServers()) {
        server->stop();
    }
}

void kyNetService::killServers()
{
    for (const auto& server : allServers()) {
        server->tryKill();
    }
}

std::vector<std::shared_ptr<kyNetServerProcess>> kyNetService::allServers() const
{
    const std::lock_guard<std::mutex> guard(m_lock);
    std::vector<std::shared_ptr<kyNetServerProcess>> servers;
    for (const auto& [id, server] : m_servers) {
        servers.push_back(server);
    }
    return servers;
}

std::string kyNetService::runInProcess()
{
    kyNetServerProcess::setInProcess(true, {});
    static kyNetService service(kyNetOptions::getDefaultServicePort(), "");
    static const std::shared_ptr<kyBoundSocketLink> listener = [] {
        auto bound = service.listen();
        kyThreads::startDetached([] { service.run(); });
        return bound;
    }();

    for (;;) {
        {
            const std::lock_guard<std::mutex> guard(service.m_lock);
            if (!service.m_servers.empty()) {
                return service.m_servers.begin()->second->socketPipeName();
            }
        }
        std::this_thread::sleep_for(s_firstServerInterval);
    }
}
