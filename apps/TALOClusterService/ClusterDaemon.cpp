#include <apps/TALOClusterService/ClusterDaemon.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <future>
#include <thread>
#include <utility>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/links/kyBoundSocketLink.h>
#include <NetBase/links/kySocketAddress.h>
#include <NetBase/links/kySocketLink.h>
#include <Utils/kyLog.h>
#include <apps/TALOClusterService/ClientLink.h>
#include <apps/common/KeyExchange.h>

namespace {

/// Clients served at once; each one costs a thread. More have to queue at the port.
constexpr int s_maxClients = 64;

/// Of these, so many may be waited for. The others are being served, or in the middle of their
/// handshake, which ends by itself.
constexpr std::size_t s_maxWaitingClients = 32;

/// Seconds that a client has to say something, before the check of its handshake begins.
constexpr double s_firstByteTimeout = 2.0;

/// How long a client is waited for in all, from its handshake to its answer, and how many bytes its
/// request may have. Most have a few hundred; the memory is needed for each client.
constexpr std::chrono::seconds s_clientLimit{10};
constexpr std::uint64_t s_maxRequestSize = 16 << 20;

/// How long the daemon waits for descriptors or threads when there are none left, and how long
/// there must have been enough of them before a lack is reported again.
constexpr std::chrono::milliseconds s_backOff{100};
constexpr std::chrono::seconds s_reportPause{60};

/// Addresses of refused clients that are logged in this time.
constexpr std::size_t s_maxReported = 64;

/// How long servers have to notice that they are to end before they are killed.
constexpr std::chrono::seconds s_grace{3};

} // namespace

ClusterDaemon::ClusterDaemon(Settings settings)
    : m_allowed(std::move(settings.allowed)),
      m_key(std::move(settings.key)),
      m_service(settings.port, std::move(settings.serverPath)),
      m_listener(m_service.listen()),
      m_watch(s_clientLimit, s_maxWaitingClients),
      m_refusals(s_reportPause, s_maxReported),
      m_clients(s_maxClients)
{
    m_service.setConsole(settings.logsServerOutput);
}

ClusterDaemon::~ClusterDaemon() = default;

void ClusterDaemon::run()
{
    // On a thread of its own, which may have to wait for a client's place while the end has come.
    auto accepting = std::async(std::launch::async, [this] {
        acceptClients();
        stop();
    });
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_stopped.wait(lock, [this] { return m_isStopped; });
    }
    m_watch.close();
    // A server that never takes the connection that it is handed can neither be asked to end: the
    // two exclude each other.
    auto ending = std::async(std::launch::async, [&] {
        m_service.shutdown();
        accepting.get();
        m_clients.waitAll();
    });
    while (ending.wait_for(s_grace) == std::future_status::timeout) {
        m_service.killServers();
    }
    ending.get();
}

void ClusterDaemon::stop()
{
    m_listener->shutdown();
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_isStopped = true;
    }
    m_stopped.notify_one();
}

void ClusterDaemon::acceptClients()
{
    using Clock = std::chrono::steady_clock;
    Clock::time_point quietUntil;
    for (;;) {
        try {
            admit(std::make_shared<kySocketLink>(*m_listener));
        } catch (const kyConnectionClosed&) {
            return;
        } catch (const std::exception& e) {
            if (Clock::now() >= quietUntil) {
                kyLog::error("%s", e.what());
            }
            quietUntil = Clock::now() + s_reportPause;
            std::this_thread::sleep_for(s_backOff);
        }
    }
}

void ClusterDaemon::admit(const std::shared_ptr<kySocketLink>& client)
{
    if (isAllowed(*client)) {
        m_clients.run([this, client] { serve(*client); });
    }
}

bool ClusterDaemon::isAllowed(const kySocketLink& client) const
{
    try {
        const std::string address = client.getPeerAddress().getName();
        return std::any_of(m_allowed.begin(), m_allowed.end(),
                           [&](const AddressRange& range) { return range.contains(address); });
    } catch (const std::exception&) {
        return false; // gone already
    }
}

void ClusterDaemon::serve(kySocketLink& accepted)
{
    try {
        if (const std::shared_ptr<ClientLink> client = greet(accepted)) {
            const ClientWatch::Entry watched(m_watch, client); // has the limits
            if (client->speaks(-1.0) && agreeOnKey(client) && client->speaks(-1.0)) {
                m_service.handleExternalRequest(client.get());
            }
        }
    } catch (const std::exception&) {
        // The client left, or was dropped, before it asked for anything.
    }
}

bool ClusterDaemon::agreeOnKey(const std::shared_ptr<ClientLink>& client)
{
    const std::string address = client->getPeerAddress().getName();
    try {
        KeyExchange::answer(client, m_key);
        return true;
    } catch (const kyConnectionClosed&) {
        return false;
    } catch (const std::exception& e) {
        m_refusals.report(address, e.what());
        return false;
    }
}

std::shared_ptr<ClientLink> ClusterDaemon::greet(kySocketLink& accepted)
{
    const auto caller = std::make_shared<ClientLink>(accepted.takeDescriptor(), s_maxRequestSize);
    {
        // Most of those who are no clients say nothing: they can be dropped any time.
        const ClientWatch::Entry watched(m_watch, caller);
        if (!caller->speaks(s_firstByteTimeout)) {
            return nullptr;
        }
    }
    const kySocketHandle descriptor = caller->takeDescriptor();
    const std::unique_ptr<kySocketLink> greeted(kySocketLink::checkForHPCNetSocket(descriptor));
    if (!greeted) {
        const kySocketLink unwelcome(descriptor);
        return nullptr;
    }
    return std::make_shared<ClientLink>(greeted->takeDescriptor(), s_maxRequestSize);
}
