#include <tests/support/kyTestSocket.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <tests/support/kyTestWait.h>
#include <tests/support/platform/kyTestSocketCalls.h>
#include <tests/support/platform/posix/kyTestForbid.h>

namespace kyTest {

namespace {

/// On a thread of its own, since what is forbidden stays so.
void runWithout(const SystemCall& call, int code, const std::function<void()>& action)
{
    runApart([&] {
        forbid(call, code);
        action();
    });
}

std::atomic<int> s_interruptions{0};

} // namespace

void failCall(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

void startSockets() {}

kySocketHandle openSocket(int family)
{
    return static_cast<kySocketHandle>(
        checked(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
}

kySocketHandle openBound()
{
    const kySocketHandle handle = openSocket(AF_INET);
    const sockaddr_in address = makeLoopback(0);
    checked(::bind(toSystem(handle), pointerTo(address), sizeof(address)), "bind");
    return handle;
}

void closeHandle(kySocketHandle handle)
{
    ::close(toSystem(handle));
}

void setWaits(kySocketHandle handle, std::chrono::milliseconds limit)
{
    const timeval time{limit.count() / 1000, limit.count() % 1000 * 1000};
    setOption(handle, SOL_SOCKET, SO_RCVTIMEO, time, "SO_RCVTIMEO");
    setOption(handle, SOL_SOCKET, SO_SNDTIMEO, time, "SO_SNDTIMEO");
}

kySocketHandle acceptNext(kySocketHandle listening)
{
    setWaits(listening, s_patience);
    return static_cast<kySocketHandle>(
        checked(::accept4(toSystem(listening), nullptr, nullptr, SOCK_CLOEXEC), "accept"));
}

void beginToConnect(kySocketHandle handle, const sockaddr_in& address)
{
    checked(::fcntl(toSystem(handle), F_SETFL, O_NONBLOCK), "O_NONBLOCK");
    if (::connect(toSystem(handle), pointerTo(address), sizeof(address)) != 0 &&
        errno != EINPROGRESS) {
        failCall("connect");
    }
}

long long sendSome(kySocketHandle handle, const char* data, std::size_t size)
{
    return ::send(toSystem(handle), data, size, MSG_NOSIGNAL);
}

long long receiveSome(kySocketHandle handle, char* data, std::size_t size)
{
    return ::recv(toSystem(handle), data, size, 0);
}

kySocketHandle makeUnconnected()
{
    return openSocket(AF_INET);
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
    options.isBlocking = (checked(::fcntl(toSystem(handle), F_GETFL), "F_GETFL") & O_NONBLOCK) == 0;
    options.isInherited =
        (checked(::fcntl(toSystem(handle), F_GETFD), "F_GETFD") & FD_CLOEXEC) == 0;
    options.receiveTimeoutMilliseconds =
        std::int64_t{timeout.tv_sec} * 1000 + timeout.tv_usec / 1000;
    options.sendBuffer = getNumber(handle, SOL_SOCKET, SO_SNDBUF);
    return options;
}

bool isOpen(kySocketHandle handle)
{
    return ::fcntl(toSystem(handle), F_GETFD) >= 0;
}

int getRefusedCode()
{
    return ECONNREFUSED;
}

int getTimedOutCode()
{
    return ETIMEDOUT;
}

int getResetCode()
{
    return ECONNRESET;
}

int getAbortedCode()
{
    return ECONNABORTED;
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

std::string makeForeignRecord()
{
    sockaddr record{};
    record.sa_family = AF_UNIX;
    return toBytes(record);
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
