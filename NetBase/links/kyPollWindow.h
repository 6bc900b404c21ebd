#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
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
/// in some hundred waits it lets them gather, and goes on so as long as a quarter more comes in the
/// time: where a peer sends some and waits for an answer, gathering only delays that.
///
/// The clock is another for tests only.
///
/// Threads: one at a time.
template <class Clock = std::chrono::steady_clock> class kyPollWindow
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
        ++m_received;
        if (isOver()) {
            return; // There was no wait to learn from.
        }
        const TimePoint begin = Clock::now();
        const TimePoint end = begin + limit;
        if (isOpen() && poll(isOver, begin, end)) {
            m_longWaits = 0;
            return;
        }
        sleep();
        const TimePoint now = Clock::now();
        learn(now < end);
        beginPace(now); // What happens after a silence is compared with what happened after it.
    }

    /// Whether the next wait begins with polling.
    bool isOpen() const { return m_longWaits < s_mostLongWaits; }

    /// Whether the last wait began with letting buffers gather.
    bool isGathering() const { return m_isGathering; }

private:
    using TimePoint = typename Clock::time_point;

    /// So many in a row that a pause between two bursts does not close the window.
    static constexpr int s_mostLongWaits = 4;

    /// Long enough for a sender to get some dozens of buffers ahead.
    static constexpr std::chrono::microseconds s_gatheringTime{80};

    /// How many times as much has to come in the time for gathering to have paid.
    static constexpr double s_worthGathering = 1.25;

    /// Waits from one trial to the next, doubled by each that did not pay: fewer than one of a
    /// hundred answers may come later for it.
    static constexpr int s_leastBetweenTrials = 256;
    static constexpr int s_mostBetweenTrials = 4096;

    /// The last waits before a trial, whose pace it has to beat.
    static constexpr int s_comparedWaits = 32;

    template <class IsOver> bool poll(const IsOver& isOver, TimePoint now, TimePoint end)
    {
        decideToGather(now);
        const TimePoint next = m_isGathering ? std::min(now + s_gatheringTime, end) : now;
        do {
            do {
                std::this_thread::yield();
                now = Clock::now();
            } while (now < next);
            if (isOver()) {
                return true;
            }
        } while (now < end);
        return false;
    }

    void decideToGather(TimePoint now)
    {
        if (m_isGathering) {
            m_isGathering = getPace(now) >= s_worthGathering * m_paceBefore;
            m_betweenTrials = m_isGathering ? s_leastBetweenTrials
                                            : std::min(2 * m_betweenTrials, s_mostBetweenTrials);
            m_untilTrial = m_betweenTrials;
            beginPace(now);
        } else if (--m_untilTrial == s_comparedWaits) {
            beginPace(now);
        } else if (m_untilTrial <= 0) {
            m_isGathering = true;
            m_paceBefore = getPace(now);
            beginPace(now);
        }
    }

    void beginPace(TimePoint now)
    {
        m_received = 0;
        m_paceBegin = now;
    }

    /// What has been received for each tick of the clock.
    double getPace(TimePoint now) const
    {
        const auto ticks = (now - m_paceBegin).count() + 1; // 0 would be a pace without end.
        return static_cast<double>(m_received) / static_cast<double>(ticks);
    }

    void learn(bool wasShort)
    {
        if (wasShort) {
            m_longWaits = 0;
        } else if (isOpen()) {
            ++m_longWaits;
        }
    }

    int m_longWaits = 0; // In a row.
    bool m_isGathering = false;
    int m_betweenTrials = s_leastBetweenTrials;
    int m_untilTrial = s_leastBetweenTrials;
    std::int64_t m_received = 0; // Since m_paceBegin.
    TimePoint m_paceBegin{};
    double m_paceBefore = 0;
};
