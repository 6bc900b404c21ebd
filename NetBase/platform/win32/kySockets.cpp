#include <NetBase/platform/kySockets.h>

#include <algorithm>
#include <limits>
#include <mutex>

#include <winsock2.h>
#include <ws2tcpip.h>

#include <mstcpip.h>
#include <windows.h>

#include <NetBase/platform/kyDeadline.h>
#include <Utils/platform/win32/kyHandle.h>

namespace kySockets {

namespace {

/// How long a poll waits before it looks again for what does not end it: a shutdown by this side,
/// and on old systems a connect that has failed.
constexpr int s_longestPoll = 200;

/// How long a poll pauses at least where the system would answer at once, with nothing that was
/// asked for.
constexpr int s_shortestPoll = 1;

/// The sockets that this side has shut down and not closed yet. A poll that began before or begins
/// later hears nothing of it from the system. There is room for more than threads can be inside at
/// once, as those who shut down may have no memory.
class ShutDownSockets
{
public:
    ShutDownSockets() { m_sockets.reserve(4096); }

    void add(SOCKET socket)
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_sockets.push_back(socket);
    }

    void remove(SOCKET socket)
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_sockets.erase(std::remove(m_sockets.begin(), m_sockets.end(), socket), m_sockets.end());
    }

    bool contains(SOCKET socket) const
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        return std::find(m_sockets.begin(), m_sockets.end(), socket) != m_sockets.end();
    }

private:
    mutable std::mutex m_lock;
    std::vector<SOCKET> m_sockets;
};

ShutDownSockets& shutDownSockets()
{
    // Never destroyed: detached threads may still close sockets when the process ends.
    static auto* const sockets = new ShutDownSockets;
    return *sockets;
}

HANDLE toSystemHandle(kySocketHandle handle)
{
    return reinterpret_cast<HANDLE>(handle);
}

/// What one call can transfer.
int toLength(std::uint64_t length)
{
    constexpr std::uint64_t most = std::numeric_limits<int>::max();
    return static_cast<int>(std::min(length, most));
}

Outcome judge(int code)
{
    switch (code) {
    case WSAEWOULDBLOCK:
        return Outcome::WouldBlock;
    case WSAECONNRESET:
    case WSAECONNABORTED:
    case WSAESHUTDOWN:
    case WSAEINTR:
    case WSA_OPERATION_ABORTED:
        return Outcome::PeerGone;
    default:
        return Outcome::Failed;
    }
}

template <class Value>
bool setOption(kySocketHandle handle, int level, int name, const Value& value)
{
    return ::setsockopt(handle, level, name, reinterpret_cast<const char*>(&value),
                        sizeof(value)) == 0;
}

template <class Value> bool getOption(kySocketHandle handle, int level, int name, Value& value)
{
    int size = sizeof(value);
    return ::getsockopt(handle, level, name, reinterpret_cast<char*>(&value), &size) == 0;
}

/// Options that are on or off, or a number, are of one type.
bool setNumber(kySocketHandle handle, int level, int name, DWORD value)
{
    return setOption(handle, level, name, value);
}

/// Gives the socket an order with a record that has no answer.
template <class Record> bool order(kySocketHandle handle, DWORD code, Record record)
{
    DWORD size = 0;
    return ::WSAIoctl(handle, code, &record, sizeof(record), nullptr, 0, &size, nullptr, nullptr) ==
           0;
}

/// Whether receives of the socket have a limit. Leaves the last error as it is.
bool hasReceiveTimeout(kySocketHandle handle)
{
    const int code = ::WSAGetLastError();
    DWORD milliseconds = 0;
    const bool isKnown = getOption(handle, SOL_SOCKET, SO_RCVTIMEO, milliseconds);
    ::WSASetLastError(code);
    return isKnown && milliseconds != 0;
}

Transfer receiveWith(kySocketHandle handle, void* data, std::uint64_t length, int flags)
{
    const int count = ::recv(handle, static_cast<char*>(data), toLength(length), flags);
    if (count > 0) {
        return {static_cast<std::uint64_t>(count), Outcome::Done};
    }
    if (count == 0) {
        return {0, Outcome::EndOfStream};
    }
    // The code of a limit is that of a connection that the system gave up, too.
    const int code = ::WSAGetLastError();
    const bool isOver = code == WSAETIMEDOUT || code == WSAEWOULDBLOCK;
    return {0, isOver && hasReceiveTimeout(handle) ? Outcome::TimedOut : judge(code)};
}

template <class Call> std::vector<std::uint8_t> getAddress(kySocketHandle handle, Call call)
{
    sockaddr_storage address{};
    int size = sizeof(address);
    if (call(handle, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        return {};
    }
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&address);
    return {bytes, bytes + std::min<std::size_t>(static_cast<std::size_t>(size), sizeof(address))};
}

template <class Address> bool bindTo(kySocketHandle handle, const Address& address)
{
    return ::bind(handle, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

/// Whether a connect has failed, which old systems do not tell a poll.
bool hasFailedToConnect(kySocketHandle handle)
{
    if (!getPeerAddress(handle).empty()) {
        return false;
    }
    fd_set failed{};
    FD_SET(handle, &failed);
    timeval none{};
    return ::select(0, nullptr, nullptr, &failed, &none) == 1;
}

WSAPOLLFD toSystem(const PollEntry& entry)
{
    int events = 0;
    events |= (entry.wanted & Readable) != 0 ? POLLRDNORM : 0;
    events |= (entry.wanted & Writable) != 0 ? POLLWRNORM : 0;
    return {entry.handle, static_cast<short>(events), 0};
}

/// The system calls the end of the peer's stream a hang-up, which is nothing to read in its words.
unsigned fromHangUp(const PollEntry& entry)
{
    const bool isGone = shutDownSockets().contains(entry.handle);
    return (entry.wanted & Readable) | (isGone ? HungUp : None);
}

unsigned fromSystem(const PollEntry& entry, int events)
{
    unsigned ready = None;
    ready |= (events & POLLRDNORM) != 0 ? Readable : 0u;
    ready |= (events & POLLWRNORM) != 0 ? Writable : 0u;
    ready |= (events & POLLERR) != 0 ? InError : 0u;
    ready |= (events & POLLNVAL) != 0 ? Unusable : 0u;
    if ((events & POLLHUP) != 0) {
        ready |= (events & POLLERR) != 0 ? HungUp : fromHangUp(entry);
    }
    return ready;
}

/// What the system does not say of an entry.
unsigned findHidden(const PollEntry& entry)
{
    if (shutDownSockets().contains(entry.handle)) {
        return HungUp;
    }
    const bool mayConnect = (entry.wanted & Writable) != 0;
    return mayConnect && hasFailedToConnect(entry.handle) ? HungUp | InError : None;
}

/// The valid handles in their order, as the system wants them.
std::vector<WSAPOLLFD> collect(const PollEntry* entries, std::size_t count)
{
    // Not kept in the thread: with the cross compiler's runtime a thread frees the memory of what
    // it owns before that is destroyed.
    std::vector<WSAPOLLFD> system;
    system.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        if (entries[i].handle != s_invalidSocketHandle) {
            system.push_back(toSystem(entries[i]));
        }
    }
    return system;
}

/// Writes into the entries what the system and we know of them; how many are ready.
int spread(const std::vector<WSAPOLLFD>& system, PollEntry* entries, std::size_t count)
{
    int ready = 0;
    auto answer = system.cbegin();
    for (std::size_t i = 0; i < count; ++i) {
        PollEntry& entry = entries[i];
        entry.ready = None;
        if (entry.handle != s_invalidSocketHandle) {
            const unsigned told = fromSystem(entry, (answer++)->revents);
            entry.ready = told != None ? told : findHidden(entry);
        }
        ready += entry.ready != None ? 1 : 0;
    }
    return ready;
}

/// One look at the entries, no longer than the milliseconds; answers as poll does.
int pollOnce(PollEntry* entries, std::size_t count, int milliseconds)
{
    std::vector<WSAPOLLFD> system = collect(entries, count);
    int told = 0;
    int code = 0;
    if (system.empty()) {
        ::Sleep(static_cast<DWORD>(milliseconds)); // The system refuses to poll nothing.
    } else {
        told = ::WSAPoll(system.data(), static_cast<ULONG>(system.size()), milliseconds);
        code = told < 0 ? ::WSAGetLastError() : 0;
    }
    const int ready = spread(system, entries, count);
    if (told > 0 && ready == 0) {
        // The end of a peer's stream ends every poll, also one that waits for room only.
        ::Sleep(static_cast<DWORD>(std::min(milliseconds, s_shortestPoll)));
    }
    // Where no handle is a socket the system fails, but says it of each, too. Whoever shuts a
    // socket down may break the poll off, which is no failure either.
    if (ready > 0 || code == 0 || code == WSA_OPERATION_ABORTED || code == WSAEINTR) {
        return ready;
    }
    ::WSASetLastError(code);
    return -1;
}

/// What a wake event waits for. A socket knows one event only, so those who wait for its
/// connections share it; it wakes one of them for each.
struct WakeEvents
{
    kyHandle signal{::CreateEventA(nullptr, TRUE, FALSE, nullptr)};
    kyHandle connection{::CreateEventA(nullptr, FALSE, FALSE, nullptr)};
};

WakeEvents* toEvents(std::uintptr_t event)
{
    return reinterpret_cast<WakeEvents*>(event);
}

} // namespace

bool start()
{
    shutDownSockets();
    WSADATA data{};
    const int code = ::WSAStartup(MAKEWORD(2, 2), &data);
    ::WSASetLastError(code);
    return code == 0;
}

kySocketHandle create(int family)
{
    return ::WSASocketA(family, SOCK_STREAM, 0, nullptr, 0,
                        WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
}

void close(kySocketHandle handle)
{
    shutDownSockets().remove(handle);
    if (::closesocket(handle) != 0 && ::WSAGetLastError() == WSAEWOULDBLOCK) {
        // One that has to linger and must not wait stays open.
        setBlocking(handle, true);
        ::closesocket(handle);
    }
}

void shutdownBoth(kySocketHandle handle)
{
    if (handle == s_invalidSocketHandle) {
        return;
    }
    // From here on the system refuses to begin a transfer; those that it has begun are broken off.
    shutDownSockets().add(handle);
    ::shutdown(handle, SD_BOTH);
    ::CancelIoEx(toSystemHandle(handle), nullptr);
}

Outcome connect(kySocketHandle handle, const sockaddr* address, std::size_t size)
{
    if (::connect(handle, address, static_cast<int>(size)) == 0) {
        return Outcome::Done;
    }
    return judge(::WSAGetLastError());
}

void takePendingError(kySocketHandle handle)
{
    int code = 0;
    if (getOption(handle, SOL_SOCKET, SO_ERROR, code)) {
        ::WSASetLastError(code != 0 ? code : WSAETIMEDOUT);
    }
}

bool bindToPort(kySocketHandle handle, int family, int port)
{
    if (port < 0 || port > std::numeric_limits<std::uint16_t>::max()) {
        ::WSASetLastError(WSAEINVAL);
        return false;
    }
    const u_short networkPort = ::htons(static_cast<std::uint16_t>(port));
    if (family == AF_INET6) {
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        address.sin6_addr = in6addr_any;
        address.sin6_port = networkPort;
        return bindTo(handle, address);
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ::htonl(INADDR_ANY);
    address.sin_port = networkPort;
    return bindTo(handle, address);
}

bool listen(kySocketHandle handle, int backlog)
{
    return ::listen(handle, backlog) == 0;
}

Accepted accept(kySocketHandle listening)
{
    const SOCKET socket = ::accept(listening, nullptr, nullptr);
    if (socket == INVALID_SOCKET) {
        // A client that is gone again before it was accepted is no failure of the listening socket.
        const int code = ::WSAGetLastError();
        const bool isClientGone = code == WSAECONNRESET || code == WSAECONNABORTED;
        return {s_invalidSocketHandle, isClientGone ? Outcome::WouldBlock : judge(code)};
    }
    // It has the event of the listening socket, does not block either, and would be inherited.
    ::SetHandleInformation(toSystemHandle(socket), HANDLE_FLAG_INHERIT, 0);
    setBlocking(socket, true);
    return {socket, Outcome::Done};
}

Transfer send(kySocketHandle handle, const Block* blocks, std::size_t count)
{
    // What stands behind a block that is cut short must not be sent.
    WSABUF buffers[s_mostBlocks];
    std::uint64_t room = std::numeric_limits<int>::max();
    DWORD used = 0;
    for (; used < std::min(count, s_mostBlocks) && room > 0; ++used) {
        const std::uint64_t length = std::min(blocks[used].length, room);
        auto* data = static_cast<char*>(const_cast<void*>(blocks[used].data));
        buffers[used] = {static_cast<ULONG>(length), data};
        room -= length;
    }
    DWORD sent = 0;
    if (::WSASend(handle, buffers, used, &sent, 0, nullptr, nullptr) != 0) {
        return {0, judge(::WSAGetLastError())};
    }
    return {sent, Outcome::Done};
}

Transfer receive(kySocketHandle handle, void* data, std::uint64_t length)
{
    return receiveWith(handle, data, length, 0);
}

Transfer tryReceive(kySocketHandle handle, void* data, std::uint64_t length)
{
    // The system cannot be told so for one call. What is no bytes, an end or a failure, is left
    // for the call that waits.
    std::uint64_t count = 0;
    if (!getAvailable(handle, count) || count == 0) {
        return {0, Outcome::WouldBlock};
    }
    return receive(handle, data, length);
}

Transfer peek(kySocketHandle handle, void* data, std::uint64_t length)
{
    return receiveWith(handle, data, length, MSG_PEEK);
}

bool getAvailable(kySocketHandle handle, std::uint64_t& count)
{
    u_long available = 0;
    if (::ioctlsocket(handle, FIONREAD, &available) != 0) {
        return false;
    }
    count = available;
    return true;
}

int poll(PollEntry* entries, std::size_t count, int milliseconds)
{
    const kyDeadline deadline(milliseconds);
    for (;;) {
        const int left = deadline.left();
        const int limit = left < 0 ? s_longestPoll : std::min(left, s_longestPoll);
        const int ready = pollOnce(entries, count, limit);
        if (ready != 0 || left == 0) {
            return ready;
        }
    }
}

bool setNoDelay(kySocketHandle handle, bool noDelay)
{
    return setNumber(handle, IPPROTO_TCP, TCP_NODELAY, noDelay ? 1 : 0);
}

bool setLinger(kySocketHandle handle, bool on, std::uint16_t seconds)
{
    return setOption(handle, SOL_SOCKET, SO_LINGER, linger{on ? u_short{1} : u_short{0}, seconds});
}

bool setReuseAddress(kySocketHandle handle, bool reuse)
{
    return setNumber(handle, SOL_SOCKET, SO_REUSEADDR, reuse ? 1 : 0);
}

bool setIPv6Only(kySocketHandle handle, bool only)
{
    return setNumber(handle, IPPROTO_IPV6, IPV6_V6ONLY, only ? 1 : 0);
}

bool setBlocking(kySocketHandle handle, bool blocking)
{
    if (blocking) {
        // A socket that an event belongs to does not let itself be made blocking.
        ::WSAEventSelect(handle, nullptr, 0);
    }
    u_long nonBlocking = blocking ? 0 : 1;
    return ::ioctlsocket(handle, static_cast<long>(FIONBIO), &nonBlocking) == 0;
}

bool setSendBuffer(kySocketHandle handle, int bytes)
{
    // Room for one and the beginning of the next: a send that finds less waits for the peer's
    // system to say that it has all, which takes its time.
    return setNumber(handle, SOL_SOCKET, SO_SNDBUF, 2 * bytes);
}

bool setKeepAlive(kySocketHandle handle, std::uint32_t idle, std::uint32_t interval)
{
    const bool isOn = setNumber(handle, SOL_SOCKET, SO_KEEPALIVE, 1);
    return order(handle, SIO_KEEPALIVE_VALS, tcp_keepalive{1, idle, interval}) && isOn;
}

bool setReceiveTimeout(kySocketHandle handle, std::uint32_t milliseconds)
{
    return setNumber(handle, SOL_SOCKET, SO_RCVTIMEO, milliseconds);
}

bool enableLoopbackFastPath(kySocketHandle handle)
{
    // A system that has no such thing says so.
    return order(handle, SIO_LOOPBACK_FAST_PATH, 1) || ::WSAGetLastError() == WSAEOPNOTSUPP;
}

std::vector<std::uint8_t> getLocalAddress(kySocketHandle handle)
{
    return getAddress(handle, ::getsockname);
}

std::vector<std::uint8_t> getPeerAddress(kySocketHandle handle)
{
    return getAddress(handle, ::getpeername);
}

WakeEvent::WakeEvent() : m_event(reinterpret_cast<std::uintptr_t>(new WakeEvents)) {}

WakeEvent::~WakeEvent()
{
    delete toEvents(m_event);
}

bool WakeEvent::isUsable() const
{
    const WakeEvents* events = toEvents(m_event);
    return events->signal.isValid() && events->connection.isValid();
}

void WakeEvent::signal()
{
    ::SetEvent(toEvents(m_event)->signal.get());
}

bool WakeEvent::waitForConnection(kySocketHandle listening) const
{
    const WakeEvents* events = toEvents(m_event);
    // Also signals the event if a connection waits already.
    if (::WSAEventSelect(listening, events->connection.get(), FD_ACCEPT) != 0) {
        return false;
    }
    const HANDLE waits[] = {events->signal.get(), events->connection.get()};
    return ::WaitForMultipleObjects(2, waits, FALSE, INFINITE) == WAIT_OBJECT_0 + 1;
}

} // namespace kySockets
