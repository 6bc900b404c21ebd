#pragma once

#include <memory>

#include <NetBase/kyNetBaseExport.h>
#include <NetBase/links/kySocketLink.h>

namespace kySockets {
class WakeEvent;
}

/// A listening TCP socket on a port of all local interfaces, for IPv6 and IPv4 at once where the
/// system has both.
///
///     kyBoundSocketLink listening(8889);
///     while (true) {
///         kySocketLink client(listening); // blocks; kyConnectionClosed after a shutdown
///     }
///
/// It listens from construction until shutdown or destruction and never again.
///
/// Threads: several may accept at once; shutdown may be called by any and wakes all of them.
///
/// Ownership: a copy names the same socket and the same shutdown: what ends one, its destruction
/// too, ends both.
class KY_NETBASE_EXPORT kyBoundSocketLink : public kySocketLink
{
public:
    /// Listens on the port; 0 lets the system choose one, which getAddress() tells. Throws
    /// kyNetError.
    explicit kyBoundSocketLink(int port);

    kyBoundSocketLink(const kyBoundSocketLink& other);
    kyBoundSocketLink& operator=(const kyBoundSocketLink& other) = default;
    ~kyBoundSocketLink() override;

    /// Stops listening: a blocked accept and every later one end with kyConnectionClosed.
    void shutdown() override;

private:
    friend class kySocketLink;

    /// Waits for the next connection; the caller owns it. It blocks and has no options set.
    kySocketHandle accept() const;

    void listen(int port);

    std::shared_ptr<kySockets::WakeEvent> m_shutdown;
};
