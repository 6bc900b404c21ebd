#include <tests/support/kyTestSocket.h>

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>

#include <winsock2.h>

#include <mstcpip.h>
#include <windows.h>

#include <Utils/platform/win32/kyHandle.h>
#include <tests/support/kyTestWait.h>
#include <tests/support/platform/kyTestSocketCalls.h>
#include <tests/support/platform/win32/kyTestForbid.h>

namespace kyTest {

namespace {

kySocketHandle checkedSocket(SOCKET made, const char* what)
{
    if (made == INVALID_SOCKET) {
        failCall(what);
    }
    return made;
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

SOCKET WSAAPI makeSocketW(int family, int type, int protocol, LPWSAPROTOCOL_INFOW information,
                          GROUP group, DWORD flags)
{
    return isRefusedFamily(family) ? INVALID_SOCKET
                                   : callOriginal<SOCKET>("ws2_32.dll", "WSASocketW", family, type,
                                                          protocol, information, group, flags);
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
    runApart([&] {
        refuseIt();
        action();
    });
}

std::atomic<int> s_interruptions{0};

kyHandle openThread(std::uint64_t threadId, DWORD rights)
{
    return kyHandle(::OpenThread(rights, FALSE, static_cast<DWORD>(threadId)));
}

} // namespace

void failCall(const char* what)
{
    throw std::system_error(::WSAGetLastError(), std::system_category(), what);
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

kySocketHandle openSocket(int family)
{
    startSockets();
    return checkedSocket(::WSASocketW(family, SOCK_STREAM, 0, nullptr, 0,
                                      WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT),
                         "socket");
}

kySocketHandle openBound()
{
    const kySocketHandle handle = openSocket(AF_INET);
    // Or whoever wants to would share the port.
    setOption(handle, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, DWORD{1}, "SO_EXCLUSIVEADDRUSE");
    const sockaddr_in address = makeLoopback(0);
    checked(::bind(handle, pointerTo(address), sizeof(address)), "bind");
    return handle;
}

void closeHandle(kySocketHandle handle)
{
    ::closesocket(handle);
}

void setWaits(kySocketHandle handle, std::chrono::milliseconds limit)
{
    const auto time = static_cast<DWORD>(limit.count());
    setOption(handle, SOL_SOCKET, SO_RCVTIMEO, time, "SO_RCVTIMEO");
    setOption(handle, SOL_SOCKET, SO_SNDTIMEO, time, "SO_SNDTIMEO");
}

kySocketHandle acceptNext(kySocketHandle listening)
{
    // An accept that waits knows no limit here.
    WSAPOLLFD waiting{listening, POLLRDNORM, 0};
    const auto limit = static_cast<int>(std::chrono::milliseconds(s_patience).count());
    if (checked(::WSAPoll(&waiting, 1, limit), "poll") == 0) {
        throw std::system_error(WSAETIMEDOUT, std::system_category(), "accept");
    }
    return checkedSocket(::accept(listening, nullptr, nullptr), "accept");
}

void beginToConnect(kySocketHandle handle, const sockaddr_in& address)
{
    u_long isNotBlocking = 1;
    checked(::ioctlsocket(handle, static_cast<long>(FIONBIO), &isNotBlocking), "FIONBIO");
    if (::connect(handle, pointerTo(address), sizeof(address)) != 0 &&
        ::WSAGetLastError() != WSAEWOULDBLOCK) {
        failCall("connect");
    }
}

long long sendSome(kySocketHandle handle, const char* data, std::size_t size)
{
    return ::send(handle, data, static_cast<int>(size), 0);
}

long long receiveSome(kySocketHandle handle, char* data, std::size_t size)
{
    return ::recv(handle, data, static_cast<int>(size), 0);
}

kySocketHandle makeUnconnected()
{
    return openBound(); // One that is not bound has no name either.
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
    options.sendBuffer = getNumber(handle, SOL_SOCKET, SO_SNDBUF);
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

int getResetCode()
{
    return WSAECONNRESET;
}

int getAbortedCode()
{
    return WSAECONNABORTED;
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

std::string makeForeignRecord()
{
    sockaddr record{};
    record.sa_family = AF_IPX;
    return toBytes(record);
}

void runWithoutIPv6(const std::function<void()>& action)
{
    const auto refuseIt = [] {
        s_isWithoutIPv6 = true;
        detour("ws2_32.dll", "WSASocketA", makeSocketA);
        detour("ws2_32.dll", "WSASocketW", makeSocketW);
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
