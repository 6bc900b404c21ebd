#include <tests/support/kyTestSocket.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <exception>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <tests/support/kyTestWait.h>
#include <tests/support/platform/posix/kyTestForbid.h>

namespace kyTest {

namespace {

int toDescriptor(kySocketHandle handle)
{
    return static_cast<int>(handle);
}

/// Passes what a call answered, unless it failed.
int checked(long result, const char* what)
{
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return static_cast<int>(result);
}

sockaddr_in makeLoopback(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

template <class Address> const sockaddr* pointerTo(const Address& address)
{
    return reinterpret_cast<const sockaddr*>(&address);
}

int makeSocket(int family)
{
    return checked(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
}

/// No test may wait for ever.
void limitWaits(int descriptor)
{
    const timeval limit{s_patience.count(), 0};
    checked(::setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)),
            "SO_RCVTIMEO");
    checked(::setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)),
            "SO_SNDTIMEO");
}

int makeBound()
{
    const int descriptor = makeSocket(AF_INET);
    const sockaddr_in address = makeLoopback(0);
    checked(::bind(descriptor, pointerTo(address), sizeof(address)), "bind");
    return descriptor;
}

int getBoundPort(int descriptor)
{
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    checked(::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size), "getsockname");
    return ntohs(address.sin_port);
}

template <class Value> Value getOption(kySocketHandle handle, int level, int name)
{
    Value value{};
    socklen_t size = sizeof(value);
    checked(::getsockopt(toDescriptor(handle), level, name, &value, &size), "getsockopt");
    return value;
}

int getNumber(kySocketHandle handle, int level, int name)
{
    return getOption<int>(handle, level, name);
}

template <class Address> std::string toBytes(const Address& address)
{
    return {reinterpret_cast<const char*>(&address), sizeof(address)};
}

/// On a thread of its own, since what is forbidden stays so.
void runWithout(const SystemCall& call, int code, const std::function<void()>& action)
{
    std::exception_ptr failure;
    std::thread([&] {
        try {
            forbid(call, code);
            action();
        } catch (...) {
            failure = std::current_exception();
        }
    }).join();
    if (failure) {
        std::rethrow_exception(failure);
    }
}

std::atomic<int> s_interruptions{0};

} // namespace

RawSocket RawSocket::connectIPv4(int port)
{
    RawSocket socket(static_cast<kySocketHandle>(makeSocket(AF_INET)));
    limitWaits(toDescriptor(socket.m_handle));
    const sockaddr_in address = makeLoopback(port);
    checked(::connect(toDescriptor(socket.m_handle), pointerTo(address), sizeof(address)),
            "connect");
    return socket;
}

RawSocket RawSocket::connectIPv6(int port)
{
    RawSocket socket(static_cast<kySocketHandle>(makeSocket(AF_INET6)));
    limitWaits(toDescriptor(socket.m_handle));
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    address.sin6_port = htons(static_cast<std::uint16_t>(port));
    checked(::connect(toDescriptor(socket.m_handle), pointerTo(address), sizeof(address)),
            "connect");
    return socket;
}

void RawSocket::send(const std::string& bytes)
{
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        sent += static_cast<std::size_t>(checked(
            ::send(toDescriptor(m_handle), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL),
            "send"));
    }
}

std::string RawSocket::receive(std::size_t length)
{
    std::string bytes(length, '\0');
    std::size_t received = 0;
    while (received < length) {
        const int count = checked(
            ::recv(toDescriptor(m_handle), bytes.data() + received, length - received, 0), "recv");
        if (count == 0) {
            break;
        }
        received += static_cast<std::size_t>(count);
    }
    bytes.resize(received);
    return bytes;
}

void RawSocket::halfClose()
{
    checked(::shutdown(toDescriptor(m_handle), SHUT_WR), "shutdown");
}

void RawSocket::close()
{
    if (m_handle != s_invalidSocketHandle) {
        ::close(toDescriptor(release()));
    }
}

void RawSocket::reset()
{
    const linger abrupt{1, 0};
    checked(::setsockopt(toDescriptor(m_handle), SOL_SOCKET, SO_LINGER, &abrupt, sizeof(abrupt)),
            "SO_LINGER");
    close();
}

RawListener::RawListener(int backlog) : m_handle(static_cast<kySocketHandle>(makeBound()))
{
    limitWaits(toDescriptor(m_handle));
    checked(::listen(toDescriptor(m_handle), backlog), "listen");
}

RawListener::~RawListener()
{
    ::close(toDescriptor(m_handle));
}

int RawListener::getPort() const
{
    return getBoundPort(toDescriptor(m_handle));
}

RawSocket RawListener::accept()
{
    const int descriptor =
        checked(::accept4(toDescriptor(m_handle), nullptr, nullptr, SOCK_CLOEXEC), "accept");
    limitWaits(descriptor);
    return RawSocket(static_cast<kySocketHandle>(descriptor));
}

FullListener::FullListener() : m_listener(0)
{
    // The system lets one more in than the backlog says; the others hang in their connect.
    const sockaddr_in address = makeLoopback(m_listener.getPort());
    for (kySocketHandle& waiting : m_waiting) {
        const int descriptor = makeSocket(AF_INET);
        waiting = static_cast<kySocketHandle>(descriptor);
        checked(::fcntl(descriptor, F_SETFL, O_NONBLOCK), "O_NONBLOCK");
        if (::connect(descriptor, pointerTo(address), sizeof(address)) != 0 &&
            errno != EINPROGRESS) {
            throw std::system_error(errno, std::generic_category(), "connect");
        }
    }
}

FullListener::~FullListener()
{
    for (const kySocketHandle waiting : m_waiting) {
        ::close(toDescriptor(waiting));
    }
}

ClosedPort::ClosedPort()
    : m_handle(static_cast<kySocketHandle>(makeBound())),
      m_port(getBoundPort(toDescriptor(m_handle)))
{
}

ClosedPort::~ClosedPort()
{
    ::close(toDescriptor(m_handle));
}

std::pair<kySocketHandle, kySocketHandle> makeConnection()
{
    RawListener listener;
    const sockaddr_in address = makeLoopback(listener.getPort());
    const int first = makeSocket(AF_INET);
    checked(::connect(first, pointerTo(address), sizeof(address)), "connect");
    RawSocket second = listener.accept();
    const timeval none{};
    for (const int name : {SO_RCVTIMEO, SO_SNDTIMEO}) {
        checked(
            ::setsockopt(toDescriptor(second.getHandle()), SOL_SOCKET, name, &none, sizeof(none)),
            "no limit");
    }
    return {static_cast<kySocketHandle>(first), second.release()};
}

kySocketHandle makeUnconnected()
{
    return static_cast<kySocketHandle>(makeSocket(AF_INET));
}

std::pair<kySocketHandle, kySocketHandle> makeLocalConnection()
{
    int ends[2];
    checked(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), "socketpair");
    return {static_cast<kySocketHandle>(ends[0]), static_cast<kySocketHandle>(ends[1])};
}

SocketOptions getSocketOptions(kySocketHandle handle)
{
    const linger lingering = getOption<linger>(handle, SOL_SOCKET, SO_LINGER);
    const timeval timeout = getOption<timeval>(handle, SOL_SOCKET, SO_RCVTIMEO);
    SocketOptions options{};
    options.noDelay = getNumber(handle, IPPROTO_TCP, TCP_NODELAY) != 0;
    options.lingers = lingering.l_onoff != 0;
    options.lingerSeconds = lingering.l_linger;
    options.keepsAlive = getNumber(handle, SOL_SOCKET, SO_KEEPALIVE) != 0;
    options.keepAliveIdleSeconds = getNumber(handle, IPPROTO_TCP, TCP_KEEPIDLE);
    options.keepAliveIntervalSeconds = getNumber(handle, IPPROTO_TCP, TCP_KEEPINTVL);
    options.reusesAddress = getNumber(handle, SOL_SOCKET, SO_REUSEADDR) != 0;
    options.isIPv6 = getNumber(handle, SOL_SOCKET, SO_DOMAIN) == AF_INET6;
    options.isIPv6Only = options.isIPv6 && getNumber(handle, IPPROTO_IPV6, IPV6_V6ONLY) != 0;
    options.isBlocking =
        (checked(::fcntl(toDescriptor(handle), F_GETFL), "F_GETFL") & O_NONBLOCK) == 0;
    options.isInherited =
        (checked(::fcntl(toDescriptor(handle), F_GETFD), "F_GETFD") & FD_CLOEXEC) == 0;
    options.receiveTimeoutMilliseconds =
        std::int64_t{timeout.tv_sec} * 1000 + timeout.tv_usec / 1000;
    return options;
}

bool isOpen(kySocketHandle handle)
{
    return ::fcntl(toDescriptor(handle), F_GETFD) >= 0;
}

int getRefusedCode()
{
    return ECONNREFUSED;
}

int getTimedOutCode()
{
    return ETIMEDOUT;
}

int getBadHandleCode()
{
    return EBADF;
}

int getNotConnectedCode()
{
    return ENOTCONN;
}

int getWouldBlockCode()
{
    return EAGAIN;
}

int getInvalidCode()
{
    return EINVAL;
}

int getNoDescriptorCode()
{
    return EMFILE;
}

int getPortTakenCode()
{
    return EADDRINUSE;
}

std::string makeIPv4Record(const std::string& address, int port)
{
    sockaddr_in record{};
    record.sin_family = AF_INET;
    record.sin_port = htons(static_cast<std::uint16_t>(port));
    if (::inet_pton(AF_INET, address.c_str(), &record.sin_addr) != 1) {
        throw std::invalid_argument(address);
    }
    return toBytes(record);
}

std::string makeIPv6Record(const std::string& address, int port, std::uint32_t scope)
{
    sockaddr_in6 record{};
    record.sin6_family = AF_INET6;
    record.sin6_port = htons(static_cast<std::uint16_t>(port));
    record.sin6_scope_id = scope;
    if (::inet_pton(AF_INET6, address.c_str(), &record.sin6_addr) != 1) {
        throw std::invalid_argument(address);
    }
    return toBytes(record);
}

std::string makeForeignRecord()
{
    sockaddr record{};
    record.sa_family = AF_UNIX;
    return toBytes(record);
}

bool hasIPv6()
{
    const int descriptor = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        return false;
    }
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    const bool isBound = ::bind(descriptor, pointerTo(address), sizeof(address)) == 0;
    ::close(descriptor);
    return isBound;
}

void runWithoutIPv6(const std::function<void()>& action)
{
    runWithout({SYS_socket, AF_INET6}, EAFNOSUPPORT, action);
}

void runWithFailingListen(int code, const std::function<void()>& action)
{
    runWithout({SYS_listen}, code, action);
}

void runWithFailingReceive(int code, const std::function<void()>& action)
{
    runWithout({SYS_recvfrom}, code, action);
}

struct ThreadInterruptions::State
{
    std::atomic<bool> isDone{false};
    std::thread thread;
    struct sigaction previous
    {
    };
};

ThreadInterruptions::ThreadInterruptions(std::uint64_t threadId) : m_state(new State)
{
    s_interruptions = 0;
    struct sigaction action
    {
    };
    action.sa_handler = [](int) { ++s_interruptions; }; // No SA_RESTART: the call must notice.
    checked(::sigaction(SIGUSR1, &action, &m_state->previous), "sigaction");
    m_state->thread = std::thread([state = m_state, threadId] {
        while (!state->isDone) {
            ::syscall(SYS_tgkill, ::getpid(), threadId, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
}

ThreadInterruptions::~ThreadInterruptions()
{
    m_state->isDone = true;
    m_state->thread.join();
    ::sigaction(SIGUSR1, &m_state->previous, nullptr);
    delete m_state;
}

int ThreadInterruptions::count()
{
    return s_interruptions;
}

std::uint64_t getThreadId()
{
    return static_cast<std::uint64_t>(::syscall(SYS_gettid));
}

bool isWaiting(std::uint64_t threadId)
{
    std::ifstream status("/proc/self/task/" + std::to_string(threadId) + "/stat");
    std::string text;
    std::getline(status, text);
    const std::size_t name = text.rfind(") ");
    return name != std::string::npos && text.compare(name + 2, 1, "S") == 0;
}

} // namespace kyTest
