#include <tests/support/kyTestSystem.h>

#include <array>
#include <atomic>
#include <limits>
#include <set>
#include <sstream>
#include <vector>

#include <winsock2.h>

#include <windows.h>
#include <winternl.h>

#include <tlhelp32.h>

#include <Utils/platform/win32/kyHandle.h>
#include <tests/support/platform/win32/kyTestForbid.h>

namespace kyTest {

namespace {

/// The system gives away the lowest free value, so that behind a gap of this many values there are
/// none. Its list of all handles is not asked for: Wine's server crashes when it makes one while
/// another process begins or ends.
constexpr ULONG_PTR s_longestGap = 512;

std::vector<ULONG_PTR> getHandles()
{
    constexpr ULONG_PTR step = 4;
    std::vector<ULONG_PTR> handles;
    ULONG_PTR gap = 0;
    for (ULONG_PTR value = step; gap < s_longestGap; value += step) {
        DWORD flags = 0;
        if (::GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags)) {
            handles.push_back(value);
            gap = 0;
        } else {
            ++gap;
        }
    }
    return handles;
}

/// The kind of thing that a handle stands for, as the system calls it.
std::string getKind(ULONG_PTR value)
{
    constexpr int objectTypeInformation = 2;
    std::vector<std::uint64_t> memory(128);
    ULONG size = 0;
    if (callOriginal<LONG>("ntdll.dll", "NtQueryObject", value, objectTypeInformation,
                           memory.data(), static_cast<ULONG>(memory.size() * sizeof(memory[0])),
                           &size) != 0) {
        return {};
    }
    const auto* name = reinterpret_cast<const UNICODE_STRING*>(memory.data());
    const std::wstring kind(name->Buffer, name->Length / sizeof(wchar_t));
    return {kind.begin(), kind.end()};
}

/// Calls visit(value, kind) for every handle of this process but those that the thread library
/// keeps for its own use, also of threads that have ended, and those that the system makes for a
/// process by itself: folders of names, and the desktop.
template <class Visit> void forEachHandle(Visit visit)
{
    static const std::set<std::string> s_kept{"",       "Desktop",      "Directory", "Event",
                                              "Key",    "KeyedEvent",   "Mutant",    "Semaphore",
                                              "Thread", "WindowStation"};
    for (const ULONG_PTR value : getHandles()) {
        const std::string kind = getKind(value);
        if (s_kept.count(kind) == 0) {
            visit(value, kind);
        }
    }
}

/// Calls visit(entry) for each entry of a list that the system makes of all processes.
template <class Entry, class First, class Next, class Visit>
void walk(DWORD list, First first, Next next, Visit visit)
{
    const kyHandle all(::CreateToolhelp32Snapshot(list, 0));
    Entry entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL isThere = first(all.get(), &entry); isThere; isThere = next(all.get(), &entry)) {
        visit(entry);
    }
}

/// Whether a thread begins in the system's own library: one of a pool that the system keeps for
/// calls that it makes itself, as long as it likes to.
bool isThreadOfTheSystem(DWORD threadId)
{
    constexpr int querySetWin32StartAddress = 9;
    const kyHandle thread(::OpenThread(THREAD_QUERY_INFORMATION, FALSE, threadId));
    void* begin = nullptr;
    HMODULE module = nullptr;
    constexpr DWORD flags =
        GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
    return thread.isValid() &&
           callOriginal<LONG>("ntdll.dll", "NtQueryInformationThread", thread.get(),
                              querySetWin32StartAddress, &begin, static_cast<ULONG>(sizeof(begin)),
                              static_cast<ULONG*>(nullptr)) == 0 &&
           ::GetModuleHandleExW(flags, static_cast<LPCWSTR>(begin), &module) &&
           module == ::GetModuleHandleW(L"ntdll.dll");
}

/// Whether a process runs a program of the system: one that the system starts by itself, in the
/// name of a process that needs it, and keeps.
bool isProgramOfTheSystem(DWORD processId)
{
    const kyHandle process(::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, processId));
    std::array<wchar_t, MAX_PATH> folder{};
    const UINT length = ::GetSystemWindowsDirectoryW(folder.data(), MAX_PATH);
    std::array<wchar_t, 1024> path{};
    DWORD size = static_cast<DWORD>(path.size());
    return ::QueryFullProcessImageNameW(process.get(), 0, path.data(), &size) &&
           ::_wcsnicmp(path.data(), folder.data(), length) == 0;
}

constexpr std::size_t s_unlimited = std::numeric_limits<std::size_t>::max();
std::atomic<std::size_t> s_limit{s_unlimited};

/// How many more handles may be made, whatever is closed meanwhile.
std::atomic<std::ptrdiff_t> s_room{0};

bool isFull(int code = ERROR_TOO_MANY_OPEN_FILES)
{
    if (s_limit == s_unlimited || s_room-- > 0) {
        return false;
    }
    ::SetLastError(static_cast<DWORD>(code));
    return true;
}

bool isFullForSockets()
{
    return isFull(WSAEMFILE);
}

SOCKET WSAAPI makeSocket(int family, int type, int protocol)
{
    return isFullForSockets()
               ? INVALID_SOCKET
               : callOriginal<SOCKET>("ws2_32.dll", "socket", family, type, protocol);
}

SOCKET WSAAPI makeSocketA(int family, int type, int protocol, LPWSAPROTOCOL_INFOA information,
                          GROUP group, DWORD flags)
{
    return isFullForSockets() ? INVALID_SOCKET
                              : callOriginal<SOCKET>("ws2_32.dll", "WSASocketA", family, type,
                                                     protocol, information, group, flags);
}

SOCKET WSAAPI makeSocketW(int family, int type, int protocol, LPWSAPROTOCOL_INFOW information,
                          GROUP group, DWORD flags)
{
    return isFullForSockets() ? INVALID_SOCKET
                              : callOriginal<SOCKET>("ws2_32.dll", "WSASocketW", family, type,
                                                     protocol, information, group, flags);
}

SOCKET WSAAPI acceptClient(SOCKET listening, sockaddr* address, int* size)
{
    return isFullForSockets()
               ? INVALID_SOCKET
               : callOriginal<SOCKET>("ws2_32.dll", "accept", listening, address, size);
}

HANDLE WSAAPI makeSocketEvent()
{
    return isFullForSockets() ? nullptr : callOriginal<HANDLE>("ws2_32.dll", "WSACreateEvent");
}

HANDLE WINAPI makeEventA(LPSECURITY_ATTRIBUTES security, BOOL isManual, BOOL isSet, LPCSTR name)
{
    return isFullForSockets() ? nullptr
                              : callOriginal<HANDLE>("kernel32.dll", "CreateEventA", security,
                                                     isManual, isSet, name);
}

HANDLE WINAPI makeEventW(LPSECURITY_ATTRIBUTES security, BOOL isManual, BOOL isSet, LPCWSTR name)
{
    return isFullForSockets() ? nullptr
                              : callOriginal<HANDLE>("kernel32.dll", "CreateEventW", security,
                                                     isManual, isSet, name);
}

HANDLE WINAPI openFileA(LPCSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                        DWORD disposition, DWORD flags, HANDLE model)
{
    return isFull() ? INVALID_HANDLE_VALUE
                    : callOriginal<HANDLE>("kernel32.dll", "CreateFileA", path, access, share,
                                           security, disposition, flags, model);
}

HANDLE WINAPI openFileW(LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                        DWORD disposition, DWORD flags, HANDLE model)
{
    return isFull() ? INVALID_HANDLE_VALUE
                    : callOriginal<HANDLE>("kernel32.dll", "CreateFileW", path, access, share,
                                           security, disposition, flags, model);
}

HANDLE WINAPI makePipeA(LPCSTR name, DWORD access, DWORD mode, DWORD instances, DWORD output,
                        DWORD input, DWORD timeout, LPSECURITY_ATTRIBUTES security)
{
    return isFull() ? INVALID_HANDLE_VALUE
                    : callOriginal<HANDLE>("kernel32.dll", "CreateNamedPipeA", name, access, mode,
                                           instances, output, input, timeout, security);
}

HANDLE WINAPI makePipeW(LPCWSTR name, DWORD access, DWORD mode, DWORD instances, DWORD output,
                        DWORD input, DWORD timeout, LPSECURITY_ATTRIBUTES security)
{
    return isFull() ? INVALID_HANDLE_VALUE
                    : callOriginal<HANDLE>("kernel32.dll", "CreateNamedPipeW", name, access, mode,
                                           instances, output, input, timeout, security);
}

BOOL WINAPI startProcess(LPCWSTR program, LPWSTR line, LPSECURITY_ATTRIBUTES ofProcess,
                         LPSECURITY_ATTRIBUTES ofThread, BOOL isInheriting, DWORD flags,
                         LPVOID environment, LPCWSTR folder, LPSTARTUPINFOW startup,
                         LPPROCESS_INFORMATION started)
{
    return !isFull() &&
           callOriginal<BOOL>("kernel32.dll", "CreateProcessW", program, line, ofProcess, ofThread,
                              isInheriting, flags, environment, folder, startup, started);
}

int WSAAPI pollSockets(WSAPOLLFD* entries, ULONG count, int milliseconds)
{
    if (count > s_limit) {
        ::WSASetLastError(WSAEINVAL);
        return SOCKET_ERROR;
    }
    return callOriginal<int>("ws2_32.dll", "WSAPoll", entries, count, milliseconds);
}

/// The system has no such limit: what makes handles is refused here instead.
void limitHandles()
{
    detour("ws2_32.dll", "socket", makeSocket);
    detour("ws2_32.dll", "WSASocketA", makeSocketA);
    detour("ws2_32.dll", "WSASocketW", makeSocketW);
    detour("ws2_32.dll", "accept", acceptClient);
    detour("ws2_32.dll", "WSACreateEvent", makeSocketEvent);
    detour("ws2_32.dll", "WSAPoll", pollSockets);
    detour("kernel32.dll", "CreateEventA", makeEventA);
    detour("kernel32.dll", "CreateEventW", makeEventW);
    detour("kernel32.dll", "CreateFileA", openFileA);
    detour("kernel32.dll", "CreateFileW", openFileW);
    detour("kernel32.dll", "CreateNamedPipeA", makePipeA);
    detour("kernel32.dll", "CreateNamedPipeW", makePipeW);
    detour("kernel32.dll", "CreateProcessW", startProcess);
}

} // namespace

std::string describeDescriptors()
{
    std::ostringstream text;
    forEachHandle(
        [&](ULONG_PTR value, const std::string& kind) { text << value << " -> " << kind << '\n'; });
    return text.str();
}

std::size_t countDescriptors()
{
    std::size_t count = 0;
    forEachHandle([&](ULONG_PTR, const std::string&) { ++count; });
    return count;
}

std::size_t nextDescriptor()
{
    return countDescriptors();
}

std::size_t countThreads()
{
    std::size_t count = 0;
    walk<THREADENTRY32>(
        TH32CS_SNAPTHREAD, ::Thread32First, ::Thread32Next, [&](const THREADENTRY32& thread) {
            const bool isOwn = thread.th32OwnerProcessID == ::GetCurrentProcessId() &&
                               !isThreadOfTheSystem(thread.th32ThreadID);
            count += isOwn ? 1 : 0;
        });
    return count;
}

std::size_t countChildren()
{
    std::size_t count = 0;
    walk<PROCESSENTRY32W>(TH32CS_SNAPPROCESS, ::Process32FirstW, ::Process32NextW,
                          [&](const PROCESSENTRY32W& process) {
                              const bool isOwn =
                                  process.th32ParentProcessID == ::GetCurrentProcessId() &&
                                  !isProgramOfTheSystem(process.th32ProcessID);
                              count += isOwn ? 1 : 0;
                          });
    return count;
}

DescriptorLimit::DescriptorLimit(std::size_t limit)
{
    limitHandles();
    s_room = static_cast<std::ptrdiff_t>(limit) - static_cast<std::ptrdiff_t>(countDescriptors());
    m_previous = s_limit.exchange(limit);
}

DescriptorLimit::~DescriptorLimit()
{
    s_limit = m_previous;
}

} // namespace kyTest
