#include <tests/support/kyTestThreads.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <system_error>

#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <tests/support/platform/posix/kyTestForbid.h>

namespace kyTest {

namespace {

/// More than the address space has.
constexpr std::size_t s_impossibleStack = std::size_t{1} << 56;

std::size_t getStackSize()
{
    std::size_t size = 0;
    pthread_attr_t attributes;
    ::pthread_getattr_default_np(&attributes);
    ::pthread_attr_getstacksize(&attributes, &size);
    ::pthread_attr_destroy(&attributes);
    return size;
}

void setStackSize(std::size_t size)
{
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    ::pthread_attr_setstacksize(&attributes, size);
    const int error = ::pthread_setattr_default_np(&attributes);
    ::pthread_attr_destroy(&attributes);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), "pthread_setattr_default_np");
    }
}

struct sigaction s_previousAction;
std::atomic<bool> s_mustStop{false};
std::atomic<bool> s_isStopped{false};

void stopHere(int)
{
    s_isStopped = true;
    while (s_mustStop) {
        ::sched_yield();
    }
    s_isStopped = false;
}

void awaitStopped(bool isStopped)
{
    while (s_isStopped != isStopped) {
        ::sched_yield();
    }
}

} // namespace

std::vector<int> getProcessors()
{
    std::vector<int> processors;
    cpu_set_t set;
    if (::sched_getaffinity(0, sizeof set, &set) != 0) {
        throw std::system_error(errno, std::generic_category(), "sched_getaffinity");
    }
    for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
        if (CPU_ISSET(static_cast<std::size_t>(processor), &set)) {
            processors.push_back(processor);
        }
    }
    return processors;
}

void forbidPinning()
{
    // As it is where the processor belongs to others.
    forbid({SYS_sched_setaffinity}, EINVAL);
}

NoNewThreads::NoNewThreads() : m_previous(getStackSize())
{
    setStackSize(s_impossibleStack);
}

NoNewThreads::~NoNewThreads()
{
    setStackSize(m_previous);
}

StoppedThread::StoppedThread(std::uint64_t threadId) : m_threadId(threadId)
{
    struct sigaction action
    {
    };
    action.sa_handler = stopHere;
    ::sigaction(SIGUSR2, &action, &s_previousAction);
    s_mustStop = true;
    if (::syscall(SYS_tgkill, ::getpid(), m_threadId, SIGUSR2) != 0) {
        const int error = errno;
        ::sigaction(SIGUSR2, &s_previousAction, nullptr);
        throw std::system_error(error, std::generic_category(), "tgkill");
    }
    awaitStopped(true);
}

StoppedThread::~StoppedThread()
{
    s_mustStop = false;
    awaitStopped(false);
    ::sigaction(SIGUSR2, &s_previousAction, nullptr);
}

} // namespace kyTest
