#include <tests/support/kyTestProcesses.h>

#include <cstdint>
#include <map>

#include <windows.h>

#include <tlhelp32.h>

#include <Utils/platform/win32/kyHandle.h>

namespace kyTest {

namespace {

struct Process
{
    long long parent = 0;
    std::wstring program;
};

std::map<long long, Process> lookAtAll()
{
    std::map<long long, Process> processes;
    const kyHandle all(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL isThere = ::Process32FirstW(all.get(), &entry); isThere;
         isThere = ::Process32NextW(all.get(), &entry)) {
        processes[entry.th32ProcessID] = {entry.th32ParentProcessID, entry.szExeFile};
    }
    return processes;
}

kyHandle open(long long processId, DWORD rights)
{
    return kyHandle(::OpenProcess(rights, FALSE, static_cast<DWORD>(processId)));
}

double toSeconds(const FILETIME& time)
{
    const std::uint64_t ticks =
        static_cast<std::uint64_t>(time.dwHighDateTime) << 32 | time.dwLowDateTime;
    return static_cast<double>(ticks) * 1e-7;
}

} // namespace

std::vector<long long> findDescendants(const std::string& program)
{
    const long long own = ::GetCurrentProcessId();
    const std::wstring file = std::wstring(program.begin(), program.end()) + L".exe";
    const std::map<long long, Process> processes = lookAtAll();
    std::vector<long long> found;
    for (const auto& [id, process] : processes) {
        long long ancestor = process.parent;
        // The number of a parent that has ended may be another's by now: no way is longer than the
        // list.
        for (std::size_t step = 0; ancestor != own && step < processes.size(); ++step) {
            const auto parent = processes.find(ancestor);
            ancestor = parent == processes.end() ? 0 : parent->second.parent;
        }
        if (ancestor == own && id != own && process.program == file) {
            found.push_back(id);
        }
    }
    return found;
}

bool isAlive(long long processId)
{
    const kyHandle process = open(processId, SYNCHRONIZE);
    return process.isValid() && ::WaitForSingleObject(process.get(), 0) == WAIT_TIMEOUT;
}

double getProcessorSeconds(long long processId)
{
    const kyHandle process = open(processId, PROCESS_QUERY_LIMITED_INFORMATION);
    FILETIME begin{};
    FILETIME end{};
    FILETIME system{};
    FILETIME user{};
    if (!isAlive(processId) || !::GetProcessTimes(process.get(), &begin, &end, &system, &user)) {
        return 0.0;
    }
    return toSeconds(system) + toSeconds(user);
}

void killProcess(long long processId)
{
    ::TerminateProcess(open(processId, PROCESS_TERMINATE).get(), 1);
}

} // namespace kyTest
