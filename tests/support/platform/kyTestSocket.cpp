#include <tests/support/kyTestSocket.h>

#include <exception>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <tests/support/kyTestWait.h>
#include <tests/support/platform/kyTestSocketCalls.h>

namespace kyTest {

namespace {

constexpr int s_sending = 1; ///< That direction of a shutdown, which the systems name differently.

sockaddr_in6 makeLoopbackIPv6(int port)
{
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    address.sin6_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

/// A connected socket that no test waits for ever for.
template <class Address> RawSocket connectTo(const Address& address, int family)
{
    RawSocket socket(openSocket(family));
    setWaits(socket.getHandle(), s_patience);
    checked(::connect(toSystem(socket.getHandle()), pointerTo(address), sizeof(address)),
            "connect");
    return socket;
}

int getBoundPort(kySocketHandle handle)
{
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    checked(::getsockname(toSystem(handle), reinterpret_cast<sockaddr*>(&address), &size),
            "getsockname");
    return ntohs(address.sin_port);
}

void parse(int family, const std::string& text, void* address)
{
    startSockets();
    if (::inet_pton(family, text.c_str(), address) != 1) {
        throw std::invalid_argument(text);
    }
}

} // namespace

sockaddr_in makeLoopback(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

void runApart(const std::function<void()>& action)
{
    std::exception_ptr failure;
    std::thread([&] {
        try {
            action();
        } catch (...) {
            failure = std::current_exception();
        }
    }).join();
    if (failure) {
        std::rethrow_exception(failure);
    }
}

RawSocket RawSocket::connectIPv4(int port)
{
    return connectTo(makeLoopback(port), AF_INET);
}

RawSocket RawSocket::connectIPv6(int port)
{
    return connectTo(makeLoopbackIPv6(port), AF_INET6);
}

void RawSocket::send(const std::string& bytes)
{
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        sent += static_cast<std::size_t>(
            checked(sendSome(m_handle, bytes.data() + sent, bytes.size() - sent), "send"));
    }
}

std::string RawSocket::receive(std::size_t length)
{
    std::string bytes(length, '\0');
    std::size_t received = 0;
    while (received < length) {
        const int count =
            checked(receiveSome(m_handle, bytes.data() + received, length - received), "recv");
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
    checked(::shutdown(toSystem(m_handle), s_sending), "shutdown");
}

void RawSocket::close()
{
    if (m_handle != s_invalidSocketHandle) {
        closeHandle(release());
    }
}

void RawSocket::reset()
{
    setOption(m_handle, SOL_SOCKET, SO_LINGER, linger{1, 0}, "SO_LINGER");
    close();
}

RawListener::RawListener(int backlog) : m_handle(openBound())
{
    checked(::listen(toSystem(m_handle), backlog), "listen");
}

RawListener::~RawListener()
{
    closeHandle(m_handle);
}

int RawListener::getPort() const
{
    return getBoundPort(m_handle);
}

RawSocket RawListener::accept()
{
    RawSocket accepted(acceptNext(m_handle));
    setWaits(accepted.getHandle(), s_patience);
    return accepted;
}

FullListener::FullListener() : m_listener(0)
{
    // Some systems let one more in than the backlog says; the others hang in their connect.
    const sockaddr_in address = makeLoopback(m_listener.getPort());
    for (kySocketHandle& waiting : m_waiting) {
        waiting = openSocket(AF_INET);
        beginToConnect(waiting, address);
    }
}

FullListener::~FullListener()
{
    for (const kySocketHandle waiting : m_waiting) {
        closeHandle(waiting);
    }
}

ClosedPort::ClosedPort() : m_handle(openBound()), m_port(getBoundPort(m_handle)) {}

ClosedPort::~ClosedPort()
{
    closeHandle(m_handle);
}

std::pair<kySocketHandle, kySocketHandle> makeConnection()
{
    RawListener listener;
    RawSocket first = RawSocket::connectIPv4(listener.getPort());
    RawSocket second = listener.accept();
    for (const RawSocket* end : {&first, &second}) {
        setWaits(end->getHandle(), std::chrono::milliseconds::zero());
    }
    return {first.release(), second.release()};
}

std::string makeIPv4Record(const std::string& address, int port)
{
    sockaddr_in record{};
    record.sin_family = AF_INET;
    record.sin_port = htons(static_cast<std::uint16_t>(port));
    parse(AF_INET, address, &record.sin_addr);
    return toBytes(record);
}

std::string makeIPv6Record(const std::string& address, int port, std::uint32_t scope)
{
    sockaddr_in6 record{};
    record.sin6_family = AF_INET6;
    record.sin6_port = htons(static_cast<std::uint16_t>(port));
    record.sin6_scope_id = scope;
    parse(AF_INET6, address, &record.sin6_addr);
    return toBytes(record);
}

bool hasIPv6()
{
    try {
        const RawSocket probe(openSocket(AF_INET6));
        const sockaddr_in6 address = makeLoopbackIPv6(0);
        return ::bind(toSystem(probe.getHandle()), pointerTo(address), sizeof(address)) == 0;
    } catch (const std::system_error&) {
        return false;
    }
}

} // namespace kyTest
