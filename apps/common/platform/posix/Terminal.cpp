#include <apps/common/platform/Terminal.h>

#include <cstdio>

#include <unistd.h>

namespace terminal {

bool isStandardErrorVisible()
{
    return ::isatty(STDERR_FILENO) == 1;
}

void clearErrorLine()
{
    if (isStandardErrorVisible()) {
        std::fputs("\r\x1b[K", stderr);
    }
}

void clearStandardOutput()
{
    if (::isatty(STDOUT_FILENO) == 1) {
        std::fputs("\x1b[H\x1b[2J", stdout);
    }
}

} // namespace terminal
