#include <QtProcess/platform/win32/exEndRequest.h>

#include <cstdint>

#include <Utils/platform/win32/kyHandle.h>

namespace {

BOOL CALLBACK closeWindow(HWND window, LPARAM process)
{
    DWORD owner = 0;
    ::GetWindowThreadProcessId(window, &owner);
    if (owner == static_cast<DWORD>(process)) {
        ::PostMessageW(window, WM_CLOSE, 0, 0);
    }
    return TRUE;
}

/// Runs what the system runs in a process when Ctrl-Break is pressed. The documented road leads
/// through a console that both share, which a child without a window does not; and a process can
/// visit the other's only by leaving its own.
void pressBreak(HANDLE process)
{
    const FARPROC routine = ::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "CtrlRoutine");
    BOOL isNarrow = FALSE;
    if (routine == nullptr || !::IsWow64Process(process, &isNarrow) || isNarrow) {
        // The address is another one in programs of 32 bits.
        return;
    }
    const auto start = reinterpret_cast<LPTHREAD_START_ROUTINE>(reinterpret_cast<void*>(routine));
    void* event = reinterpret_cast<void*>(std::uintptr_t{CTRL_BREAK_EVENT});
    const kyHandle thread(::CreateRemoteThread(process, nullptr, 0, start, event, 0, nullptr));
}

} // namespace

void exRequestEnd(HANDLE process)
{
    ::EnumWindows(closeWindow, static_cast<LPARAM>(::GetProcessId(process)));
    pressBreak(process);
}
