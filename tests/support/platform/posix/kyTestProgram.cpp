#include <tests/support/kyTestProgram.h>

#include <csignal>

#include <sys/types.h>

namespace kyTest {

void interruptProcess(long long processId)
{
    kill(static_cast<pid_t>(processId), SIGINT);
}

void terminateProcess(long long processId)
{
    kill(static_cast<pid_t>(processId), SIGTERM);
}

} // namespace kyTest
