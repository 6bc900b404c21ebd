#include <NetBase/links/kyPollWindow.h>

#include <chrono>

#include <gtest/gtest.h>

#include <tests/support/kyTestPolling.h>

namespace {

using kyTest::ReceivePolling;

/// Goes on by a microsecond whenever it is read: the machine's load changes nothing.
struct Clock
{
    using duration = std::chrono::nanoseconds;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<Clock>;
    [[maybe_unused]] static constexpr bool is_steady = true;

    static time_point now() { return time_point(s_now += std::chrono::microseconds(1)); }

    static inline duration s_now{0};
};
using Window = kyPollWindow<Clock>;

/// Microseconds of that clock, of which each costs a yield: more than gathering takes.
constexpr int s_polling = 200;

/// Waits through a window and counts what it does.
class Waiter
{
public:
    /// Waits for what is there at the n-th look, or else comes while it sleeps.
    void waitForLook(int n)
    {
        m_looks = 0;
        m_sleeps = 0;
        window.await([&] { return ++m_looks == n; }, [&] { ++m_sleeps; });
    }
    void waitInVain() { waitForLook(-1); }

    int looks() const { return m_looks; }
    int sleeps() const { return m_sleeps; }

    Window window;

private:
    int m_looks = 0;
    int m_sleeps = 0;
};

void closeWindow(Waiter& waiter)
{
    while (waiter.window.isOpen()) {
        waiter.waitInVain();
    }
}

/// So many receives find something without a wait.
void findAtOnce(Waiter& waiter, int count)
{
    for (int i = 0; i < count; ++i) {
        waiter.waitForLook(1);
    }
}

/// How many waits it takes until the window lets buffers gather.
int countWaitsUntilGathering(Waiter& waiter)
{
    int count = 0;
    while (!waiter.window.isGathering() && count < 100000) {
        waiter.waitForLook(2);
        ++count;
    }
    return count;
}

} // namespace

TEST(kyPollWindow, neitherPollsNorSleepsForWhatIsThere)
{
    Waiter waiter;
    waiter.waitForLook(1);
    EXPECT_EQ(waiter.looks(), 1);
    EXPECT_EQ(waiter.sleeps(), 0);
}

TEST(kyPollWindow, looksAgainBeforeItSleeps)
{
    const ReceivePolling polling(s_polling);
    Waiter waiter;
    waiter.waitForLook(3);
    EXPECT_EQ(waiter.looks(), 3);
    EXPECT_EQ(waiter.sleeps(), 0);
}

TEST(kyPollWindow, sleepsWhenTheTimeIsOver)
{
    for (const int microseconds : {1, 10, s_polling}) {
        const ReceivePolling polling(microseconds);
        Waiter waiter;
        const auto begin = Clock::now();
        waiter.waitInVain();
        EXPECT_GE(Clock::now() - begin, std::chrono::microseconds(microseconds));
        EXPECT_EQ(waiter.sleeps(), 1);
    }
}

TEST(kyPollWindow, sleepsAtOnceWithoutPolling)
{
    const ReceivePolling polling(0);
    Waiter waiter;
    for (int i = 0; i < 10; ++i) {
        waiter.waitForLook(1);
        EXPECT_EQ(waiter.looks(), 0);
        EXPECT_EQ(waiter.sleeps(), 1);
    }
    EXPECT_TRUE(waiter.window.isOpen());
}

TEST(kyPollWindow, closesAfterFourLongWaitsInARow)
{
    const ReceivePolling polling(10);
    Waiter waiter;
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(waiter.window.isOpen()) << i;
        waiter.waitInVain();
    }
    EXPECT_FALSE(waiter.window.isOpen());
    waiter.waitInVain();
    EXPECT_EQ(waiter.looks(), 1); // It might be there already, but is not waited for.
    EXPECT_EQ(waiter.sleeps(), 1);
}

TEST(kyPollWindow, whatIsThereAlreadyNeitherClosesNorOpensIt)
{
    const ReceivePolling polling(10);
    Waiter waiter;
    closeWindow(waiter);
    for (int i = 0; i < 10; ++i) {
        waiter.waitForLook(1);
    }
    EXPECT_FALSE(waiter.window.isOpen());
}

TEST(kyPollWindow, staysOpenWhilePollingPays)
{
    const ReceivePolling polling(s_polling);
    Waiter waiter;
    for (int i = 0; i < 3; ++i) {
        waiter.waitInVain();
    }
    waiter.waitForLook(2);
    ASSERT_EQ(waiter.sleeps(), 0); // Forgets those that did not.
    for (int i = 0; i < 3; ++i) {
        waiter.waitInVain();
        EXPECT_TRUE(waiter.window.isOpen());
    }
}

TEST(kyPollWindow, opensAfterAShortSleep)
{
    Waiter waiter;
    {
        const ReceivePolling polling(1);
        closeWindow(waiter);
    }
    const ReceivePolling polling(s_polling);
    waiter.waitInVain();
    EXPECT_TRUE(waiter.window.isOpen());
    EXPECT_EQ(waiter.looks(), 1);
}

TEST(kyPollWindow, staysClosedWhileSleepsAreLong)
{
    const ReceivePolling polling(10);
    Window window;
    for (int i = 0; i < 10; ++i) {
        window.await([] { return false; }, [] { Clock::s_now += std::chrono::microseconds(10); });
        EXPECT_EQ(window.isOpen(), i < 3);
    }
}

TEST(kyPollWindow, triesNowAndThenToLetBuffersGather)
{
    const ReceivePolling polling(s_polling);
    Waiter waiter;
    EXPECT_EQ(countWaitsUntilGathering(waiter), 256);
    waiter.waitForLook(2);
    EXPECT_FALSE(waiter.window.isGathering()); // It brought nothing, so the next is later.
    EXPECT_EQ(countWaitsUntilGathering(waiter), 512);
    waiter.waitForLook(2);
    EXPECT_EQ(countWaitsUntilGathering(waiter), 1024);
}

TEST(kyPollWindow, letsBuffersGatherWhileMoreComeForIt)
{
    const ReceivePolling polling(s_polling);
    Waiter waiter;
    countWaitsUntilGathering(waiter);
    findAtOnce(waiter, 100);
    for (int i = 0; i < 20; ++i) {
        const auto begin = Clock::now();
        waiter.waitForLook(2);
        EXPECT_GE(Clock::now() - begin, std::chrono::microseconds(80));
        EXPECT_TRUE(waiter.window.isGathering());
        findAtOnce(waiter, 100);
    }
    waiter.waitForLook(2);
    waiter.waitForLook(2);
    EXPECT_FALSE(waiter.window.isGathering());
    EXPECT_EQ(countWaitsUntilGathering(waiter), 512);
}

// A peer that waits for answers sends no more for it.
TEST(kyPollWindow, doesNotGatherWhatComesAnyway)
{
    const ReceivePolling polling(s_polling);
    Waiter waiter;
    for (int i = 0; i < 256; ++i) {
        waiter.waitForLook(2);
        findAtOnce(waiter, 100);
    }
    EXPECT_TRUE(waiter.window.isGathering());
    waiter.waitForLook(2);
    EXPECT_FALSE(waiter.window.isGathering());
}

// One in 2 microseconds of this clock before, so that a quarter more are 50.6 in 81.
TEST(kyPollWindow, gathersForAQuarterMoreAndNotForLess)
{
    const ReceivePolling polling(s_polling);
    for (const int received : {50, 51}) {
        Waiter waiter;
        countWaitsUntilGathering(waiter);
        findAtOnce(waiter, received - 1);
        waiter.waitForLook(2);
        EXPECT_EQ(waiter.window.isGathering(), received == 51);
    }
}

TEST(kyPollWindow, silenceBeforeAStreamIsNoPaceToBeat)
{
    const ReceivePolling polling(s_polling);
    Waiter waiter;
    for (int i = 0; i < 256; ++i) {
        if (i == 250) {
            waiter.window.await([] { return false; },
                                [] { Clock::s_now += std::chrono::hours(1); });
            continue;
        }
        waiter.waitForLook(2);
        findAtOnce(waiter, 100);
    }
    ASSERT_TRUE(waiter.window.isGathering());
    waiter.waitForLook(2);
    EXPECT_FALSE(waiter.window.isGathering());
}
