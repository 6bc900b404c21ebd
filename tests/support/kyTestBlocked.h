#pragma once

#include <cstdint>
#include <functional>
#include <future>
#include <utility>

#include <gtest/gtest.h>

#include <tests/support/kyTestSocket.h>
#include <tests/support/kyTestWait.h>

namespace kyTest {

/// An action on a thread of its own, and the news that it waits inside the system.
class Blocked
{
public:
    explicit Blocked(std::function<void()> action)
    {
        std::promise<std::uint64_t> started;
        std::future<std::uint64_t> id = started.get_future();
        m_done = std::async(std::launch::async,
                            [action = std::move(action), news = std::move(started)]() mutable {
                                news.set_value(getThreadId());
                                action();
                            });
        m_threadId = id.get();
    }

    /// Waits until the action waits; false if it does not.
    bool isBlocked() const
    {
        return waitUntil([this] { return isWaiting(m_threadId); });
    }

    std::uint64_t getId() const { return m_threadId; }

    /// Waits for the end of the action and passes what it threw.
    void finish()
    {
        ASSERT_EQ(m_done.wait_for(s_patience), std::future_status::ready);
        m_done.get();
    }

private:
    std::future<void> m_done;
    std::uint64_t m_threadId = 0;
};

} // namespace kyTest
