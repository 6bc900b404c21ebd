#include <apps/common/platform/Terminal.h>

#include <cstdio>

#include <windows.h>

namespace terminal {

namespace {

bool isConsole(DWORD stream)
{
    DWORD mode = 0;
    return ::GetConsoleMode(::GetStdHandle(stream), &mode) != FALSE;
}

/// Lets a console obey what is meant for terminals; false if the stream leads to none.
bool prepareConsole(DWORD stream)
{
    const HANDLE console = ::GetStdHandle(stream);
    DWORD mode = 0;
    return ::GetConsoleMode(console, &mode) != FALSE &&
           ::SetConsoleMode(console, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != FALSE;
}

} // namespace

bool isStandardErrorVisible()
{
    return isConsole(STD_ERROR_HANDLE);
}

void clearErrorLine()
{
    if (prepareConsole(STD_ERROR_HANDLE)) {
        std::fputs("\r\x1b[K", stderr);
    }
}

void clearStandardOutput()
{
    if (prepareConsole(STD_OUTPUT_HANDLE)) {
        std::fputs("\x1b[H\x1b[2J", stdout);
    }
}

} // namespace terminal
