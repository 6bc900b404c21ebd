#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace render {

/// Ends waits that take too long:
///
///     const Watchdog::Guard guard(watchdog, 60.0, [&] { stream.shutdown(); });
///     stream.recvMessage(message); // throws when the time is over
///
/// One thread watches over any number of guards.
///
/// Ownership: the watchdog outlives its guards.
///
/// Threads: any.
class Watchdog
{
private:
    using Clock = std::chrono::steady_clock;

public:
    /// Watches from its construction to its destruction.
    class Guard
    {
    public:
        /// Calls the function once if the guard is still there after so many seconds, on the
        /// watchdog's thread. It must neither throw nor use the watchdog.
        Guard(Watchdog& watchdog, double seconds, std::function<void()> onExpiry);

        /// Returns when the function is not running and will not be called any more.
        ~Guard();

        Guard(const Guard&) = delete;
        Guard& operator=(const Guard&) = delete;

    private:
        friend class Watchdog;
        enum class State
        {
            Waiting,
            Expiring, ///< the function is running
            Expired
        };

        Watchdog& m_watchdog;
        const std::function<void()> m_onExpiry;
        State m_state = State::Waiting;
        std::multimap<Clock::time_point, Guard*>::iterator m_place;
    };

    /// Throws std::system_error if there is no thread.
    Watchdog();
    ~Watchdog();

    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    void watch();
    void expireFirst(std::unique_lock<std::mutex>& guard);

    std::mutex m_lock;
    std::condition_variable m_changed;
    std::multimap<Clock::time_point, Guard*> m_guards; ///< that wait, by their deadline
    bool m_isEnding = false;
    std::thread m_thread;
};

} // namespace render
