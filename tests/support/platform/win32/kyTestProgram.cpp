#include <tests/support/kyTestProgram.h>

#include <windows.h>

namespace kyTest {

void interruptProcess(long long processId)
{
    // Ctrl-C reaches no single process, Ctrl-Break does, if it leads a group of its own.
    ::GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, static_cast<DWORD>(processId));
}

} // namespace kyTest
