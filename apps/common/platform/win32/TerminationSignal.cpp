#include <apps/common/platform/TerminationSignal.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <utility>

#include <windows.h>

#include <NetBase/buffers/kyNetError.h>
#include <Utils/platform/win32/kyHandle.h>

namespace {

/// What the handler, which the system calls on threads of its own, signals; null for none.
HANDLE s_event = nullptr;
std::mutex s_lock;

void wake()
{
    const std::lock_guard<std::mutex> guard(s_lock);
    if (s_event != nullptr) {
        ::SetEvent(s_event);
    }
}

BOOL WINAPI handleRequest(DWORD kind)
{
    switch (kind) {
    case CTRL_C_EVENT:
    case CTRL_BREAK_EVENT:
        wake();
        return TRUE;
    case CTRL_CLOSE_EVENT:
    case CTRL_SHUTDOWN_EVENT:
        wake();
        // The system ends the process when this returns, or when it has lost its patience.
        ::Sleep(INFINITE);
        return TRUE;
    default:
        // Somebody logs off, whom a service need not know.
        return TRUE;
    }
}

[[noreturn]] void fail(const std::string& reason)
{
    throw kyNetError("Unable to wait for signals. " + reason);
}

} // namespace

class TerminationSignal::System
{
public:
    explicit System(std::function<void()> onRequest)
        : m_onRequest(std::move(onRequest)), m_event(::CreateEventA(nullptr, FALSE, FALSE, nullptr))
    {
        if (!m_event.isValid()) {
            fail(kyNetError::getLastErrorString());
        }
        try {
            m_thread = std::thread([this] { wait(); });
        } catch (const std::exception& e) {
            fail(e.what());
        }
        setEvent(m_event.get());
        ::SetConsoleCtrlHandler(handleRequest, TRUE);
    }

    ~System()
    {
        ::SetConsoleCtrlHandler(handleRequest, FALSE);
        setEvent(nullptr);
        m_isOver = true;
        ::SetEvent(m_event.get());
        m_thread.join();
    }

    System(const System&) = delete;
    System& operator=(const System&) = delete;

private:
    static void setEvent(HANDLE event)
    {
        const std::lock_guard<std::mutex> guard(s_lock);
        s_event = event;
    }

    void wait()
    {
        for (;;) {
            ::WaitForSingleObject(m_event.get(), INFINITE);
            if (m_isOver) {
                return;
            }
            m_onRequest();
        }
    }

    const std::function<void()> m_onRequest;
    const kyHandle m_event;
    std::atomic<bool> m_isOver{false};
    std::thread m_thread;
};

TerminationSignal::TerminationSignal(std::function<void()> onRequest)
    : m_system(std::make_unique<System>(std::move(onRequest)))
{
}

TerminationSignal::~TerminationSignal() = default;
