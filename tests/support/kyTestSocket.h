#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include <NetBase/platform/kySocketHandle.h>

/// The other end of a link under test, made of plain system calls only, and what the system says
/// about a socket.
///
/// The source that systems share stands in platform/, one per system below it. Calls that the
/// system refuses throw std::system_error; nothing waits longer than a test may.
namespace kyTest {

/// A TCP socket that does as it is told: trickles, stops, lies, resets.
class RawSocket
{
public:
    /// Owns the socket.
    explicit RawSocket(kySocketHandle handle) : m_handle(handle) {}
    RawSocket(RawSocket&& other) noexcept
        : m_handle(std::exchange(other.m_handle, s_invalidSocketHandle))
    {
    }
    ~RawSocket() { close(); }

    RawSocket(const RawSocket&) = delete;
    RawSocket& operator=(const RawSocket&) = delete;

    /// Connects to this machine.
    static RawSocket connectIPv4(int port);
    static RawSocket connectIPv6(int port);

    kySocketHandle getHandle() const { return m_handle; }

    /// Gives the socket away.
    kySocketHandle release() { return std::exchange(m_handle, s_invalidSocketHandle); }

    /// Sends all bytes.
    void send(const std::string& bytes);

    /// Receives exactly `length` bytes, or fewer if the other end closes before.
    std::string receive(std::size_t length);

    /// Says that nothing more will be sent; still receives.
    void halfClose();

    /// Closes, in order.
    void close();

    /// Closes so that the other end sees a reset.
    void reset();

private:
    kySocketHandle m_handle;
};

/// A listening socket on 127.0.0.1 that accepts only when it is told to.
class RawListener
{
public:
    explicit RawListener(int backlog = 16);
    ~RawListener();

    RawListener(const RawListener&) = delete;
    RawListener& operator=(const RawListener&) = delete;

    int getPort() const;
    RawSocket accept();

private:
    kySocketHandle m_handle;
};

/// A listener whose waiting room is full: whoever connects to its port hears nothing.
class FullListener
{
public:
    FullListener();
    ~FullListener();

    int getPort() const { return m_listener.getPort(); }

private:
    RawListener m_listener;
    kySocketHandle m_waiting[4];
};

/// A port of this machine on which nobody listens, kept from others while the object lives.
class ClosedPort
{
public:
    ClosedPort();
    ~ClosedPort();

    ClosedPort(const ClosedPort&) = delete;
    ClosedPort& operator=(const ClosedPort&) = delete;

    int getPort() const { return m_port; }

private:
    kySocketHandle m_handle;
    int m_port;
};

/// Two connected TCP sockets, as the system makes them.
std::pair<kySocketHandle, kySocketHandle> makeConnection();

/// Two connected stream sockets that are not TCP.
std::pair<kySocketHandle, kySocketHandle> makeLocalConnection();

/// A socket that was never connected.
kySocketHandle makeUnconnected();

/// What is set on a socket.
struct SocketOptions
{
    bool noDelay;
    bool lingers;
    int lingerSeconds;
    bool keepsAlive;
    int keepAliveIdleSeconds;
    int keepAliveIntervalSeconds;
    bool reusesAddress;
    bool isIPv6;
    bool isIPv6Only;
    bool isBlocking;
    bool isInherited;
    std::int64_t receiveTimeoutMilliseconds;
    int sendBuffer;
};
SocketOptions getSocketOptions(kySocketHandle handle);

/// Whether the handle is an open socket of this process.
bool isOpen(kySocketHandle handle);

/// Codes as the system's last error has them.
int getRefusedCode();
int getTimedOutCode();
int getResetCode();
int getAbortedCode();
int getBadHandleCode();
int getNotConnectedCode();
int getWouldBlockCode();
int getInvalidCode();
int getNoDescriptorCode();
int getPortTakenCode();

/// The records of an address, for which no name has to be resolved.
std::string makeIPv4Record(const std::string& address, int port);
std::string makeIPv6Record(const std::string& address, int port, std::uint32_t scope = 0);
std::string makeForeignRecord();

/// Whether this machine has the IPv6 loopback address.
bool hasIPv6();

/// Runs the action on a thread that cannot make IPv6 sockets, as on a machine without them.
void runWithoutIPv6(const std::function<void()>& action);

/// Runs the action on a thread whose every call to listen fails with the code, or to receive.
void runWithFailingListen(int code, const std::function<void()>& action);
void runWithFailingReceive(int code, const std::function<void()>& action);

/// Interrupts the calls of one thread again and again while the object lives.
class ThreadInterruptions
{
public:
    explicit ThreadInterruptions(std::uint64_t threadId);
    ~ThreadInterruptions();

    ThreadInterruptions(const ThreadInterruptions&) = delete;
    ThreadInterruptions& operator=(const ThreadInterruptions&) = delete;

    /// How often the thread was interrupted.
    static int count();

private:
    struct State;
    State* m_state;
};

/// The number by which the system knows the calling thread.
std::uint64_t getThreadId();

/// Whether that thread waits inside a call of the system.
bool isWaiting(std::uint64_t threadId);

} // namespace kyTest
