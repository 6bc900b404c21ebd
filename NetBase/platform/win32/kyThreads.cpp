#include <NetBase/platform/kyThreads.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>

#include <process.h>
#include <windows.h>

namespace {

using Action = std::function<void()>;

unsigned __stdcall run(void* action) noexcept
{
    (*std::unique_ptr<Action>(static_cast<Action*>(action)))();
    return 0;
}

} // namespace

void kyThreads::startDetached(Action action)
{
    // Not as a detached thread of the standard library: below it, the record of one that ends may
    // be used again too early, and a thread that is just starting is lost.
    auto owned = std::make_unique<Action>(std::move(action));
    const std::uintptr_t thread = ::_beginthreadex(nullptr, 0, run, owned.get(), 0, nullptr);
    if (thread == 0) {
        throw std::system_error(errno, std::generic_category());
    }
    static_cast<void>(owned.release());
    ::CloseHandle(reinterpret_cast<HANDLE>(thread));
}

unsigned kyThreads::countHardwareThreads()
{
    return std::max(1U, std::thread::hardware_concurrency());
}

bool kyThreads::pinToFirstProcessor()
{
    return ::SetThreadAffinityMask(::GetCurrentThread(), 1) != 0;
}

void kyThreads::resetProcessors()
{
    // What a thread is pinned to leaves the processors of the process as they are.
    DWORD_PTR ofProcess = 0;
    DWORD_PTR ofSystem = 0;
    if (::GetProcessAffinityMask(::GetCurrentProcess(), &ofProcess, &ofSystem) != FALSE) {
        ::SetThreadAffinityMask(::GetCurrentThread(), ofProcess);
    }
}
