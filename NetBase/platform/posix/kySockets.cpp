#include <NetBase/platform/kySockets.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace kySockets {

namespace {

using Clock = std::chrono::steady_clock;

int toDescriptor(kySocketHandle handle)
{
    return static_cast<int>(handle);
}

kySocketHandle toHandle(int descriptor)
{
    return descriptor < 0 ? s_invalidSocketHandle : static_cast<kySocketHandle>(descriptor);
}

/// Repeats a call that a signal interrupts.
template <class Call> auto repeat(Call call)
{
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

Outcome judge(int code)
{
    switch (code) {
    case EAGAIN:
    case EINPROGRESS:
        return Outcome::WouldBlock;
    case EPIPE:
    case ECONNRESET:
    case ECONNABORTED:
        return Outcome::PeerGone;
    default:
        return Outcome::Failed;
    }
}

/// The limit of setReceiveTimeout, zero for none. Leaves the last error as it is.
Clock::duration getReceiveTimeout(kySocketHandle handle)
{
    const int code = errno;
    timeval limit{};
    socklen_t size = sizeof(limit);
    if (::getsockopt(toDescriptor(handle), SOL_SOCKET, SO_RCVTIMEO, &limit, &size) != 0) {
        limit = {};
    }
    errno = code;
    return std::chrono::seconds(limit.tv_sec) + std::chrono::microseconds(limit.tv_usec);
}

/// A receive that signals interrupt starts anew, and so does its time limit: one that is
/// interrupted again and again is ended when the limit has passed since the first time.
ssize_t receiveRepeating(kySocketHandle handle, void* data, std::uint64_t length, int flags)
{
    const auto call = [&] { return ::recv(toDescriptor(handle), data, length, flags); };
    ssize_t count = call();
    if (count >= 0 || errno != EINTR) {
        return count;
    }
    const Clock::duration limit = getReceiveTimeout(handle);
    const Clock::time_point begin = Clock::now();
    while (count < 0 && errno == EINTR) {
        if (limit != Clock::duration::zero() && Clock::now() - begin >= limit) {
            errno = EAGAIN;
            break;
        }
        count = call();
    }
    return count;
}

Transfer toTransfer(ssize_t received)
{
    if (received > 0) {
        return {static_cast<std::uint64_t>(received), Outcome::Done};
    }
    return {0, received == 0 ? Outcome::EndOfStream : judge(errno)};
}

Transfer receiveWith(kySocketHandle handle, void* data, std::uint64_t length, int flags)
{
    Transfer transfer = toTransfer(receiveRepeating(handle, data, length, flags));
    if (transfer.outcome == Outcome::WouldBlock &&
        getReceiveTimeout(handle) != Clock::duration::zero()) {
        transfer.outcome = Outcome::TimedOut;
    }
    return transfer;
}

iovec toVector(const Block& block)
{
    return {const_cast<void*>(block.data), block.length}; // The system's type is for both ways.
}

/// Takes less of the system than a list of one.
ssize_t sendOne(kySocketHandle handle, const Block& block)
{
    return repeat(
        [&] { return ::send(toDescriptor(handle), block.data, block.length, MSG_NOSIGNAL); });
}

ssize_t sendTogether(kySocketHandle handle, const Block* blocks, std::size_t count)
{
    iovec vectors[s_mostBlocks];
    msghdr message{};
    message.msg_iov = vectors;
    message.msg_iovlen = std::min(count, s_mostBlocks);
    std::transform(blocks, blocks + message.msg_iovlen, vectors, toVector);
    return repeat([&] { return ::sendmsg(toDescriptor(handle), &message, MSG_NOSIGNAL); });
}

template <class Value>
bool setOption(kySocketHandle handle, int level, int name, const Value& value)
{
    return ::setsockopt(toDescriptor(handle), level, name, &value, sizeof(value)) == 0;
}

/// Options that are on or off, or a number, are of one type.
bool setNumber(kySocketHandle handle, int level, int name, int value)
{
    return setOption(handle, level, name, value);
}

template <class Call> std::vector<std::uint8_t> getAddress(kySocketHandle handle, Call call)
{
    sockaddr_storage address{};
    socklen_t size = sizeof(address);
    if (call(toDescriptor(handle), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        return {};
    }
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&address);
    return {bytes, bytes + std::min<std::size_t>(size, sizeof(address))};
}

pollfd toSystem(const PollEntry& entry)
{
    int events = 0;
    events |= (entry.wanted & Readable) != 0 ? POLLRDNORM : 0;
    events |= (entry.wanted & Writable) != 0 ? POLLWRNORM : 0;
    return {toDescriptor(entry.handle), static_cast<short>(events), 0};
}

unsigned fromSystem(int events)
{
    unsigned ready = None;
    ready |= (events & POLLRDNORM) != 0 ? Readable : 0u;
    ready |= (events & POLLWRNORM) != 0 ? Writable : 0u;
    ready |= (events & POLLHUP) != 0 ? HungUp : 0u;
    ready |= (events & POLLERR) != 0 ? InError : 0u;
    ready |= (events & POLLNVAL) != 0 ? Unusable : 0u;
    return ready;
}

/// Milliseconds from now to the end, rounded up so that no wait is cut short, never negative.
int millisecondsUntil(Clock::time_point end)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
}

/// poll that signals cannot shorten or prolong.
int pollRepeating(pollfd* entries, nfds_t count, int milliseconds)
{
    if (milliseconds <= 0) {
        return repeat([&] { return ::poll(entries, count, milliseconds); });
    }
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(milliseconds);
    return repeat([&] { return ::poll(entries, count, millisecondsUntil(end)); });
}

} // namespace

bool start()
{
    return true;
}

kySocketHandle create(int family)
{
    return toHandle(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

void close(kySocketHandle handle)
{
    // Never repeated: the descriptor is gone even if a signal interrupts the linger.
    ::close(toDescriptor(handle));
}

void shutdownBoth(kySocketHandle handle)
{
    ::shutdown(toDescriptor(handle), SHUT_RDWR);
}

Outcome connect(kySocketHandle handle, const sockaddr* address, std::size_t size)
{
    if (::connect(toDescriptor(handle), address, static_cast<socklen_t>(size)) == 0) {
        return Outcome::Done;
    }
    // An interrupted connect goes on in the background, and must not be called again.
    return errno == EINTR ? Outcome::WouldBlock : judge(errno);
}

void takePendingError(kySocketHandle handle)
{
    int code = 0;
    socklen_t size = sizeof(code);
    if (::getsockopt(toDescriptor(handle), SOL_SOCKET, SO_ERROR, &code, &size) == 0) {
        errno = code != 0 ? code : ETIMEDOUT;
    }
}

bool bindToPort(kySocketHandle handle, int family, int port)
{
    if (port < 0 || port > std::numeric_limits<std::uint16_t>::max()) {
        errno = EINVAL;
        return false;
    }
    const in_port_t networkPort = htons(static_cast<std::uint16_t>(port));
    if (family == AF_INET6) {
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        address.sin6_addr = in6addr_any;
        address.sin6_port = networkPort;
        return ::bind(toDescriptor(handle), reinterpret_cast<const sockaddr*>(&address),
                      sizeof(address)) == 0;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = networkPort;
    return ::bind(toDescriptor(handle), reinterpret_cast<const sockaddr*>(&address),
                  sizeof(address)) == 0;
}

bool listen(kySocketHandle handle, int backlog)
{
    return ::listen(toDescriptor(handle), backlog) == 0;
}

Accepted accept(kySocketHandle listening)
{
    const int descriptor =
        repeat([&] { return ::accept4(toDescriptor(listening), nullptr, nullptr, SOCK_CLOEXEC); });
    if (descriptor >= 0) {
        return {toHandle(descriptor), Outcome::Done};
    }
    // A client that is gone again before it was accepted is no failure of the listening socket.
    const bool isClientGone = errno == ECONNABORTED || errno == EPROTO;
    return {s_invalidSocketHandle, isClientGone ? Outcome::WouldBlock : judge(errno)};
}

Transfer send(kySocketHandle handle, const Block* blocks, std::size_t count)
{
    const ssize_t sent =
        count == 1 ? sendOne(handle, *blocks) : sendTogether(handle, blocks, count);
    if (sent < 0) {
        return {0, judge(errno)};
    }
    return {static_cast<std::uint64_t>(sent), Outcome::Done};
}

Transfer receive(kySocketHandle handle, void* data, std::uint64_t length)
{
    return receiveWith(handle, data, length, 0);
}

Transfer tryReceive(kySocketHandle handle, void* data, std::uint64_t length)
{
    return toTransfer(
        repeat([&] { return ::recv(toDescriptor(handle), data, length, MSG_DONTWAIT); }));
}

Transfer peek(kySocketHandle handle, void* data, std::uint64_t length)
{
    return receiveWith(handle, data, length, MSG_PEEK);
}

bool getAvailable(kySocketHandle handle, std::uint64_t& count)
{
    int available = 0;
    if (::ioctl(toDescriptor(handle), FIONREAD, &available) != 0) {
        return false;
    }
    count = static_cast<std::uint64_t>(available);
    return true;
}

int poll(PollEntry* entries, std::size_t count, int milliseconds)
{
    // Kept, so that a receiver that polls for every buffer does not allocate.
    thread_local std::vector<pollfd> system;
    system.clear();
    std::transform(entries, entries + count, std::back_inserter(system), toSystem);
    const int ready = pollRepeating(system.data(), static_cast<nfds_t>(count), milliseconds);
    for (std::size_t i = 0; i < count; ++i) {
        entries[i].ready = ready > 0 ? fromSystem(system[i].revents) : None;
    }
    return ready;
}

bool setNoDelay(kySocketHandle handle, bool noDelay)
{
    return setNumber(handle, IPPROTO_TCP, TCP_NODELAY, noDelay ? 1 : 0);
}

bool setLinger(kySocketHandle handle, bool on, std::uint16_t seconds)
{
    return setOption(handle, SOL_SOCKET, SO_LINGER, linger{on ? 1 : 0, seconds});
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
    int nonBlocking = blocking ? 0 : 1;
    return ::ioctl(toDescriptor(handle), FIONBIO, &nonBlocking) == 0;
}

bool setSendBuffer(kySocketHandle handle, int bytes)
{
    // Linux doubles it for what it needs besides.
    return setNumber(handle, SOL_SOCKET, SO_SNDBUF, bytes);
}

bool setKeepAlive(kySocketHandle handle, std::uint32_t idle, std::uint32_t interval)
{
    return setNumber(handle, SOL_SOCKET, SO_KEEPALIVE, 1) &&
           setNumber(handle, IPPROTO_TCP, TCP_KEEPIDLE, static_cast<int>(idle / 1000)) &&
           setNumber(handle, IPPROTO_TCP, TCP_KEEPINTVL, static_cast<int>(interval / 1000));
}

bool setReceiveTimeout(kySocketHandle handle, std::uint32_t milliseconds)
{
    const timeval limit{static_cast<time_t>(milliseconds / 1000),
                        static_cast<suseconds_t>(milliseconds % 1000) * 1000};
    return setOption(handle, SOL_SOCKET, SO_RCVTIMEO, limit);
}

bool enableLoopbackFastPath(kySocketHandle)
{
    return true; // The loopback device is short as it is.
}

std::vector<std::uint8_t> getLocalAddress(kySocketHandle handle)
{
    return getAddress(handle, ::getsockname);
}

std::vector<std::uint8_t> getPeerAddress(kySocketHandle handle)
{
    return getAddress(handle, ::getpeername);
}

WakeEvent::WakeEvent() : m_event(toHandle(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))) {}

WakeEvent::~WakeEvent()
{
    if (isUsable()) {
        ::close(toDescriptor(m_event));
    }
}

bool WakeEvent::isUsable() const
{
    return m_event != s_invalidSocketHandle;
}

void WakeEvent::signal()
{
    // Nobody reads the event, so it stays readable; a full one is.
    ::eventfd_write(toDescriptor(m_event), 1);
}

bool WakeEvent::waitForConnection(kySocketHandle listening) const
{
    pollfd entries[] = {{toDescriptor(m_event), POLLIN, 0}, {toDescriptor(listening), POLLIN, 0}};
    return pollRepeating(entries, 2, -1) > 0 && entries[0].revents == 0;
}

} // namespace kySockets
