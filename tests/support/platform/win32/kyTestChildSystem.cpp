#include <tests/support/kyTestChildSystem.h>

#include <cstdint>
#include <cstdio>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <Utils/platform/win32/kyHandle.h>

namespace kyTest {

namespace {

[[noreturn]] void fail()
{
    throw std::system_error(static_cast<int>(::GetLastError()), std::system_category());
}

kyHandle checked(HANDLE value)
{
    kyHandle handle(value);
    if (!handle.isValid()) {
        fail();
    }
    return handle;
}

/// A handle has 32 significant bits.
HANDLE toHandle(int value)
{
    return reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(value));
}

int toValue(HANDLE handle)
{
    return static_cast<int>(reinterpret_cast<std::intptr_t>(handle));
}

BOOL WINAPI doNothing(DWORD)
{
    return TRUE;
}

/// Handled, and thereby without effect, are Ctrl-C and Ctrl-Break; the flag "ignored" of Ctrl-C
/// alone is what child processes inherit.
void ignoreControlKeys(bool isIgnored)
{
    ::SetConsoleCtrlHandler(nullptr, isIgnored);
    ::SetConsoleCtrlHandler(doNothing, isIgnored);
}

} // namespace

std::string childProgram(const std::string& name)
{
    return KY_TEST_BINARY_DIR "/tests/children/" + name + ".exe";
}

void writeBytesAsTheyAre()
{
    ::_setmode(::_fileno(stdout), _O_BINARY);
    ::_setmode(::_fileno(stderr), _O_BINARY);
}

void ignoreTermination()
{
    ::SetConsoleCtrlHandler(doNothing, TRUE);
}

std::string describeIgnoredSignals()
{
    // A process cannot ask what it ignores.
    return {};
}

void leaveOrphanThatWrites()
{
    HANDLE ends[2]{};
    SECURITY_ATTRIBUTES inherited{sizeof(inherited), nullptr, TRUE};
    if (!::CreatePipe(&ends[0], &ends[1], &inherited, 0)) {
        return;
    }
    const kyHandle reading(ends[0]);
    kyHandle writing(ends[1]);

    std::string line = '"' + childProgram() + "\" write-until-unread";
    STARTUPINFOA info{};
    info.cb = sizeof(info);
    info.dwFlags = STARTF_USESTDHANDLES;
    info.hStdOutput = ::GetStdHandle(STD_OUTPUT_HANDLE);
    info.hStdError = writing.get();
    PROCESS_INFORMATION started{};
    if (!::CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &info,
                          &started)) {
        return;
    }
    const kyHandle process(started.hProcess);
    const kyHandle thread(started.hThread);
    writing.close();
    char byte = 0;
    DWORD size = 0;
    ::ReadFile(reading.get(), &byte, 1, &size, nullptr);
}

bool becomeNobody()
{
    return false;
}

bool isAdministrator()
{
    // Nobody becomes another user here without that user's password.
    return false;
}

InheritableDescriptor::InheritableDescriptor()
{
    HANDLE ends[2]{};
    SECURITY_ATTRIBUTES inherited{sizeof(inherited), nullptr, TRUE};
    if (!::CreatePipe(&ends[0], &ends[1], &inherited, 0)) {
        fail();
    }
    m_watch = toValue(ends[0]);
    m_value = toValue(ends[1]);
}

InheritableDescriptor::~InheritableDescriptor()
{
    closeLast();
    ::CloseHandle(toHandle(m_watch));
}

bool InheritableDescriptor::closeLast()
{
    if (m_value != -1) {
        ::CloseHandle(toHandle(std::exchange(m_value, -1)));
    }
    return !::PeekNamedPipe(toHandle(m_watch), nullptr, 0, nullptr, nullptr, nullptr) &&
           ::GetLastError() == ERROR_BROKEN_PIPE;
}

DeafToSignals::DeafToSignals()
{
    ignoreControlKeys(true);
}

DeafToSignals::~DeafToSignals()
{
    ignoreControlKeys(false);
}

Interruptions::Interruptions()
{
    // What interrupts a call that has let itself be interrupted.
    HANDLE target = nullptr;
    ::DuplicateHandle(::GetCurrentProcess(), ::GetCurrentThread(), ::GetCurrentProcess(), &target,
                      0, FALSE, DUPLICATE_SAME_ACCESS);
    m_thread = std::thread([this, thread = checked(target)] {
        while (!m_isOver) {
            ::QueueUserAPC([](ULONG_PTR) {}, thread.get(), 0);
            ::Sleep(1);
        }
    });
}

Interruptions::~Interruptions()
{
    m_isOver = true;
    m_thread.join();
}

} // namespace kyTest
