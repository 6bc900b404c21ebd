#include <tests/support/kyTestSocket.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <exception>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <winsock2.h>

#include <ws2tcpip.h>

#include <mstcpip.h>
#include <windows.h>

#include <Utils/platform/win32/kyHandle.h>
#include <tests/support/kyTestWait.h>
#include <tests/support/platform/win32/kyTestForbid.h>

namespace kyTest {

namespace {

[[noreturn]] void fail(const char* what)
{
    throw std::system_error(::WSAGetLastError(), std::system_category(), what);
}

/// Passes what a call answered, unless it failed.
int checked(int result, const char* what)
{
    if (result == SOCKET_ERROR) {
        fail(what);
    }
    return result;
}

kySocketHandle checkedSocket(SOCKET made, const char* what)
{
    if (made == INVALID_SOCKET) {
        fail(what);
    }
    return made;
}

sockaddr_in makeLoopback(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    address.sin_port = ::htons(static_cast<std::uint16_t>(port));
    return address;
}

template <class Address> const sockaddr* pointerTo(const Address& address)
{
    return reinterpret_cast<const sockaddr*>(&address);
}

void startSockets()
{
    static const int s_outcome = [] {
        WSADATA ignored{};
        return ::WSAStartup(MAKEWORD(2, 2), &ignored);
    }();
    if (s_outcome != 0) {
        throw std::system_error(s_outcome, std::system_category(), "WSAStartup");
    }
}

kySocketHandle makeSocket(int family)
{
    startSockets();
    return checkedSocket(::WSASocketW(family, SOCK_STREAM, 0, nullptr, 0,
                                      WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT),
                         "socket");
}

template <class Value>
void setOption(kySocketHandle handle, int level, int name, const Value& value, const char* what)
{
    checked(::setsockopt(handle, level, name, reinterpret_cast<const char*>(&value), sizeof(value)),
            what);
}

template <class Value> Value getOption(kySocketHandle handle, int level, int name)
{
    Value value{};
    int size = sizeof(value);
    checked(::getsockopt(handle, level, name, reinterpret_cast<char*>(&value), &size),
            "getsockopt");
    return value;
}

int getNumber(kySocketHandle handle, int level, int name)
{
    return getOption<int>(handle, level, name);
}

void setWaits(kySocketHandle handle, DWORD milliseconds)
{
    setOption(handle, SOL_SOCKET, SO_RCVTIMEO, milliseconds, "SO_RCVTIMEO");
    setOption(handle, SOL_SOCKET, SO_SNDTIMEO, milliseconds, "SO_SNDTIMEO");
}

/// No test may wait for ever.
void limitWaits(kySocketHandle handle)
{
    setWaits(handle, static_cast<DWORD>(std::chrono::milliseconds(s_patience).count()));
}

kySocketHandle makeBound()
{
    const kySocketHandle handle = makeSocket(AF_INET);
    // Or whoever wants to would share the port.
    setOption(handle, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, DWORD{1}, "SO_EXCLUSIVEADDRUSE");
    const sockaddr_in address = makeLoopback(0);
    checked(::bind(handle, pointerTo(address), sizeof(address)), "bind");
    return handle;
}

int getBoundPort(kySocketHandle handle)
{
    sockaddr_in address{};
    int size = sizeof(address);
    checked(::getsockname(handle, reinterpret_cast<sockaddr*>(&address), &size), "getsockname");
    return ::ntohs(address.sin_port);
}

int getFamily(kySocketHandle handle)
{
    return getOption<WSAPROTOCOL_INFOW>(handle, SOL_SOCKET, SO_PROTOCOL_INFOW).iAddressFamily;
}

/// The probes of silent peers that a socket was told to make. Not every system says what they are,
/// so the order itself is noted.
class KeepAliveOrders
{
public:
    static KeepAliveOrders& get()
    {
        static KeepAliveOrders s_orders;
        return s_orders;
    }

    void note(SOCKET socket, const tcp_keepalive& values)
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_values[socket] = values;
    }

    tcp_keepalive find(SOCKET socket) const
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        const auto found = m_values.find(socket);
        return found != m_values.end() ? found->second : tcp_keepalive{};
    }

private:
    mutable std::mutex m_lock;
    std::map<SOCKET, tcp_keepalive> m_values;
};

int WSAAPI giveOrder(SOCKET socket, DWORD code, void* in, DWORD inSize, void* out, DWORD outSize,
                     DWORD* written, OVERLAPPED* overlapped,
                     LPWSAOVERLAPPED_COMPLETION_ROUTINE completion)
{
    const int result = callOriginal<int>("ws2_32.dll", "WSAIoctl", socket, code, in, inSize, out,
                                         outSize, written, overlapped, completion);
    if (result == 0 && code == SIO_KEEPALIVE_VALS && inSize == sizeof(tcp_keepalive)) {
        KeepAliveOrders::get().note(socket, *static_cast<const tcp_keepalive*>(in));
    }
    return result;
}

[[maybe_unused]] const bool s_isNoting = [] {
    detour("ws2_32.dll", "WSAIoctl", giveOrder);
    return true;
}();

/// The system does not tell, so it is tried out: only a call that waits runs into a time limit.
bool isBlocking(kySocketHandle handle)
{
    const DWORD before = getOption<DWORD>(handle, SOL_SOCKET, SO_RCVTIMEO);
    setOption(handle, SOL_SOCKET, SO_RCVTIMEO, DWORD{1}, "SO_RCVTIMEO");
    char byte = 0;
    const int size = ::recv(handle, &byte, 1, MSG_PEEK);
    const int code = size == SOCKET_ERROR ? ::WSAGetLastError() : 0;
    setOption(handle, SOL_SOCKET, SO_RCVTIMEO, before, "SO_RCVTIMEO");
    return code != WSAEWOULDBLOCK;
}

template <class Address> std::string toBytes(const Address& address)
{
    return {reinterpret_cast<const char*>(&address), sizeof(address)};
}

/// What the calling thread is refused, each with the code to be refused with.
thread_local bool s_isWithoutIPv6 = false;
thread_local std::optional<int> s_listenCode;
thread_local std::optional<int> s_receiveCode;

int refuse(int code)
{
    ::WSASetLastError(code);
    return SOCKET_ERROR;
}

bool isRefusedFamily(int family)
{
    const bool isRefused = s_isWithoutIPv6 && family == AF_INET6;
    if (isRefused) {
        ::WSASetLastError(WSAEAFNOSUPPORT);
    }
    return isRefused;
}

SOCKET WSAAPI makeSocketA(int family, int type, int protocol, LPWSAPROTOCOL_INFOA information,
                          GROUP group, DWORD flags)
{
    return isRefusedFamily(family) ? INVALID_SOCKET
                                   : callOriginal<SOCKET>("ws2_32.dll", "WSASocketA", family, type,
                                                          protocol, information, group, flags);
}

SOCKET WSAAPI makeSimpleSocket(int family, int type, int protocol)
{
    return isRefusedFamily(family)
               ? INVALID_SOCKET
               : callOriginal<SOCKET>("ws2_32.dll", "socket", family, type, protocol);
}

int WSAAPI beginToListen(SOCKET socket, int backlog)
{
    return s_listenCode ? refuse(*s_listenCode)
                        : callOriginal<int>("ws2_32.dll", "listen", socket, backlog);
}

int WSAAPI receiveBytes(SOCKET socket, char* data, int size, int flags)
{
    return s_receiveCode ? refuse(*s_receiveCode)
                         : callOriginal<int>("ws2_32.dll", "recv", socket, data, size, flags);
}

/// On a thread of its own, since what is refused stays so.
void runWithout(const std::function<void()>& refuseIt, const std::function<void()>& action)
{
    startSockets();
    std::exception_ptr failure;
    std::thread([&] {
        try {
            refuseIt();
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

kyHandle openThread(std::uint64_t threadId, DWORD rights)
{
    return kyHandle(::OpenThread(rights, FALSE, static_cast<DWORD>(threadId)));
}

} // namespace

RawSocket RawSocket::connectIPv4(int port)
{
    RawSocket socket(makeSocket(AF_INET));
    limitWaits(socket.m_handle);
    const sockaddr_in address = makeLoopback(port);
    checked(::connect(socket.m_handle, pointerTo(address), sizeof(address)), "connect");
    return socket;
}

RawSocket RawSocket::connectIPv6(int port)
{
    RawSocket socket(makeSocket(AF_INET6));
    limitWaits(socket.m_handle);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    address.sin6_port = ::htons(static_cast<std::uint16_t>(port));
    checked(::connect(socket.m_handle, pointerTo(address), sizeof(address)), "connect");
    return socket;
}

void RawSocket::send(const std::string& bytes)
{
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        sent += static_cast<std::size_t>(
            checked(::send(m_handle, bytes.data() + sent, static_cast<int>(bytes.size() - sent), 0),
                    "send"));
    }
}

std::string RawSocket::receive(std::size_t length)
{
    std::string bytes(length, '\0');
    std::size_t received = 0;
    while (received < length) {
        const int count = checked(
            ::recv(m_handle, bytes.data() + received, static_cast<int>(length - received), 0),
            "recv");
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
    checked(::shutdown(m_handle, SD_SEND), "shutdown");
}

void RawSocket::close()
{
    if (m_handle != s_invalidSocketHandle) {
        ::closesocket(release());
    }
}

void RawSocket::reset()
{
    setOption(m_handle, SOL_SOCKET, SO_LINGER, linger{1, 0}, "SO_LINGER");
    close();
}

RawListener::RawListener(int backlog) : m_handle(makeBound())
{
    checked(::listen(m_handle, backlog), "listen");
}

RawListener::~RawListener()
{
    ::closesocket(m_handle);
}

int RawListener::getPort() const
{
    return getBoundPort(m_handle);
}

RawSocket RawListener::accept()
{
    // An accept that waits knows no limit here.
    WSAPOLLFD waiting{m_handle, POLLRDNORM, 0};
    const auto limit = static_cast<int>(std::chrono::milliseconds(s_patience).count());
    if (checked(::WSAPoll(&waiting, 1, limit), "poll") == 0) {
        throw std::system_error(WSAETIMEDOUT, std::system_category(), "accept");
    }
    RawSocket accepted(checkedSocket(::accept(m_handle, nullptr, nullptr), "accept"));
    limitWaits(accepted.getHandle());
    return accepted;
}

FullListener::FullListener() : m_listener(0)
{
    // The others hang in their connect.
    const sockaddr_in address = makeLoopback(m_listener.getPort());
    for (kySocketHandle& waiting : m_waiting) {
        waiting = makeSocket(AF_INET);
        u_long isNotBlocking = 1;
        checked(::ioctlsocket(waiting, static_cast<long>(FIONBIO), &isNotBlocking), "FIONBIO");
        if (::connect(waiting, pointerTo(address), sizeof(address)) != 0 &&
            ::WSAGetLastError() != WSAEWOULDBLOCK) {
            fail("connect");
        }
    }
}

FullListener::~FullListener()
{
    for (const kySocketHandle waiting : m_waiting) {
        ::closesocket(waiting);
    }
}

ClosedPort::ClosedPort() : m_handle(makeBound()), m_port(getBoundPort(m_handle)) {}

ClosedPort::~ClosedPort()
{
    ::closesocket(m_handle);
}

std::pair<kySocketHandle, kySocketHandle> makeConnection()
{
    RawListener listener;
    const sockaddr_in address = makeLoopback(listener.getPort());
    const kySocketHandle first = makeSocket(AF_INET);
    checked(::connect(first, pointerTo(address), sizeof(address)), "connect");
    RawSocket second = listener.accept();
    setWaits(second.getHandle(), 0);
    return {first, second.release()};
}

kySocketHandle makeUnconnected()
{
    return makeBound(); // One that is not bound has no name either.
}

std::pair<kySocketHandle, kySocketHandle> makeLocalConnection()
{
    // There are none.
    throw std::system_error(WSAEAFNOSUPPORT, std::system_category(), "local sockets");
}

SocketOptions getSocketOptions(kySocketHandle handle)
{
    const linger lingering = getOption<linger>(handle, SOL_SOCKET, SO_LINGER);
    const tcp_keepalive keepAlive = KeepAliveOrders::get().find(handle);
    DWORD flags = 0;
    ::GetHandleInformation(reinterpret_cast<HANDLE>(handle), &flags);
    SocketOptions options{};
    options.noDelay = getNumber(handle, IPPROTO_TCP, TCP_NODELAY) != 0;
    options.lingers = lingering.l_onoff != 0;
    options.lingerSeconds = lingering.l_linger;
    options.keepsAlive = getNumber(handle, SOL_SOCKET, SO_KEEPALIVE) != 0;
    options.keepAliveIdleSeconds = static_cast<int>(keepAlive.keepalivetime / 1000);
    options.keepAliveIntervalSeconds = static_cast<int>(keepAlive.keepaliveinterval / 1000);
    options.reusesAddress = getNumber(handle, SOL_SOCKET, SO_REUSEADDR) != 0;
    options.isIPv6 = getFamily(handle) == AF_INET6;
    options.isIPv6Only = options.isIPv6 && getNumber(handle, IPPROTO_IPV6, IPV6_V6ONLY) != 0;
    options.isBlocking = isBlocking(handle);
    options.isInherited = (flags & HANDLE_FLAG_INHERIT) != 0;
    options.receiveTimeoutMilliseconds = getOption<DWORD>(handle, SOL_SOCKET, SO_RCVTIMEO);
    return options;
}

bool isOpen(kySocketHandle handle)
{
    int type = 0;
    int size = sizeof(type);
    return ::getsockopt(handle, SOL_SOCKET, SO_TYPE, reinterpret_cast<char*>(&type), &size) == 0;
}

int getRefusedCode()
{
    return WSAECONNREFUSED;
}

int getTimedOutCode()
{
    return WSAETIMEDOUT;
}

int getBadHandleCode()
{
    return WSAENOTSOCK;
}

int getNotConnectedCode()
{
    return WSAENOTCONN;
}

int getWouldBlockCode()
{
    return WSAEWOULDBLOCK;
}

int getInvalidCode()
{
    return WSAEINVAL;
}

int getNoDescriptorCode()
{
    return WSAEMFILE;
}

int getPortTakenCode()
{
    return WSAEACCES;
}

std::string makeIPv4Record(const std::string& address, int port)
{
    startSockets();
    sockaddr_in record{};
    record.sin_family = AF_INET;
    record.sin_port = ::htons(static_cast<std::uint16_t>(port));
    if (::inet_pton(AF_INET, address.c_str(), &record.sin_addr) != 1) {
        throw std::invalid_argument(address);
    }
    return toBytes(record);
}

std::string makeIPv6Record(const std::string& address, int port, std::uint32_t scope)
{
    startSockets();
    sockaddr_in6 record{};
    record.sin6_family = AF_INET6;
    record.sin6_port = ::htons(static_cast<std::uint16_t>(port));
    record.sin6_scope_id = scope;
    if (::inet_pton(AF_INET6, address.c_str(), &record.sin6_addr) != 1) {
        throw std::invalid_argument(address);
    }
    return toBytes(record);
}

std::string makeForeignRecord()
{
    sockaddr record{};
    record.sa_family = AF_IPX;
    return toBytes(record);
}

bool hasIPv6()
{
    startSockets();
    const SOCKET probe = ::socket(AF_INET6, SOCK_STREAM, 0);
    if (probe == INVALID_SOCKET) {
        return false;
    }
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    const bool isBound = ::bind(probe, pointerTo(address), sizeof(address)) == 0;
    ::closesocket(probe);
    return isBound;
}

void runWithoutIPv6(const std::function<void()>& action)
{
    const auto refuseIt = [] {
        s_isWithoutIPv6 = true;
        detour("ws2_32.dll", "WSASocketA", makeSocketA);
        detour("ws2_32.dll", "socket", makeSimpleSocket);
    };
    runWithout(refuseIt, action);
}

void runWithFailingListen(int code, const std::function<void()>& action)
{
    const auto refuseIt = [code] {
        s_listenCode = code;
        detour("ws2_32.dll", "listen", beginToListen);
    };
    runWithout(refuseIt, action);
}

void runWithFailingReceive(int code, const std::function<void()>& action)
{
    const auto refuseIt = [code] {
        s_receiveCode = code;
        detour("ws2_32.dll", "recv", receiveBytes);
    };
    runWithout(refuseIt, action);
}

struct ThreadInterruptions::State
{
    std::atomic<bool> isDone{false};
    std::thread thread;
};

ThreadInterruptions::ThreadInterruptions(std::uint64_t threadId) : m_state(new State)
{
    s_interruptions = 0;
    m_state->thread = std::thread([state = m_state, threadId] {
        const kyHandle target = openThread(threadId, THREAD_SET_CONTEXT);
        while (!state->isDone) {
            ::QueueUserAPC([](ULONG_PTR) { ++s_interruptions; }, target.get(), 0);
            ::Sleep(5);
        }
    });
}

ThreadInterruptions::~ThreadInterruptions()
{
    m_state->isDone = true;
    m_state->thread.join();
    delete m_state;
}

int ThreadInterruptions::count()
{
    return s_interruptions;
}

std::uint64_t getThreadId()
{
    return ::GetCurrentThreadId();
}

/// Where the thread stands in its program, 0 if that is not in the part of it that calls the
/// system.
DWORD64 findSystemCall(const kyHandle& thread)
{
    CONTEXT context{};
    context.ContextFlags = CONTEXT_CONTROL;
    if (::SuspendThread(thread.get()) == static_cast<DWORD>(-1)) {
        return 0;
    }
    const BOOL isKnown = ::GetThreadContext(thread.get(), &context);
    ::ResumeThread(thread.get());
    HMODULE module = nullptr;
    constexpr DWORD flags =
        GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
    const bool isInSystem =
        isKnown && ::GetModuleHandleExW(flags, reinterpret_cast<LPCWSTR>(context.Rip), &module) &&
        module == ::GetModuleHandleW(L"ntdll.dll");
    return isInSystem ? context.Rip : 0;
}

bool isWaiting(std::uint64_t threadId)
{
    const kyHandle thread =
        openThread(threadId, THREAD_SUSPEND_RESUME | THREAD_GET_CONTEXT | THREAD_QUERY_INFORMATION);
    const DWORD64 first = findSystemCall(thread);
    ::Sleep(1);
    return first != 0 && findSystemCall(thread) == first;
}

} // namespace kyTest
