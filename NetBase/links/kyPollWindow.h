#pragma once

#include <algorithm>
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
/// A stream of small buffers is better looked at now and then: taking each as it comes costs both
/// ends five times the processor time of taking those that have gathered for 80 microseconds. Once
/// in some hundred waits it lets them gather, and goes on so as long as it then finds several.
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
            ++m_foundAtOnce; // There was no wait to learn from.
            return;
        }
        const Clock::time_point end = Clock::now() + limit;
        if (isOpen() && poll(isOver, end)) {
            m_longWaits = 0;
            return;
        }
        sleep();
        learn(Clock::now() < end);
    }

    /// Whether the next wait begins with polling.
    bool isOpen() const { return m_longWaits < s_mostLongWaits; }

    /// Whether the last wait began with letting buffers gather.
    bool isGathering() const { return m_isGathering; }

private:
    using Clock = std::chrono::steady_clock;

    /// So many in a row that a pause between two bursts does not close the window.
    static constexpr int s_mostLongWaits = 4;

    /// Long enough for a sender to get some dozens of buffers ahead.
    static constexpr std::chrono::microseconds s_gatheringTime{80};

    /// What has to be found behind a wait for it to have paid. A buffer is two receives.
    static constexpr int s_worthGathering = 16;

    /// Waits from one trial to the next, doubled by each that did not pay: fewer than one of a
    /// hundred answers may come later for it.
    static constexpr int s_leastBetweenTrials = 256;
    static constexpr int s_mostBetweenTrials = 4096;

    template <class IsOver> bool poll(const IsOver& isOver, Clock::time_point end)
    {
        decideToGather();
        Clock::time_point next = Clock::now();
        if (m_isGathering) {
            next = std::min(next + s_gatheringTime, end);
        }
        do {
            do {
                std::this_thread::yield();
            } while (Clock::now() < next);
            if (isOver()) {
                return true;
            }
        } while (Clock::now() < end);
        return false;
    }

    void decideToGather()
    {
        if (!m_isGathering) {
            m_isGathering = --m_untilTrial <= 0;
        } else if (m_foundAtOnce < s_worthGathering) {
            m_isGathering = false;
            m_betweenTrials = std::min(2 * m_betweenTrials, s_mostBetweenTrials);
            m_untilTrial = m_betweenTrials;
        } else {
            m_betweenTrials = s_leastBetweenTrials;
        }
        m_foundAtOnce = 0;
    }

    void learn(bool wasShort)
    {
        if (wasShort) {
            m_longWaits = 0;
        } else if (isOpen()) {
            ++m_longWaits;
        }
    }

    int m_longWaits = 0;   // In a row.
    int m_foundAtOnce = 0; // Since the last wait.
    bool m_isGathering = false;
    int m_betweenTrials = s_leastBetweenTrials;
    int m_untilTrial = s_leastBetweenTrials;
};
