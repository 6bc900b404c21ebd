// What a pipe of Windows must not let a server of it do that belongs to somebody else. The tests of
// kySocketPipe show everything that holds on every system.

#include <NetBase/platform/kyLocalPipe.h>

#include <atomic>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include <NetBase/platform/kyLastError.h>
#include <Utils/kyPlatform.h>
#include <tests/support/platform/win32/kyTestForbid.h>

namespace {

using Status = kyLocalPipe::Status;

/// A process that is none: their numbers are divisible by four.
constexpr ULONG s_nobody = 0xfffffffe;

std::atomic<DWORD> s_openFlags{0};

HANDLE WINAPI openFile(LPCSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                       DWORD disposition, DWORD flags, HANDLE model)
{
    s_openFlags = flags;
    return kyTest::callOriginal<HANDLE>("kernel32.dll", "CreateFileA", path, access, share,
                                        security, disposition, flags, model);
}

BOOL WINAPI nameNobody(HANDLE, PULONG processId)
{
    *processId = s_nobody;
    return TRUE;
}

BOOL WINAPI nameNone(HANDLE, PULONG)
{
    ::SetLastError(ERROR_NOT_SUPPORTED);
    return FALSE;
}

/// A pipe of this process that awaits its client.
struct Served
{
    std::string name = R"(\\.\pipe\kyLocalPipeTest-)" + std::to_string(kyPlatform::getProcessId());
    std::unique_ptr<kyLocalPipe> server = kyLocalPipe::listen(name);
    std::unique_ptr<kyLocalPipe> client;

    Status connect() { return kyLocalPipe::connect(name, client); }
};

} // namespace

TEST(kyLocalPipe, letsNoServerActAsItsClient)
{
    kyTest::detour("kernel32.dll", "CreateFileA", openFile);
    Served pipe;
    ASSERT_EQ(pipe.connect(), Status::Done);
    constexpr DWORD all = SECURITY_SQOS_PRESENT | SECURITY_DELEGATION;
    EXPECT_EQ(s_openFlags & all, SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION);
}

// Who may write to a pipe may also serve a further client of the same name, whoever made it first.
TEST(kyLocalPipe, trustsNoServerBehindThePipeOfAnother)
{
    for (BOOL(WINAPI * answer)(HANDLE, PULONG) : {nameNobody, nameNone}) {
        kyTest::detour("kernel32.dll", "GetNamedPipeServerProcessId", answer);
        Served pipe;
        EXPECT_EQ(pipe.connect(), Status::Failed);
        EXPECT_EQ(kyLastError::get(), ERROR_ACCESS_DENIED);
        EXPECT_EQ(pipe.client, nullptr);
    }
}
