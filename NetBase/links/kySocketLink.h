#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <NetBase/kyNetBaseExport.h>
#include <NetBase/links/kyNetLink.h>
#include <NetBase/links/kyPollWindow.h>
#include <NetBase/links/kySocketAddress.h>
#include <NetBase/platform/kySocketHandle.h>

class kyBoundSocketLink;
class kyNetInterfaceOptions;
class kyNetStream;
class kySharedSocket;
class kySocketPipe;

namespace kySockets {
struct Block;
struct Transfer;
} // namespace kySockets

/// The link over TCP.
///
/// One end listens (kyBoundSocketLink) and makes a link of each connection, the other connects:
///
///     kySocketLink link(kySocketAddress("node7", 8889), 4.0);
///     link.send(buffer);
///     link.recv(buffer);
///
/// On the wire buffers follow each other as they stand in memory, with nothing between them. A
/// buffer whose size exceeds the capacity is refused with exactly its header consumed.
///
///     | data size, 4 | rest of the header, 16 | data |
///
/// Connected links, accepted ones and those that came over a pipe send without Nagle's delay,
/// linger one second when closed, and probe a silent peer after two minutes.
///
/// Failures: a peer that is gone and a link that is shut down give kyConnectionClosed, an expired
/// receive kyConnectionTimeout, everything else kyNetError with the failing call and the system's
/// text. A failed receive shuts the link down, unless it timed out; a failed send does not.
///
/// Waiting: a receive polls for a tenth of a millisecond before it sleeps, yielding the processor
/// between, as kyNetOptions::setReceivePolling says; a link that this brings nothing stops it. A
/// limit of setRecvTimeout begins behind it.
///
/// Within a machine: a link whose ends have one address, or loopback addresses, and that sends a
/// buffer of 98304 bytes or more lets the system hold no more than one or two such buffers on their
/// way from then on, whatever was set before, an adopted one too: so they stay in a processor's
/// cache. A send to a peer that receives nothing waits that much earlier.
///
/// Limits: a time-out in the middle of a buffer loses the bytes that have come so far, and the
/// stream of buffers with them. Who wants to go on after a time-out asks pollReadable first.
///
/// Threads: one thread may send while another receives. shutdown may be called by any thread and
/// wakes both. The descriptor is closed once no thread is inside a call on it.
///
/// Ownership: the link closes its descriptor, without shutting the connection down, since that
/// may have been handed over to another process. A copy is shallow: both name the same socket and
/// the first that is destroyed or shut down closes it, once. A call that waits in the other is
/// woken by the shutdown, but not by the destruction. Each keeps its own value: takeDescriptor on
/// one leaves the other as it is, and the other still closes the socket.
class KY_NETBASE_EXPORT kySocketLink : public kyNetLink
{
public:
    /// Adopts a connected socket as it is; sets no options. Invalid makes a closed link.
    explicit kySocketLink(kySocketHandle descriptor);

    /// Connects within `timeout` seconds (negative: without limit). Throws kyNetError, also when
    /// the time is over.
    kySocketLink(const kySocketAddress& address, double timeout);

    /// Accepts the next connection; blocks until there is one. Throws kyConnectionClosed when the
    /// listening socket is shut down, kyNetError if it cannot be accepted.
    explicit kySocketLink(const kyBoundSocketLink& listening);

    /// Takes the next socket from the pipe, waiting `timeout` seconds for it (0 and less: without
    /// limit). Throws what kySocketPipe::recvSocket throws.
    kySocketLink(kySocketPipe& pipe, double timeout);

    /// Shallow, see above. Assignment closes the former socket, unless a copy still has it; no
    /// other thread may use either link meanwhile.
    kySocketLink(const kySocketLink& other);
    kySocketLink& operator=(const kySocketLink& other);

    /// Closes the socket; may block for the second of linger.
    ~kySocketLink() override;

    /// Starts the system's sockets, once per process; every constructor calls it. Throws
    /// kyNetError. Any thread.
    static void initialize();

    /// The first link of the stream. Options and flag change nothing.
    static std::shared_ptr<kyNetLink> create(kyNetStream& stream, kyNetInterfaceOptions& options,
                                             bool flag);

    /// Tells whether the peer of a socket that was just accepted speaks this library's protocol:
    /// waits up to two seconds for its handshake word, answers it, and gives a link that owns the
    /// socket, and that the caller owns. Null if there is no such word: the socket stays open
    /// and nothing that the peer sent is consumed. Throws, and closes the socket, if answering
    /// fails.
    static kySocketLink* checkForHPCNetSocket(kySocketHandle descriptor);

    /// The client's side of the handshake: sends the word and waits up to 30 seconds for its
    /// echo. Throws kyNetError for a wrong echo, kyConnectionTimeout, kyConnectionClosed.
    void signalHPCNetSocket();

    void send(const std::shared_ptr<kyNetBuffer>& buffer) override;

    /// Hands the buffers to the system up to 64 at a time. With a cipher each goes on its own, so
    /// that the peer decrypts one while the next is encrypted. Without one it does not call send: a
    /// link that overrides that overrides this, too.
    void sendMany(const std::vector<std::shared_ptr<kyNetBuffer>>& buffers) override;
    void recv(std::shared_ptr<kyNetBuffer>& buffer) override;
    void shutdown() override;

    /// The low 32 bits of the descriptor.
    std::uint32_t getRecvHandle() override;
    void checkAlive() override;

    /// Limits each wait for bytes; below a millisecond there is no limit. Never throws.
    void setRecvTimeout(double seconds) override;

    /// Both addresses without ports, as "10.0.0.5->10.0.0.7". Throws kyNetError if the link is
    /// not connected.
    std::string getLinkName() override;
    bool pinRecvHandle(std::uint32_t& handle) override;
    void unpinRecvHandle() override;

    /// Sends or receives exactly `length` bytes; blocks. Throws as the transfers of buffers do.
    void send(const void* data, std::uint64_t length);
    void recv(void* data, std::uint64_t length);

    /// Copies up to `max` of the bytes that wait and leaves them unread; answers how many, 0 if
    /// none wait. Does not block. Throws kyNetError.
    std::uint64_t peekAvailable(void* data, std::uint64_t max);

    /// Waits up to `timeout` seconds (negative: without limit, 0: not at all) until a receive
    /// would not wait. Throws kyConnectionClosed on a dead or closed link, kyNetError.
    bool pollReadable(double timeout);

    /// Waits in the same way until a send would not wait; false also if the link is dead or
    /// closed. Throws kyNetError.
    bool pollWritable(double timeout);

    /// Whether small pieces may wait to be sent together. Throws kyNetError.
    void setDelay(bool delay);

    /// Whether transfers wait; they need a blocking socket. Throws kyNetError.
    void setBlocking(bool blocking);

    /// Takes a shorter road between processes of one machine where the system has one; a failure
    /// is only reported on standard error.
    void useLoopbackFastPath();

    /// The address of this end, and of the peer. Throw kyNetError.
    kySocketAddress getAddress() const;
    kySocketAddress getPeerAddress() const;

    /// The socket, invalid if the link is closed.
    kySocketHandle getDescriptor() const { return m_descriptor.load(); }

    /// Gives the socket away: the caller closes it, the link is closed.
    kySocketHandle takeDescriptor();

    /// Hands the socket to the process at the other end of the pipe and waits for its answer;
    /// the link keeps its own. Throws what kySocketPipe::sendSocket throws, kyNetError.
    void sendDescriptor(kySocketPipe& pipe, double timeout);

protected:
    /// Makes a closed link own a socket.
    void adopt(kySocketHandle descriptor);

    /// The socket for the length of a call, see kySharedSocket::Use; null if closed.
    kySharedSocket* getSocket() const;

    /// Whether there is no socket any more.
    bool isClosed() const;

    /// Bytes that can be received without waiting. Throws kyNetError.
    std::uint64_t getAvailable() const;

    void setLinger(bool on, int seconds);
    void setReusePort(bool reuse);
    void setIPv6Only(bool only);
    void setKeepAlive();

    /// The calling thread's last error code.
    int getLastError() const;

private:
    void prepareTransfers();
    void sendAll(kySockets::Block* blocks, std::size_t count);
    void keepInCache(kySocketHandle handle);
    kySockets::Transfer receiveSome(kySocketHandle handle, void* data, std::uint64_t length);

    static std::atomic<bool> s_initialized;
    static std::mutex s_closeMutex; ///< Held while any link of the process is shut down.

    std::atomic<kySocketHandle> m_descriptor{s_invalidSocketHandle};
    std::shared_ptr<kySharedSocket> m_socket;
    kyPollWindow<> m_pollWindow; ///< Of whoever receives.
    std::atomic<bool> m_carriesBulk{false};
};
