#pragma once

#include <atomic>
#include <cstdint>

#include <NetBase/platform/kySocketHandle.h>

/// An open socket, the calls that are inside it, and its one close.
///
/// A descriptor that is closed while another thread is inside a call on it may be a new
/// connection before that call returns. So whoever calls enters first, and the close that anyone
/// asks for happens when the last call has left:
///
///     kySharedSocket::Use use(socket);
///     recv(use.getHandle(), ...);
///
/// Shallow copies of a link share one of these, which is why the socket is closed once whatever
/// each of them does. Every member may be called by any thread; nothing waits.
class kySharedSocket
{
public:
    class Use;

    explicit kySharedSocket(kySocketHandle handle) : m_handle(handle) {}

    kySharedSocket(const kySharedSocket&) = delete;
    kySharedSocket& operator=(const kySharedSocket&) = delete;

    /// Keeps the socket open until leave; false, and nothing to leave, once close was called.
    bool enter();

    /// Leaves; closes the socket if that was asked for meanwhile and nobody else is inside.
    void leave();

    /// Lets nobody in any more and closes the socket as soon as nobody is inside, which may be at
    /// once. Only the first call counts.
    void close();

    /// Whether close was called.
    bool isClosed() const { return (m_state.load() & s_closed) != 0; }

    /// The socket; to be used between enter and leave only.
    kySocketHandle getHandle() const { return m_handle; }

private:
    static constexpr std::uint32_t s_closed = 0x80000000u;

    const kySocketHandle m_handle;
    std::atomic<std::uint32_t> m_state{0}; ///< Calls inside, and s_closed.
};

/// A stay inside the socket; without a socket, or in a closed one, its handle is invalid, so that
/// the system refuses the call.
class kySharedSocket::Use
{
public:
    explicit Use(kySharedSocket* socket)
        : m_socket(socket != nullptr && socket->enter() ? socket : nullptr)
    {
    }

    ~Use()
    {
        if (m_socket != nullptr) {
            m_socket->leave();
        }
    }

    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

    kySocketHandle getHandle() const
    {
        return m_socket != nullptr ? m_socket->getHandle() : s_invalidSocketHandle;
    }

private:
    kySharedSocket* m_socket;
};
