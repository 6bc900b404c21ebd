#pragma once

#include <cstdint>
#include <memory>
#include <queue>
#include <string>
#include <vector>

#include <NetBase/kyNetBaseExport.h>

class kyNetBuffer;
class kyNetCipherBase;

/// A connection between two processes that carries whole buffers both ways.
///
/// This is the interface that senders, receivers and streams know; kySocketLink is the link over
/// TCP. A link also holds the optional cipher that every buffer passes on its way to and from
/// the wire:
///
///     | data size, 4 |  rest of the header, 16  |  data                 |
///     |    clear     |  encrypted, if a cipher is set                   |
///
/// Ownership: hold a link by std::shared_ptr. It shares its cipher with whoever set it and with
/// its copies.
///
/// Threads: at most one thread sends and one receives at a time; shutdown, checkAlive and
/// pinRecvHandle may be called by any. Nothing here locks.
class KY_NETBASE_EXPORT kyNetLink : public std::enable_shared_from_this<kyNetLink>
{
public:
    kyNetLink() = default;

    /// Copies ids, affinity, cipher (shared) and scratch bytes. A copy starts without an owner.
    kyNetLink(const kyNetLink&) = default;
    kyNetLink& operator=(const kyNetLink&) = default;

    virtual ~kyNetLink() = default;

    /// Sends one buffer; blocks until the transport has taken all of it. Throws
    /// kyConnectionClosed if the peer is gone or the link is shut down, kyNetError otherwise.
    virtual void send(const std::shared_ptr<kyNetBuffer>& buffer) = 0;

    /// Replaces `buffer` by the next one from the peer; blocks until all of it is there. Throws
    /// as send does, and kyConnectionTimeout after the receive time-out.
    virtual void recv(std::shared_ptr<kyNetBuffer>& buffer) = 0;

    /// Appends at least one buffer to the queue, waiting for it as recv does; a transport that
    /// has more at hand may append them too. Throws as recv does.
    virtual void recvAvailable(std::queue<std::shared_ptr<kyNetBuffer>>& queue);

    /// Ends the connection: blocked and later transfers of any thread throw kyConnectionClosed.
    /// Calling it again does nothing.
    virtual void shutdown() = 0;

    /// What a poll over several links waits on, see pinRecvHandle.
    virtual std::uint32_t getRecvHandle() = 0;

    /// Throws kyConnectionClosed if the link is dead. Does not ask the network.
    virtual void checkAlive() = 0;

    /// Limits every receive to the given seconds. Throws kyNetError for a link that cannot.
    virtual void setRecvTimeout(double seconds);

    /// Names both ends for a message to the user, "unknown" for a link that cannot.
    virtual std::string getLinkName();

    /// Gives the handle of getRecvHandle and promises that it stays valid, never closed and
    /// reused for another connection, until unpinRecvHandle. False, and no promise, if the link
    /// is closed. Call it through kyNetLinkPin.
    virtual bool pinRecvHandle(std::uint32_t& handle);

    /// Ends the promise of a successful pinRecvHandle; may close the handle.
    virtual void unpinRecvHandle();

    /// Sends the buffers in their order as send does; a transport that can hands several of them
    /// to the system together. After a failure nothing says which of them the peer has.
    virtual void sendMany(const std::vector<std::shared_ptr<kyNetBuffer>>& buffers);

    /// Identifier of this end, 0 until whoever builds the graph of links sets it.
    std::uint32_t getId() const { return m_id; }
    void setId(std::uint32_t id) { m_id = id; }

    /// Identifier of the process at the other end, 0 until set.
    std::uint32_t getRemoteId() const { return m_remoteId; }
    void setRemoteId(std::uint32_t id) { m_remoteId = id; }

    /// Node that the threads which serve this link are pinned to, -1 for none.
    std::int32_t getNodeAffinity() const { return m_nodeAffinity; }
    void setNodeAffinity(std::int32_t node) { m_nodeAffinity = node; }

    /// The pointer that owns this link. Throws std::bad_weak_ptr if there is none.
    std::shared_ptr<kyNetLink> getSharedPtr() { return shared_from_this(); }

    /// Encrypts everything from now on, or nothing if empty. Not synchronised with send and
    /// recv: set it on both ends before traffic starts.
    void setCipher(const std::shared_ptr<kyNetCipherBase>& cipher) { m_cipher = cipher; }

protected:
    /// Whether buffers are encrypted on their way to the wire.
    bool hasCipher() const { return m_cipher != nullptr; }

    /// The buffer as it goes on the wire: itself without a cipher, else an encrypted copy from
    /// the pool. The given buffer is never changed, so it can go over several links.
    std::shared_ptr<kyNetBuffer> encryptBuffer(const std::shared_ptr<kyNetBuffer>& buffer);

    /// Turns a buffer that came from the wire into the clear one, in place.
    void decryptBuffer(std::shared_ptr<kyNetBuffer>& buffer);

private:
    std::uint32_t m_id = 0;
    std::uint32_t m_remoteId = 0;
    std::int32_t m_nodeAffinity = -1;
    std::shared_ptr<kyNetCipherBase> m_cipher;
    std::vector<std::uint8_t> m_scratch; ///< Copied with the link; nothing reads or writes it.
};
