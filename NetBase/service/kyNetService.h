#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <NetBase/kyNetBaseExport.h>

class kyBoundSocketLink;
class kyNetLink;
class kyNetServerProcess;
class kyNetStream;
class kySocketLink;

/// The cluster service of a node: starts render servers for clients and leads clients to them.
///
///     kyNetService service(8889, "");
///     service.run(); // until a client asks it to stop
///
/// A client connects, sends its handshake word, gets it back, and then asks for one thing:
///
///     code (4 bytes)   then                                  answer
///     1 start server   arguments, version, a text not used,  success, server id (4), free memory
///                      switches by version                   in bytes (8), server count (4)
///     2 connect        server id (4)                         success
///     3 stop service                                         success
///     4 relay          host, port (4)                        a bool: the other service is reached
///     5 stop server    server id (4)                         success
///     6 status                                               success, a kyNetServiceStatus
///     7 stop servers   booking id                            success
///
/// After 1 and 2 the connection leads to the render server, which got it over its pipe; after 4
/// to the other service, and a cipher that the client's link had for the request is gone. A request
/// that fails is answered with its exception.
///
/// The switches of a start request are hasDisplay (from version 9.0), flagZ, flagT, flagTA,
/// the booking id (from 9.2) and isStereo (from 10.0). A client newer than the service is refused.
///
/// A program that accepts connections itself calls listen() and hands each client, its handshake
/// done, to handleExternalRequest, from as many threads as it likes.
///
/// Ownership: the service owns its servers, and its destruction ends them: each may take 11
/// seconds. Relays live on threads of their own and outlive the service.
///
/// Threads: everything may be called from any thread at any time; run() from one. run() itself
/// serves one client after the other, and a silent one holds it up.
///
/// Limits: whoever reaches the port may start programs. Nothing here asks who a client is.
class KY_NETBASE_EXPORT kyNetService
{
public:
    /// A service for the port, 0 for any that is free. Servers are started from serverPath; if that
    /// is empty or names no file, the executable of the client's version is searched for.
    kyNetService(int port, std::string serverPath);

    /// Ends all servers; blocks for up to 11 seconds for each. run() and every request must have
    /// returned.
    ~kyNetService();

    kyNetService(const kyNetService&) = delete;
    kyNetService& operator=(const kyNetService&) = delete;

    /// Binds the port; from now on clients can connect and getPort() tells where. The listener is
    /// what a stop request and shutdown() shut down; after shutdown() it is so from the beginning.
    /// Throws kyNetError. Does not block.
    std::shared_ptr<kyBoundSocketLink> listen();

    /// Listens, unless listen() was called, and serves clients until the listener is shut down or
    /// accepting a client fails: a client that leaves before its handshake word ends it too. A
    /// failure other than that is logged. Throws nothing; blocks.
    void run();

    /// Serves the one request of a client whose handshake is done. The link must be owned by a
    /// std::shared_ptr, which a relay shares; it is never shut down here, since a render server may
    /// have the connection by then. Blocks until the request is carried out. A failure to answer is
    /// logged; throws nothing.
    void handleExternalRequest(kySocketLink* link);

    /// Shuts the listener down, which ends run(), and asks every server to end; for good: a later
    /// run() returns at once, and no further start request is served. Does not wait for the servers
    /// to end, but for a server that is just being handed a connection.
    void shutdown();

    /// Ends the servers that do not end by themselves: asks their processes to terminate and kills
    /// what still runs then. Blocks for up to 3 seconds for each.
    void killServers();

    /// How many servers run and were not asked to end.
    int serverCount() const;

    /// The booking ids of these servers, in the order of the server ids, empty ones left out.
    std::vector<std::string> bookingIds() const;

    /// The port given, once it listens the port it is bound to.
    int getPort() const { return m_port; }

    /// Whether the output of servers started from now on is logged; true at first.
    void setConsole(bool console) { m_console = console; }

    /// Makes this process a render server: serves its clients on the default port in the
    /// background, and returns the name of the pipe over which their connections arrive as soon as
    /// a first client asked for a server. Blocks until then. Throws kyNetError if the port is
    /// taken.
    static std::string runInProcess();

    /// What the last start request said about the display.
    static bool inProcessHasDisplay() { return s_inProcessHasDisplay; }
    static bool inProcessIsStereo() { return s_inProcessIsStereo; }

private:
    struct StartRequest;

    void acceptClients(const kyBoundSocketLink& listener);
    void handleRequest(kySocketLink* link);
    void dispatch(kyNetStream& stream, kySocketLink& link);

    void startServer(kyNetStream& stream, kySocketLink& link);
    void connectServer(kyNetStream& stream, kySocketLink& link);
    void stopService(kyNetStream& stream);
    static void connectService(kyNetStream& stream);
    void stopServer(kyNetStream& stream);
    void getStatus(kyNetStream& stream) const;
    void stopServerByBookingId(kyNetStream& stream);

    std::shared_ptr<kyBoundSocketLink> getListener() const;
    static StartRequest readStartRequest(kyNetStream& stream);
    std::shared_ptr<kyNetServerProcess> addServer(const StartRequest& request);
    std::shared_ptr<kyNetServerProcess> getServer(unsigned int id) const;
    std::vector<std::shared_ptr<kyNetServerProcess>> allServers() const;
    void removeStoppedServers();

    static void relay(const std::shared_ptr<kyNetLink>& client, const std::string& host, int port);
    static void connectLinks(const std::shared_ptr<kyNetLink>& from,
                             const std::shared_ptr<kyNetLink>& to);

    std::atomic<int> m_port;
    const std::string m_serverPath;
    std::map<std::uint32_t, std::shared_ptr<kyNetServerProcess>> m_servers;
    std::set<std::uint32_t> m_starting; ///< not yet running, and not to be taken for finished
    std::shared_ptr<kyBoundSocketLink> m_listener;
    mutable std::mutex m_lock; ///< for all of the above and the next two
    std::uint32_t m_lastServerId = 0;
    bool m_isShutDown = false;
    std::atomic<bool> m_console{true};

    static std::atomic<bool> s_inProcessHasDisplay;
    static std::atomic<bool> s_inProcessIsStereo;
};
