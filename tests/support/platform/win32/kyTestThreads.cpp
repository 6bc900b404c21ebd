#include <tests/support/kyTestThreads.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <system_error>

#include <windows.h>

#include <Utils/platform/win32/kyHandle.h>
#include <tests/support/platform/win32/kyTestForbid.h>

namespace kyTest {

namespace {

thread_local bool s_isPinningForbidden = false;
std::atomic<std::size_t> s_noNewThreads{0};

DWORD_PTR WINAPI setAffinity(HANDLE thread, DWORD_PTR mask)
{
    if (s_isPinningForbidden) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    return callOriginal<DWORD_PTR>("kernel32.dll", "SetThreadAffinityMask", thread, mask);
}

/// The thread library's only way to a thread.
using Begin = unsigned(__stdcall*)(void*);
std::uintptr_t beginThread(void* security, unsigned stack, Begin begin, void* argument,
                           unsigned flags, unsigned* id)
{
    if (s_noNewThreads != 0) {
        errno = EAGAIN;
        return 0;
    }
    return callOriginal<std::uintptr_t>("msvcrt.dll", "_beginthreadex", security, stack, begin,
                                        argument, flags, id);
}

/// A thread's processors are only told when others are set.
DWORD_PTR getAffinity()
{
    DWORD_PTR ofProcess = 0;
    DWORD_PTR ofMachine = 0;
    ::GetProcessAffinityMask(::GetCurrentProcess(), &ofProcess, &ofMachine);
    const DWORD_PTR ofThread = callOriginal<DWORD_PTR>("kernel32.dll", "SetThreadAffinityMask",
                                                       ::GetCurrentThread(), ofProcess);
    callOriginal<DWORD_PTR>("kernel32.dll", "SetThreadAffinityMask", ::GetCurrentThread(),
                            ofThread);
    return ofThread;
}

kyHandle openThread(std::uint64_t threadId)
{
    return kyHandle(::OpenThread(THREAD_SUSPEND_RESUME | THREAD_GET_CONTEXT, FALSE,
                                 static_cast<DWORD>(threadId)));
}

} // namespace

std::vector<int> getProcessors()
{
    const DWORD_PTR mask = getAffinity();
    std::vector<int> processors;
    for (int processor = 0; processor < 64; ++processor) {
        if ((mask >> processor & 1) != 0) {
            processors.push_back(processor);
        }
    }
    return processors;
}

void forbidPinning()
{
    s_isPinningForbidden = true;
    detour("kernel32.dll", "SetThreadAffinityMask", setAffinity);
}

NoNewThreads::NoNewThreads()
{
    detour("msvcrt.dll", "_beginthreadex", beginThread);
    m_previous = s_noNewThreads++;
}

NoNewThreads::~NoNewThreads()
{
    s_noNewThreads = m_previous;
}

StoppedThread::StoppedThread(std::uint64_t threadId) : m_threadId(threadId)
{
    const kyHandle thread = openThread(m_threadId);
    if (::SuspendThread(thread.get()) == static_cast<DWORD>(-1)) {
        throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(),
                                "SuspendThread");
    }
    CONTEXT context{}; // It stands still at the latest when this is known.
    context.ContextFlags = CONTEXT_CONTROL;
    ::GetThreadContext(thread.get(), &context);
}

StoppedThread::~StoppedThread()
{
    ::ResumeThread(openThread(m_threadId).get());
}

} // namespace kyTest
