#pragma once

#include <chrono>
#include <thread>

#include <NetBase/buffers/kyNetOptions.h>

/// How a receive waits: it asks again for a short while, and sleeps only then.
///
/// Waking a thread that sleeps takes ten times what the bytes take from one processor to another.
/// So whoever receives asks for kyNetOptions::getReceivePolling() microseconds, and lets others
/// have the processor after each try: two ends on one processor would else wait out each other's
/// polling.
///
///     m_window.await([&] { return tryToReceive(); }, [&] { receive(); });
///
/// It pays only if the bytes come within that time. After a few waits in a row that took longer
/// the window is closed, and whoever waits sleeps at once, until a sleep was short again. So a
/// link on which little happens costs no processor time.
///
/// Threads: one at a time.
class kyPollWindow
{
public:
    /// Returns when `isOver`, which must not wait, has answered true, or else after `sleep`.
    template <class IsOver, class Sleep> void await(const IsOver& isOver, const Sleep& sleep)
    {
        const std::chrono::microseconds limit(kyNetOptions::getReceivePolling());
        if (limit == limit.zero()) {
            sleep();
            return;
        }
        if (isOver()) {
            return; // There was no wait to learn from.
        }
        const Clock::time_point end = Clock::now() + limit;
        while (isOpen() && Clock::now() < end) {
            std::this_thread::yield();
            if (isOver()) {
                m_longWaits = 0;
                return;
            }
        }
        sleep();
        learn(Clock::now() < end);
    }

    /// Whether the next wait begins with polling.
    bool isOpen() const { return m_longWaits < s_mostLongWaits; }

private:
    using Clock = std::chrono::steady_clock;

    /// So many in a row that a pause between two bursts does not close the window.
    static constexpr int s_mostLongWaits = 4;

    void learn(bool wasShort)
    {
        if (wasShort) {
            m_longWaits = 0;
        } else if (isOpen()) {
            ++m_longWaits;
        }
    }

    int m_longWaits = 0; // In a row.
};
