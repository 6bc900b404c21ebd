#include <apps/TALORender/Watchdog.h>

#include <algorithm>
#include <utility>

namespace render {

namespace {

/// Seconds in a year: nobody waits longer, and the clock cannot overflow.
constexpr double s_longest = 365.0 * 24.0 * 3600.0;

} // namespace

Watchdog::Guard::Guard(Watchdog& watchdog, double seconds, std::function<void()> onExpiry)
    : m_watchdog(watchdog), m_onExpiry(std::move(onExpiry))
{
    const auto limit = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(std::min(seconds, s_longest)));
    const std::lock_guard<std::mutex> guard(m_watchdog.m_lock);
    m_place = m_watchdog.m_guards.emplace(Clock::now() + limit, this);
    m_watchdog.m_changed.notify_all();
}

Watchdog::Guard::~Guard()
{
    std::unique_lock<std::mutex> guard(m_watchdog.m_lock);
    if (m_state == State::Waiting) {
        m_watchdog.m_guards.erase(m_place);
    }
    m_watchdog.m_changed.wait(guard, [this] { return m_state != State::Expiring; });
}

Watchdog::Watchdog() : m_thread(&Watchdog::watch, this) {}

Watchdog::~Watchdog()
{
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_isEnding = true;
        m_changed.notify_all();
    }
    m_thread.join();
}

void Watchdog::watch()
{
    std::unique_lock<std::mutex> guard(m_lock);
    while (!m_isEnding) {
        if (m_guards.empty()) {
            m_changed.wait(guard);
        } else if (m_guards.begin()->first <= Clock::now()) {
            expireFirst(guard);
        } else {
            // A copy: the guard may be gone before the time is over.
            const Clock::time_point deadline = m_guards.begin()->first;
            m_changed.wait_until(guard, deadline);
        }
    }
}

void Watchdog::expireFirst(std::unique_lock<std::mutex>& guard)
{
    Guard& expired = *m_guards.begin()->second;
    m_guards.erase(m_guards.begin());
    expired.m_state = Guard::State::Expiring;
    guard.unlock();
    expired.m_onExpiry();
    guard.lock();
    expired.m_state = Guard::State::Expired;
    m_changed.notify_all();
}

} // namespace render
