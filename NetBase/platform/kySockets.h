#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <NetBase/platform/kySocketHandle.h>

struct sockaddr;

/// TCP sockets, one call of the system each: the loops over partial transfers, the time limits
/// and the meaning of a failure for a link stand above, in kySocketLink.
///
/// Every function may be called by any thread. A call that a signal interrupts is repeated here.
/// No call raises a signal. Sockets and accepted connections are not inherited by child
/// processes. A failure leaves the system's code for kyLastError. A closed or invalid handle is
/// an ordinary failure.
namespace kySockets {

/// How a transfer or a connect ended.
enum class Outcome
{
    Done,        ///< Bytes have moved, or the connection stands.
    EndOfStream, ///< The peer has said that it sends no more.
    WouldBlock,  ///< Nothing can be done now; a connect goes on in the background.
    TimedOut,    ///< A receive has waited as long as setReceiveTimeout allows.
    PeerGone,    ///< Reset or aborted by the peer, or this side is shut down.
    Failed,      ///< Anything else.
};

/// What send, receive and peek answer: `count` is of use when the outcome is Done.
struct Transfer
{
    std::uint64_t count;
    Outcome outcome;
};

/// Makes sockets usable in this process; needed once, more often does no harm.
bool start();

/// A new TCP socket of an address family (see kyAddresses), blocking. Invalid on failure.
kySocketHandle create(int family);

/// Closes the handle; may block for the linger time while unsent bytes wait for the peer.
void close(kySocketHandle handle);

/// Ends both directions at once and wakes every thread that waits on the socket.
void shutdownBoth(kySocketHandle handle);

/// Connects; a socket that does not block answers WouldBlock, is writable once the connection
/// stands, and has its failure in takePendingError.
Outcome connect(kySocketHandle handle, const sockaddr* address, std::size_t size);

/// Makes the last error what has gone wrong in the background (a connect that failed) and
/// forgets it; the system's time-out code if nothing has.
void takePendingError(kySocketHandle handle);

/// Binds to a port of all local interfaces, of the family that the socket was made with.
bool bindToPort(kySocketHandle handle, int family, int port);

/// Lets clients connect; `backlog` of them may wait for accept.
bool listen(kySocketHandle handle, int backlog);

/// What accept found: a connection (blocking), nothing any more (the client is gone again, or
/// another thread was faster), or a failure.
struct Accepted
{
    kySocketHandle handle;
    Outcome outcome;
};

/// Takes a waiting connection from a listening socket that does not block.
Accepted accept(kySocketHandle listening);

/// Bytes to send.
struct Block
{
    const void* data;
    std::uint64_t length;
};

/// How many blocks one send takes; it leaves those behind them alone.
constexpr std::size_t s_mostBlocks = 64;

/// Sends what fits of the blocks, one after the other, at least one byte unless the socket does
/// not block.
Transfer send(kySocketHandle handle, const Block* blocks, std::size_t count);

/// Receives what is there, waiting for at least one byte unless the socket does not block.
Transfer receive(kySocketHandle handle, void* data, std::uint64_t length);

/// As receive, but never waits: WouldBlock if nothing is there, on every socket.
Transfer tryReceive(kySocketHandle handle, void* data, std::uint64_t length);

/// As receive, but the bytes stay unread.
Transfer peek(kySocketHandle handle, void* data, std::uint64_t length);

/// Bytes that can be received without waiting.
bool getAvailable(kySocketHandle handle, std::uint64_t& count);

/// What can be asked of poll and what it answers, as flags.
enum Readiness : unsigned
{
    None = 0,
    Readable = 1,  ///< Bytes, the end of the stream or a connection wait.
    Writable = 2,  ///< Bytes can be sent.
    HungUp = 4,    ///< Answer only: the connection is gone.
    InError = 8,   ///< Answer only: an error waits.
    Unusable = 16, ///< Answer only: the handle is no open socket.
};

struct PollEntry
{
    kySocketHandle handle;
    unsigned wanted; ///< Readable, Writable or both.
    unsigned ready;  ///< Filled by poll.
};

/// Waits until one of the entries is ready or the limit is over (negative: none, 0: returns at
/// once). Answers how many are ready, -1 for a failure. An invalid handle is never ready, so that
/// waiting for it alone without limit never ends.
int poll(PollEntry* entries, std::size_t count, int milliseconds);

/// Options. Each is true on success.
bool setNoDelay(kySocketHandle handle, bool noDelay);
bool setLinger(kySocketHandle handle, bool on, std::uint16_t seconds);
bool setReuseAddress(kySocketHandle handle, bool reuse);
bool setIPv6Only(kySocketHandle handle, bool only);
bool setBlocking(kySocketHandle handle, bool blocking);

/// Bounds the bytes that are sent and not yet taken by the peer's system to one or two times as
/// many, instead of letting the system find a bound of its own.
bool setSendBuffer(kySocketHandle handle, int bytes);

/// Probes a silent peer after `idle` milliseconds, then every `interval`; true if both are set.
bool setKeepAlive(kySocketHandle handle, std::uint32_t idle, std::uint32_t interval);

/// Limits each receive, 0 for no limit.
bool setReceiveTimeout(kySocketHandle handle, std::uint32_t milliseconds);

/// Shortens the road between sockets of one machine, where the system has such a thing; true
/// where it has not.
bool enableLoopbackFastPath(kySocketHandle handle);

/// The address of this end or of the peer, as the bytes of a sockaddr; empty on failure.
std::vector<std::uint8_t> getLocalAddress(kySocketHandle handle);
std::vector<std::uint8_t> getPeerAddress(kySocketHandle handle);

/// Wakes all threads that wait for a connection, for good: once signalled it stays so.
class WakeEvent
{
public:
    /// Not signalled. Unusable, with the code in kyLastError, if the system has no event left.
    WakeEvent();
    ~WakeEvent();

    bool isUsable() const;

    WakeEvent(const WakeEvent&) = delete;
    WakeEvent& operator=(const WakeEvent&) = delete;

    /// Wakes everyone, now and later. Any thread.
    void signal();

    /// Waits without limit until a connection can be accepted (true), or the event is signalled
    /// or the wait fails (false). Several threads may wait, all of them for the same socket.
    bool waitForConnection(kySocketHandle listening) const;

private:
    std::uintptr_t m_event;
};

} // namespace kySockets
