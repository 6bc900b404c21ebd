// The limit that everything else is compared with: blocking TCP sockets and nothing above them.
//
// A message is a header of 20 bytes and its data. The variants:
//     (none)      one call sends a message, one call (at best) receives it
//     "gathered"  up to 64 KiB of messages a call, on both sides
// Over several connections the receiver asks which are ready, and reads what is there.

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <benchmarks/core/Channel.h>
#include <benchmarks/core/Meeting.h>
#include <benchmarks/core/Terms.h>

namespace bench {

namespace {

constexpr std::uint64_t s_header = 20;
constexpr std::uint64_t s_batch = 65536;

void require(bool isDone, const char* what)
{
    if (!isDone) {
        throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
    }
}

class Socket
{
public:
    explicit Socket(int descriptor) : m_descriptor(descriptor)
    {
        require(descriptor >= 0, "socket");
    }
    ~Socket() { ::close(m_descriptor); }
    Socket(Socket&& other) noexcept : m_descriptor(other.m_descriptor) { other.m_descriptor = -1; }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int get() const { return m_descriptor; }

private:
    int m_descriptor;
};

sockaddr_in loopback(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

Socket withoutDelay(Socket socket)
{
    const int on = 1;
    ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return socket;
}

Socket connectTo(int port)
{
    Socket socket(::socket(AF_INET, SOCK_STREAM, 0));
    const sockaddr_in address = loopback(port);
    require(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
                0,
            "connect");
    return withoutDelay(std::move(socket));
}

std::vector<Socket> acceptAll(int count, Meeting& meeting)
{
    const Socket listening(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    require(::bind(listening.get(), generic, size) == 0, "bind");
    require(::listen(listening.get(), count) == 0, "listen");
    require(::getsockname(listening.get(), generic, &size) == 0, "getsockname");
    meeting.announce(std::to_string(ntohs(address.sin_port)));
    std::vector<Socket> sockets;
    for (int i = 0; i < count; ++i) {
        sockets.push_back(withoutDelay(Socket(::accept(listening.get(), nullptr, nullptr))));
    }
    return sockets;
}

/// What has arrived on one connection and was not taken yet.
struct Inbox
{
    std::vector<char> bytes;
    std::uint64_t begin = 0;
    std::uint64_t end = 0;

    std::uint64_t getSize() const { return end - begin; }
};

class PlainSockets : public Channel
{
public:
    PlainSockets(const Terms& terms, std::vector<Socket> sockets, bool isEachForAll)
        : m_size(terms.size),
          m_frame(terms.size + s_header),
          m_isEachForAll(isEachForAll),
          m_busy(isEachForAll ? sockets.size() : static_cast<std::size_t>(terms.busy)),
          m_sockets(std::move(sockets)),
          m_inboxes(m_sockets.size())
    {
        const bool isGathered = terms.variant == "gathered";
        m_batch = isGathered ? std::max(m_frame, s_batch / m_frame * m_frame) : m_frame;
        m_outbox.resize(m_batch);
        const bool readsWhatIsThere = isGathered || m_sockets.size() > 1;
        for (Inbox& inbox : m_inboxes) {
            inbox.bytes.resize(readsWhatIsThere ? std::max(2 * m_frame, s_batch) : m_frame);
        }
        if (m_sockets.size() > 1 && terms.rank > 0) {
            watchAll();
        }
    }

    char* prepare() override
    {
        char* header = m_outbox.data() + m_filled;
        std::memset(header, 0, s_header);
        std::memcpy(header, &m_size, sizeof m_size);
        return header + s_header;
    }

    void send() override
    {
        m_filled += m_frame;
        if (m_filled == m_batch) {
            flush();
        }
    }

    void flush() override
    {
        if (m_isEachForAll) {
            for (const Socket& socket : m_sockets) {
                sendOutbox(socket);
            }
        } else if (m_filled > 0) {
            sendOutbox(m_sockets[m_next]);
            m_next = (m_next + 1) % m_busy;
        }
        m_filled = 0;
    }

    Message receive() override
    {
        for (;;) {
            Inbox& inbox = m_inboxes[m_current];
            if (inbox.getSize() >= m_frame) {
                return take(inbox);
            }
            if (m_poll) {
                selectReady();
            }
            fill(m_sockets[m_current], m_inboxes[m_current]);
        }
    }

private:
    void sendOutbox(const Socket& socket)
    {
        std::uint64_t sent = 0;
        while (sent < m_filled) {
            const auto count = ::send(socket.get(), m_outbox.data() + sent, m_filled - sent, 0);
            require(count > 0, "send");
            sent += static_cast<std::uint64_t>(count);
        }
    }

    Message take(Inbox& inbox)
    {
        std::uint64_t size = 0;
        const char* header = inbox.bytes.data() + inbox.begin;
        std::memcpy(&size, header, sizeof size);
        if (size != m_size) {
            throw std::runtime_error("received a header that is none");
        }
        inbox.begin += m_frame;
        return {header + s_header, size};
    }

    /// One call. Moves the rest of the bytes to the front if a message has no room behind them.
    void fill(const Socket& socket, Inbox& inbox)
    {
        if (inbox.bytes.size() - inbox.begin < m_frame || inbox.begin == inbox.end) {
            std::memmove(inbox.bytes.data(), inbox.bytes.data() + inbox.begin, inbox.getSize());
            inbox.end -= inbox.begin;
            inbox.begin = 0;
        }
        const auto count =
            ::recv(socket.get(), inbox.bytes.data() + inbox.end, inbox.bytes.size() - inbox.end, 0);
        require(count > 0, "recv");
        inbox.end += static_cast<std::uint64_t>(count);
    }

    void watchAll()
    {
        m_poll = std::make_unique<Socket>(::epoll_create1(0));
        for (std::size_t i = 0; i < m_sockets.size(); ++i) {
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.u64 = i;
            require(::epoll_ctl(m_poll->get(), EPOLL_CTL_ADD, m_sockets[i].get(), &event) == 0,
                    "epoll_ctl");
        }
        m_ready.resize(m_sockets.size());
    }

    void selectReady()
    {
        if (m_readyCount == 0) {
            const int count =
                ::epoll_wait(m_poll->get(), m_ready.data(), static_cast<int>(m_ready.size()), -1);
            require(count > 0, "epoll_wait");
            m_readyCount = static_cast<std::size_t>(count);
        }
        m_current = m_ready[--m_readyCount].data.u64;
    }

    const std::uint64_t m_size;
    const std::uint64_t m_frame;
    const bool m_isEachForAll;
    const std::size_t m_busy;
    std::vector<Socket> m_sockets;
    std::vector<Inbox> m_inboxes;
    std::uint64_t m_batch = 0;
    std::vector<char> m_outbox;
    std::uint64_t m_filled = 0;
    std::size_t m_next = 0;
    std::unique_ptr<Socket> m_poll;
    std::vector<epoll_event> m_ready;
    std::size_t m_readyCount = 0;
    std::size_t m_current = 0;
};

} // namespace

std::unique_ptr<Channel> openChannel(const Terms& terms, Meeting& meeting)
{
    std::vector<Socket> sockets;
    if (terms.rank > 0) {
        sockets = acceptAll(terms.connections, meeting);
    } else {
        for (int rank = 1; rank <= terms.receivers; ++rank) {
            const int port = std::stoi(meeting.find(rank));
            for (int i = 0; i < terms.connections; ++i) {
                sockets.push_back(connectTo(port));
            }
        }
    }
    return std::make_unique<PlainSockets>(terms, std::move(sockets),
                                          terms.rank == 0 && terms.receivers > 1);
}

} // namespace bench
