#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <NetBase/links/kySocketLink.h>
#include <NetBase/service/kyNetServiceStatus.h>
#include <apps/common/NodeAddress.h>

class SharedKey;
class kyNetStream;

/// The client's side of a cluster service's requests.
///
///     ServiceClient client(NodeAddress::parse("node7"));
///     StartedServer server = client.startServer({});
///     kyNetStream stream(server.link); // now the render server is at the other end
///
/// Each request goes over a connection of its own. The connection of startServer and
/// connectServer is handed to the render server, which the caller then talks to; it speaks when it
/// is spoken to, so that the service's answer is never mixed with the server's words.
///
/// With a relay, the connection leads to the relay's service, which passes everything on: the
/// node's address is then resolved by the relay.
///
/// With a key, the service has to hold it too, and so has the relay: see KeyExchange. Requests and
/// answers are then encrypted, between this client and the one that they are for. The connection
/// that startServer and connectServer return has no cipher any more: what the render server and the
/// caller do about it, they agree on afresh.
///
/// Limits: connecting takes at most kyNetOptions::getConnectionTimeout() seconds once the name is
/// resolved, the handshake 30; a service may be silent for s_answerTimeout before each word of the
/// key exchange and before its answer, or s_serverTimeout where it starts or reaches a server. A
/// returned connection has no receive time-out. Every failure is a kyNetError that begins with the
/// node's name.
///
/// Threads: a client keeps no connection; any number of threads may use one at once.
class ServiceClient
{
public:
    /// What a render server is started with.
    struct ServerSettings
    {
        std::string arguments; ///< last argument of its command line
        std::string bookingId; ///< empty: none
        bool hasDisplay = false;
        bool isStereo = false;
        bool flagZ = false;
        bool flagT = false;
        bool flagTA = false;
    };

    /// A render server that was started, and the connection to it.
    struct StartedServer
    {
        std::uint32_t id = 0;         ///< for connectServer and stopServer
        std::uint64_t freeMemory = 0; ///< of the node, in bytes
        std::int32_t serverCount = 0; ///< running on the node, this one included
        std::shared_ptr<kySocketLink> link;
    };

    /// Seconds that a service has for an answer.
    static constexpr double s_answerTimeout = 15.0;
    /// Seconds that a service has to start a render server or to hand a connection to one.
    static constexpr double s_serverTimeout = 60.0;

    /// Talks to the service of the node, through the service of the relay where one is given, to
    /// both with the key where one is given. Connects to nothing yet.
    explicit ServiceClient(NodeAddress node, std::optional<NodeAddress> relay = std::nullopt,
                           std::shared_ptr<const SharedKey> key = nullptr);

    const NodeAddress& getNode() const { return m_node; }

    /// Empty if there is none.
    const std::shared_ptr<const SharedKey>& getKey() const { return m_key; }

    /// Starts a render server; returns when it has taken the connection. Blocks.
    StartedServer startServer(const ServerSettings& settings) const;

    /// Opens a further connection to a render server that runs. Blocks until it has taken it.
    std::shared_ptr<kySocketLink> connectServer(std::uint32_t serverId) const;

    /// Asks a render server to end. Blocks until the service has done so, not until it ended.
    void stopServer(std::uint32_t serverId) const;

    /// Asks every render server of the booking to end; that there is none is no failure. An empty
    /// id is refused: the service would take it for every server that nobody booked.
    void stopByBooking(const std::string& bookingId) const;

    /// Ends the service itself and with it its render servers.
    void stopService() const;

    /// The node's state now. Blocks.
    kyNetServiceStatus status() const;

    /// Seconds that connecting, the handshake and the key exchange take, through a relay the
    /// relay's connecting too.
    double ping() const;

private:
    using Conversation = std::function<void(kyNetStream&)>;

    std::shared_ptr<kySocketLink> perform(double timeout, const Conversation& conversation) const;
    std::shared_ptr<kySocketLink> connect() const;
    void relayTo(const std::shared_ptr<kySocketLink>& link) const;
    std::string describe() const;

    NodeAddress m_node;
    std::optional<NodeAddress> m_relay;
    std::shared_ptr<const SharedKey> m_key;
};
