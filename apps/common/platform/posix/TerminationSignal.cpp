#include <apps/common/platform/TerminationSignal.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <thread>
#include <utility>

#include <sys/eventfd.h>
#include <unistd.h>

#include <NetBase/buffers/kyNetError.h>

namespace {

constexpr std::array s_signals{SIGTERM, SIGINT};

/// What the signal handler, which may do little else, writes to.
std::atomic<int> s_event{-1};
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler reads it");

void wake(int event)
{
    const std::uint64_t one = 1;
    // The counter cannot be full, and a handler could not report a failure anyway.
    [[maybe_unused]] const ssize_t written = write(event, &one, sizeof(one));
}

void handleSignal(int)
{
    const int error = errno;
    wake(s_event);
    errno = error;
}

} // namespace

class TerminationSignal::System
{
public:
    explicit System(std::function<void()> onRequest)
        : m_onRequest(std::move(onRequest)), m_event(eventfd(0, EFD_CLOEXEC))
    {
        if (m_event < 0) {
            throw kyNetError("Unable to wait for signals. " + kyNetError::getLastErrorString());
        }
        try {
            m_thread = std::thread([this] { wait(); });
        } catch (const std::exception& e) {
            close(m_event);
            throw kyNetError(std::string("Unable to wait for signals. ") + e.what());
        }

        s_event = m_event;
        struct sigaction action = {};
        action.sa_handler = handleSignal;
        action.sa_flags = SA_RESTART;
        for (std::size_t i = 0; i < s_signals.size(); ++i) {
            sigaction(s_signals[i], &action, &m_previous[i]);
        }
    }

    ~System()
    {
        for (std::size_t i = 0; i < s_signals.size(); ++i) {
            sigaction(s_signals[i], &m_previous[i], nullptr);
        }
        m_isOver = true;
        wake(m_event);
        m_thread.join();
        s_event = -1;
        close(m_event);
    }

    System(const System&) = delete;
    System& operator=(const System&) = delete;

private:
    void wait()
    {
        for (;;) {
            std::uint64_t count = 0;
            if (read(m_event, &count, sizeof(count)) < 0) {
                continue; // interrupted
            }
            if (m_isOver) {
                return;
            }
            m_onRequest();
        }
    }

    const std::function<void()> m_onRequest;
    const int m_event;
    std::atomic<bool> m_isOver{false};
    std::array<struct sigaction, s_signals.size()> m_previous{};
    std::thread m_thread;
};

TerminationSignal::TerminationSignal(std::function<void()> onRequest)
    : m_system(std::make_unique<System>(std::move(onRequest)))
{
}

TerminationSignal::~TerminationSignal() = default;
