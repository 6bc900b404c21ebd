#include <NetBase/platform/kyMemory.h>

#include <windows.h>

#include <psapi.h>

std::uint64_t kyMemory::getUsed()
{
    PROCESS_MEMORY_COUNTERS counters{};
    counters.cb = sizeof(counters);
    const BOOL isKnown = ::K32GetProcessMemoryInfo(::GetCurrentProcess(), &counters, counters.cb);
    return isKnown != FALSE ? counters.WorkingSetSize : 0;
}

std::uint64_t kyMemory::getAvailable()
{
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof(status);
    return ::GlobalMemoryStatusEx(&status) != FALSE ? status.ullAvailPhys : 0;
}
