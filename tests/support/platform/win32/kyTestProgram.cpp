#include <tests/support/kyTestProgram.h>

#include <QByteArray>

#include <QtProcess/platform/win32/exEndRequest.h>
#include <Utils/platform/win32/kyHandle.h>

namespace kyTest {

std::string toText(const QByteArray& written)
{
    return QByteArray(written).replace("\r\n", "\n").toStdString();
}

void interruptProcess(long long processId)
{
    constexpr DWORD rights = PROCESS_CREATE_THREAD | PROCESS_QUERY_INFORMATION |
                             PROCESS_VM_OPERATION | PROCESS_VM_READ | PROCESS_VM_WRITE;
    const kyHandle process(::OpenProcess(rights, FALSE, static_cast<DWORD>(processId)));
    exRequestEnd(process.get());
}

void terminateProcess(long long processId)
{
    // The same for programs without windows.
    interruptProcess(processId);
}

} // namespace kyTest
