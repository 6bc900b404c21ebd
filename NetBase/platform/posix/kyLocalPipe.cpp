#include <NetBase/platform/kyLocalPipe.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <optional>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <NetBase/platform/kyDeadline.h>
#include <Utils/platform/posix/kyDescriptor.h>

// The name is the address of an abstract Unix socket: it lives in no folder, and ends with the
// process that listens. A socket travels as ancillary data of its eight bytes.

namespace {

/// More descriptors than a message can be meant to carry: all of them are seen, and closed.
constexpr std::size_t s_mostDescriptors = 16;

struct Address
{
    sockaddr_un storage{};
    socklen_t size = 0;
};

/// A zero byte and the exact text, without one at its end.
std::optional<Address> addressOf(const std::string& name)
{
    Address address;
    address.storage.sun_family = AF_UNIX;
    if (name.size() >= sizeof(address.storage.sun_path)) {
        errno = ENAMETOOLONG;
        return std::nullopt;
    }
    std::memcpy(address.storage.sun_path + 1, name.data(), name.size());
    address.size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    return address;
}

const sockaddr* pointerTo(const Address& address)
{
    return reinterpret_cast<const sockaddr*>(&address.storage);
}

/// Whether the process at the other end belongs to this user or to the administrator.
bool isTrusted(const kyDescriptor& connection)
{
    ucred peer{};
    socklen_t size = sizeof(peer);
    return ::getsockopt(connection.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
           (peer.uid == ::geteuid() || peer.uid == 0);
}

bool isSocket(int descriptor)
{
    struct stat status
    {
    };
    if (::fstat(descriptor, &status) != 0) {
        return false;
    }
    if (!S_ISSOCK(status.st_mode)) {
        errno = ENOTSOCK;
        return false;
    }
    return true;
}

/// Waits until one of the descriptors has something to tell; the result is that of `poll`.
template <std::size_t count>
int waitFor(std::array<pollfd, count>& waits, const kyDeadline& deadline)
{
    for (;;) {
        const int result = ::poll(waits.data(), waits.size(), deadline.left());
        if (result >= 0 || errno != EINTR) {
            return result;
        }
    }
}

/// The eight bytes of a socket, which may arrive in pieces, and the descriptor that comes with one
/// of them.
class Arrival
{
public:
    kyLocalPipe::Status receivePiece(int connection)
    {
        iovec data{m_bytes.data() + m_count, m_bytes.size() - m_count};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(s_mostDescriptors * sizeof(int))> control;
        msghdr message{};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();

        const ssize_t size = ::recvmsg(connection, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
        if (size < 0) {
            return errno == ECONNRESET ? kyLocalPipe::Status::Closed : kyLocalPipe::Status::Failed;
        }
        takeDescriptors(message);
        if ((message.msg_flags & MSG_CTRUNC) != 0) {
            errno = EMFILE;
            return kyLocalPipe::Status::Failed;
        }
        m_count += static_cast<std::size_t>(size);
        return size == 0 ? kyLocalPipe::Status::Closed : kyLocalPipe::Status::Done;
    }

    bool isComplete() const { return m_count == m_bytes.size(); }

    /// Gives away what has arrived and begins anew; false if no socket came with the bytes.
    bool take(kyLocalPipe::Received& received)
    {
        Arrival arrived;
        std::swap(*this, arrived);
        if (!arrived.m_descriptor.isValid() || !isSocket(arrived.m_descriptor.get())) {
            return false;
        }
        std::memcpy(&received.value, arrived.m_bytes.data(), arrived.m_bytes.size());
        received.socket = static_cast<kySocketHandle>(arrived.m_descriptor.release());
        return true;
    }

private:
    /// Keeps the first descriptor of all and closes the others, so that none is left behind
    /// whatever the other side sends.
    void takeDescriptors(msghdr& message)
    {
        for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr;
             part = CMSG_NXTHDR(&message, part)) {
            if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) {
                continue;
            }
            const std::size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            for (std::size_t index = 0; index < count; ++index) {
                int value = -1;
                std::memcpy(&value, CMSG_DATA(part) + index * sizeof(int), sizeof(int));
                kyDescriptor descriptor(value);
                if (!m_descriptor.isValid()) {
                    m_descriptor = std::move(descriptor);
                }
            }
        }
    }

    std::array<char, sizeof(std::uint64_t)> m_bytes{};
    std::size_t m_count = 0;
    kyDescriptor m_descriptor;
};

class PosixPipe final : public kyLocalPipe
{
public:
    PosixPipe(kyDescriptor listener, kyDescriptor connection, kyDescriptor stopEvent)
        : m_listener(std::move(listener)),
          m_connection(std::move(connection)),
          m_stopEvent(std::move(stopEvent))
    {
    }

    Status waitForClient(int milliseconds) override
    {
        const kyDeadline deadline(milliseconds);
        while (!m_connection.isValid()) {
            std::array<pollfd, 1> waits{{{m_listener.get(), POLLIN, 0}}};
            const int ready = waitFor(waits, deadline);
            if (ready <= 0) {
                return ready == 0 ? Status::TimedOut : Status::Failed;
            }
            kyDescriptor connection(::accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (connection.isValid() && isTrusted(connection)) {
                m_connection = std::move(connection);
                m_listener.close();
            } else if (!connection.isValid() && errno != EAGAIN && errno != EINTR &&
                       errno != ECONNABORTED) {
                return Status::Failed;
            }
        }
        return Status::Done;
    }

    bool write(const void* data, std::size_t size) override
    {
        iovec bytes{const_cast<void*>(data), size};
        msghdr message{};
        message.msg_iov = &bytes;
        message.msg_iovlen = 1;
        return sendAll(message);
    }

    bool read(void* data, std::size_t size) override
    {
        ssize_t count = -1;
        do {
            // A reader that waits for all bytes is interrupted with fewer only by a signal, an
            // error or the end.
            count = ::recv(m_connection.get(), data, size, MSG_WAITALL);
            if (count > 0) {
                data = static_cast<char*>(data) + count;
                size -= static_cast<std::size_t>(count);
            }
        } while (size > 0 && (count > 0 || (count < 0 && errno == EINTR)));
        return size == 0;
    }

    bool duplicate(kySocketHandle socket, std::uint32_t) override
    {
        const bool isDescriptor = socket <= std::numeric_limits<int>::max();
        return isDescriptor && isSocket(static_cast<int>(socket));
    }

    bool passSocket(kySocketHandle socket) override
    {
        std::uint64_t value = socket;
        iovec bytes{&value, sizeof(value)};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
        msghdr message{};
        message.msg_iov = &bytes;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();

        cmsghdr* part = CMSG_FIRSTHDR(&message);
        part->cmsg_level = SOL_SOCKET;
        part->cmsg_type = SCM_RIGHTS;
        part->cmsg_len = CMSG_LEN(sizeof(int));
        const int descriptor = static_cast<int>(socket);
        std::memcpy(CMSG_DATA(part), &descriptor, sizeof(int));
        return sendAll(message);
    }

    Status receiveSocket(int milliseconds, Received& received) override
    {
        const kyDeadline deadline(milliseconds);
        while (!m_arrival.isComplete()) {
            std::array<pollfd, 2> waits{
                {{m_stopEvent.get(), POLLIN, 0}, {m_connection.get(), POLLIN, 0}}};
            const int ready = waitFor(waits, deadline);
            if (ready <= 0) {
                return ready == 0 ? Status::TimedOut : Status::Failed;
            }
            if (waits[0].revents != 0) {
                return Status::Stopped;
            }
            const Status piece = m_arrival.receivePiece(m_connection.get());
            if (piece == Status::Failed && (errno == EAGAIN || errno == EINTR)) {
                continue;
            }
            if (piece != Status::Done) {
                return breakOff(piece);
            }
        }
        return m_arrival.take(received) ? Status::Done : breakOff(Status::Failed);
    }

    bool acknowledge(const Received& received) override
    {
        if (write(&received.value, sizeof(received.value))) {
            return true;
        }
        kyDescriptor(static_cast<int>(received.socket)).close();
        return false;
    }

    void stop() override { ::eventfd_write(m_stopEvent.get(), 1); }

private:
    /// Sends a small message; ancillary data goes with the first byte, and only once.
    bool sendAll(msghdr& message)
    {
        for (;;) {
            const ssize_t sent = ::sendmsg(m_connection.get(), &message, MSG_NOSIGNAL);
            if (sent < 0 && errno == EINTR) {
                continue;
            }
            if (sent < 0) {
                return false;
            }
            const auto count = static_cast<std::size_t>(sent);
            if (count == message.msg_iov->iov_len) {
                return true;
            }
            message.msg_iov->iov_base = static_cast<char*>(message.msg_iov->iov_base) + count;
            message.msg_iov->iov_len -= count;
            message.msg_control = nullptr;
            message.msg_controllen = 0;
        }
    }

    /// Nothing of a broken arrival stays open, and the other side, which waits for an
    /// acknowledgement, learns that none will come.
    Status breakOff(Status status)
    {
        const int error = errno;
        m_arrival = Arrival();
        ::shutdown(m_connection.get(), SHUT_RDWR);
        errno = error;
        return status;
    }

    kyDescriptor m_listener;
    kyDescriptor m_connection;
    kyDescriptor m_stopEvent;
    Arrival m_arrival;
};

} // namespace

std::unique_ptr<kyLocalPipe> kyLocalPipe::listen(const std::string& name)
{
    const std::optional<Address> address = addressOf(name);
    if (!address) {
        return nullptr;
    }
    // A backlog of 0 holds one client; others find the pipe busy until that one was taken.
    kyDescriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener.isValid() || ::bind(listener.get(), pointerTo(*address), address->size) != 0 ||
        ::listen(listener.get(), 0) != 0) {
        return nullptr;
    }
    return std::make_unique<PosixPipe>(std::move(listener), kyDescriptor(), kyDescriptor());
}

kyLocalPipe::Status kyLocalPipe::connect(const std::string& name,
                                         std::unique_ptr<kyLocalPipe>& pipe)
{
    const std::optional<Address> address = addressOf(name);
    if (!address) {
        return Status::Failed;
    }
    kyDescriptor stopEvent(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    // A blocking connect would wait for room in the backlog.
    kyDescriptor connection(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!stopEvent.isValid() || !connection.isValid()) {
        return Status::Failed;
    }
    if (::connect(connection.get(), pointerTo(*address), address->size) != 0) {
        return errno == EAGAIN ? Status::Busy : Status::Failed;
    }
    if (!isTrusted(connection)) {
        errno = EACCES;
        return Status::Failed;
    }
    ::fcntl(connection.get(), F_SETFL, 0);
    pipe = std::make_unique<PosixPipe>(kyDescriptor(), std::move(connection), std::move(stopEvent));
    return Status::Done;
}
