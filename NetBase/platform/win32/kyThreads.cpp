#include <NetBase/platform/kyThreads.h>

#include <algorithm>
#include <thread>

#include <windows.h>

unsigned kyThreads::countHardwareThreads()
{
    return std::max(1U, std::thread::hardware_concurrency());
}

bool kyThreads::pinToFirstProcessor()
{
    return ::SetThreadAffinityMask(::GetCurrentThread(), 1) != 0;
}

void kyThreads::resetProcessors()
{
    // What a thread is pinned to leaves the processors of the process as they are.
    DWORD_PTR ofProcess = 0;
    DWORD_PTR ofSystem = 0;
    if (::GetProcessAffinityMask(::GetCurrentProcess(), &ofProcess, &ofSystem) != FALSE) {
        ::SetThreadAffinityMask(::GetCurrentThread(), ofProcess);
    }
}
