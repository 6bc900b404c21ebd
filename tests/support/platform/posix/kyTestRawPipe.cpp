#include <tests/support/kyTestRawPipe.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace kyTest {

namespace {

int checked(int result, const char* what)
{
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return result;
}

void closeDescriptor(int& descriptor)
{
    if (descriptor >= 0) {
        ::close(std::exchange(descriptor, -1));
    }
}

int toDescriptor(std::uint64_t socket)
{
    return static_cast<int>(socket);
}

std::string receiveAll(int descriptor, std::size_t size)
{
    std::string text(size, '\0');
    std::size_t count = 0;
    while (count < size) {
        const ssize_t received = ::recv(descriptor, text.data() + count, size - count, 0);
        if (received < 0 && errno == EINTR) {
            continue;
        }
        if (received <= 0) {
            break;
        }
        count += static_cast<std::size_t>(received);
    }
    text.resize(count);
    return text;
}

sockaddr_un abstractAddress(const std::string& name, socklen_t& size)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    return address;
}

} // namespace

SocketPair::SocketPair()
{
    const int listener = checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    checked(::bind(listener, generic, size), "bind");
    checked(::listen(listener, 1), "listen");
    checked(::getsockname(listener, generic, &size), "getsockname");

    const int client = checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    checked(::connect(client, generic, size), "connect");
    const int served = checked(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), "accept");
    ::close(listener);
    m_ends = {static_cast<std::uint64_t>(served), static_cast<std::uint64_t>(client)};
}

SocketPair::~SocketPair()
{
    closeServed();
    closeSocket(m_ends[1]);
}

void SocketPair::closeServed()
{
    if (m_ends[0] != ~std::uint64_t{0}) {
        closeSocket(std::exchange(m_ends[0], ~std::uint64_t{0}));
    }
}

void sendText(std::uint64_t socket, const std::string& text)
{
    checked(static_cast<int>(::send(toDescriptor(socket), text.data(), text.size(), MSG_NOSIGNAL)),
            "send");
}

std::string receiveText(std::uint64_t socket, std::size_t size)
{
    return receiveAll(toDescriptor(socket), size);
}

void closeSocket(std::uint64_t socket)
{
    ::close(toDescriptor(socket));
}

std::uint64_t openFile()
{
    return static_cast<std::uint64_t>(checked(::open("/dev/null", O_RDWR | O_CLOEXEC), "open"));
}

RawPipe::~RawPipe()
{
    close();
}

RawPipe::RawPipe(RawPipe&& other) noexcept
    : m_listener(std::exchange(other.m_listener, -1)),
      m_connection(std::exchange(other.m_connection, -1))
{
}

RawPipe& RawPipe::operator=(RawPipe&& other) noexcept
{
    std::swap(m_listener, other.m_listener);
    std::swap(m_connection, other.m_connection);
    return *this;
}

RawPipe RawPipe::listen(const std::string& name)
{
    RawPipe pipe;
    socklen_t size = 0;
    const sockaddr_un address = abstractAddress(name, size);
    pipe.m_listener = checked(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    checked(::bind(pipe.m_listener, reinterpret_cast<const sockaddr*>(&address), size), "bind");
    checked(::listen(pipe.m_listener, 0), "listen");
    return pipe;
}

RawPipe RawPipe::connect(const std::string& name)
{
    RawPipe pipe;
    socklen_t size = 0;
    const sockaddr_un address = abstractAddress(name, size);
    pipe.m_connection = checked(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    checked(::connect(pipe.m_connection, reinterpret_cast<const sockaddr*>(&address), size),
            "connect");
    return pipe;
}

void RawPipe::accept()
{
    m_connection = checked(::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC), "accept");
}

void RawPipe::send(const std::string& bytes, const std::vector<std::uint64_t>& sockets)
{
    iovec data{const_cast<char*>(bytes.data()), bytes.size()};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    std::vector<char> control(CMSG_SPACE(sockets.size() * sizeof(int)));
    if (!sockets.empty()) {
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr* part = CMSG_FIRSTHDR(&message);
        part->cmsg_level = SOL_SOCKET;
        part->cmsg_type = SCM_RIGHTS;
        part->cmsg_len = CMSG_LEN(sockets.size() * sizeof(int));
        for (std::size_t index = 0; index < sockets.size(); ++index) {
            const int descriptor = toDescriptor(sockets[index]);
            std::memcpy(CMSG_DATA(part) + index * sizeof(int), &descriptor, sizeof(int));
        }
    }
    checked(static_cast<int>(::sendmsg(m_connection, &message, MSG_NOSIGNAL)), "sendmsg");
}

std::string RawPipe::receive(std::size_t size)
{
    return receiveAll(m_connection, size);
}

void RawPipe::close()
{
    closeDescriptor(m_connection);
    closeDescriptor(m_listener);
}

std::string noSuchPipeText()
{
    return "111:Connection refused";
}

std::string busyPipeText()
{
    return "11:Resource temporarily unavailable";
}

std::string tooLongPipeNameText()
{
    return "36:File name too long";
}

std::string accessDeniedText()
{
    return "13:Permission denied";
}

int tooManyOpenCode()
{
    return 24;
}

std::string tooManyOpenText()
{
    return "24:Too many open files";
}

std::string pipeBytes(std::uint64_t value)
{
    std::string bytes(sizeof(value), '\0');
    std::memcpy(bytes.data(), &value, sizeof(value));
    return bytes;
}

std::string socketBytes(std::uint64_t, const std::string& text, std::uint32_t)
{
    return text;
}

bool standForSocket(const std::string& bytes, std::uint64_t socket)
{
    return bytes == pipeBytes(socket);
}

std::size_t longestPipeName()
{
    return 107;
}

bool isGoneClientPassedOver()
{
    return false;
}

} // namespace kyTest
