#include <tests/support/kyTestChildSystem.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

namespace kyTest {

namespace {

constexpr uid_t s_nobody = 65534;

} // namespace

std::string childProgram(const std::string& name)
{
    return KY_TEST_BINARY_DIR "/tests/children/" + name;
}

void writeBytesAsTheyAre()
{
    // As every process does.
}

void ignoreTermination()
{
    ::signal(SIGTERM, SIG_IGN);
    ::signal(SIGINT, SIG_IGN);
    ::signal(SIGHUP, SIG_IGN);
}

std::string describeIgnoredSignals()
{
    // Two signals are the C library's own business between its threads.
    constexpr std::uint64_t reserved = 3ull << 31;
    std::ifstream status("/proc/self/status");
    std::string text;
    for (std::string line; std::getline(status, line);) {
        const bool isMask = line.rfind("SigIgn:", 0) == 0 || line.rfind("SigBlk:", 0) == 0;
        if (isMask && (std::stoull(line.substr(7), nullptr, 16) & ~reserved) != 0) {
            text += line + ';';
        }
    }
    return text;
}

void leaveOrphanThatWrites()
{
    int begun[2];
    if (::pipe(begun) != 0) {
        return;
    }
    if (::fork() != 0) {
        char byte = 0;
        static_cast<void>(::read(begun[0], &byte, 1) == 1);
        return;
    }
    ::signal(SIGPIPE, SIG_DFL);
    while (::write(STDOUT_FILENO, ".", 1) == 1) {
        static_cast<void>(::write(begun[1], ".", 1) == 1);
        ::usleep(10'000);
    }
    ::_exit(0);
}

bool becomeNobody()
{
    return ::setgroups(0, nullptr) == 0 && ::setuid(s_nobody) == 0;
}

bool isAdministrator()
{
    return ::geteuid() == 0;
}

InheritableDescriptor::InheritableDescriptor()
{
    int ends[2];
    if (::pipe(ends) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    m_watch = ends[0];
    m_value = ends[1];
}

InheritableDescriptor::~InheritableDescriptor()
{
    closeLast();
    ::close(m_watch);
}

bool InheritableDescriptor::closeLast()
{
    ::close(std::exchange(m_value, -1));
    pollfd watched{m_watch, 0, 0};
    return ::poll(&watched, 1, 0) == 1 && (watched.revents & POLLHUP) != 0;
}

DeafToSignals::DeafToSignals()
{
    ::signal(SIGUSR1, SIG_IGN);
    ::signal(SIGPIPE, SIG_IGN);
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGTERM);
    ::sigaddset(&signals, SIGUSR2);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

DeafToSignals::~DeafToSignals()
{
    ::signal(SIGUSR1, SIG_DFL);
    ::signal(SIGPIPE, SIG_DFL);
    sigset_t signals;
    ::sigemptyset(&signals);
    ::pthread_sigmask(SIG_SETMASK, &signals, nullptr);
}

Interruptions::Interruptions()
{
    // No restart: a call that is interrupted has to be repeated by its caller.
    struct sigaction action
    {
    };
    action.sa_handler = [](int) {};
    ::sigaction(SIGUSR1, &action, nullptr);
    m_thread = std::thread([this, target = ::pthread_self()] {
        while (!m_isOver) {
            ::pthread_kill(target, SIGUSR1);
            ::usleep(200);
        }
    });
}

Interruptions::~Interruptions()
{
    m_isOver = true;
    m_thread.join();
    ::signal(SIGUSR1, SIG_DFL);
}

} // namespace kyTest
