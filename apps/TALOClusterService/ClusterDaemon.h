#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <NetBase/buffers/kyNetActionManager.h>
#include <NetBase/service/kyNetService.h>
#include <apps/TALOClusterService/AddressRange.h>
#include <apps/TALOClusterService/ClientWatch.h>
#include <apps/TALOClusterService/RefusalLog.h>
#include <apps/common/SharedKey.h>

class kyBoundSocketLink;
class kySocketLink;

/// The cluster service of a node as a daemon: accepts clients itself and serves each on a thread of
/// its own, so that none of them, slow or hostile, keeps another one waiting.
///
/// Clients from outside the allowed addresses are dropped before a byte of theirs is read; so is
/// everybody who does not begin with the handshake word. A client that leaves before it asks for
/// anything is not worth a line in the log. A lack of descriptors or threads is reported once and
/// waited out.
///
/// With a key, a client has to prove that it holds the key, too, before its request is read: see
/// KeyExchange. Who cannot is refused, and logged, a few of them a minute.
///
/// Ownership: run() returns when no client is served any more; the destructor ends the servers.
class ClusterDaemon
{
public:
    struct Settings
    {
        int port = 0;           ///< 0: any that is free
        std::string serverPath; ///< empty: searched for
        std::vector<AddressRange> allowed;
        std::shared_ptr<const SharedKey> key; ///< empty: clients need none
        bool logsServerOutput = true;
    };

    /// Binds the port; throws kyNetError if that fails.
    explicit ClusterDaemon(Settings settings);

    ~ClusterDaemon();

    ClusterDaemon(const ClusterDaemon&) = delete;
    ClusterDaemon& operator=(const ClusterDaemon&) = delete;

    int getPort() const { return m_service.getPort(); }

    /// Serves clients until stop() is called or a client asks the service to stop; then asks the
    /// servers to end. Blocks.
    void run();

    /// Ends run(). From any thread; does not wait for it.
    void stop();

private:
    void acceptClients();
    void admit(const std::shared_ptr<kySocketLink>& client);
    bool isAllowed(const kySocketLink& client) const;
    void serve(kySocketLink& accepted);
    std::shared_ptr<ClientLink> greet(kySocketLink& accepted);
    bool agreeOnKey(const std::shared_ptr<ClientLink>& client);

    const std::vector<AddressRange> m_allowed;
    const std::shared_ptr<const SharedKey> m_key;
    kyNetService m_service;
    std::shared_ptr<kyBoundSocketLink> m_listener;
    ClientWatch m_watch;
    RefusalLog m_refusals;
    kyNetActionManager m_clients;
    std::mutex m_mutex;
    std::condition_variable m_stopped;
    bool m_isStopped = false;
};
