#include <tests/support/kyTestProgram.h>

#include <csignal>

#include <QByteArray>
#include <sys/types.h>

namespace kyTest {

std::string toText(const QByteArray& written)
{
    return written.toStdString();
}

void interruptProcess(long long processId)
{
    kill(static_cast<pid_t>(processId), SIGINT);
}

void terminateProcess(long long processId)
{
    kill(static_cast<pid_t>(processId), SIGTERM);
}

} // namespace kyTest
