#include <apps/TALORender/Watchdog.h>

#include <atomic>
#include <future>
#include <limits>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <tests/support/kyTestBlocked.h>
#include <tests/support/kyTestWait.h>

using namespace render;

namespace {
constexpr double s_long = 3600.0;
}

TEST(Watchdog, callsOnceWhenTheTimeIsOver)
{
    Watchdog watchdog;
    std::promise<void> called;
    std::atomic<int> calls{0};
    const auto begin = std::chrono::steady_clock::now();
    const Watchdog::Guard guard(watchdog, 0.05, [&] {
        if (++calls == 1) {
            called.set_value();
        }
    });
    ASSERT_EQ(called.get_future().wait_for(kyTest::s_patience), std::future_status::ready);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50));
    EXPECT_EQ(calls, 1);
}

TEST(Watchdog, doesNotCallForAGuardThatIsGone)
{
    Watchdog watchdog;
    std::atomic<bool> isCalled{false};
    {
        const Watchdog::Guard guard(watchdog, 0.05, [&] { isCalled = true; });
    }
    // The one that would have come after it does come.
    std::promise<void> later;
    const Watchdog::Guard guard(watchdog, 0.1, [&] { later.set_value(); });
    ASSERT_EQ(later.get_future().wait_for(kyTest::s_patience), std::future_status::ready);
    EXPECT_FALSE(isCalled);
}

TEST(Watchdog, aLaterGuardWithAnEarlierEndIsNotKeptWaiting)
{
    Watchdog watchdog;
    std::atomic<bool> isLateCalled{false};
    const Watchdog::Guard late(watchdog, s_long, [&] { isLateCalled = true; });
    std::promise<void> called;
    const Watchdog::Guard early(watchdog, 0.01, [&] { called.set_value(); });
    ASSERT_EQ(called.get_future().wait_for(kyTest::s_patience), std::future_status::ready);
    EXPECT_FALSE(isLateCalled);
}

TEST(Watchdog, noTimeAtAllIsOverAtOnceAndEndlessTimeNever)
{
    Watchdog watchdog;
    for (const double none : {0.0, -5.0}) {
        std::promise<void> called;
        const Watchdog::Guard guard(watchdog, none, [&] { called.set_value(); });
        ASSERT_EQ(called.get_future().wait_for(kyTest::s_patience), std::future_status::ready);
    }
    std::atomic<bool> isEarly{false};
    const auto tell = [&] { isEarly = true; };
    const Watchdog::Guard endless(watchdog, std::numeric_limits<double>::infinity(), tell);
    const Watchdog::Guard huge(watchdog, 1e300, tell);
    std::promise<void> called;
    const Watchdog::Guard early(watchdog, 0.01, [&] { called.set_value(); });
    ASSERT_EQ(called.get_future().wait_for(kyTest::s_patience), std::future_status::ready);
    EXPECT_FALSE(isEarly);
}

TEST(Watchdog, aGuardDoesNotGoWhileItsFunctionRuns)
{
    Watchdog watchdog;
    std::promise<void> running;
    std::promise<void> release;
    std::atomic<bool> isDone{false};
    auto guard = std::make_unique<Watchdog::Guard>(watchdog, 0.0, [&] {
        running.set_value();
        release.get_future().wait();
        isDone = true;
    });
    ASSERT_EQ(running.get_future().wait_for(kyTest::s_patience), std::future_status::ready);
    bool wasDone = false;
    kyTest::Blocked going([&] {
        guard.reset();
        wasDone = isDone;
    });
    EXPECT_TRUE(going.isBlocked());
    release.set_value();
    going.finish();
    EXPECT_TRUE(wasDone);
}

TEST(Watchdog, whileOneFunctionRunsOtherGuardsComeAndGo)
{
    Watchdog watchdog;
    std::promise<void> running;
    std::promise<void> release;
    const Watchdog::Guard slow(watchdog, 0.0, [&] {
        running.set_value();
        release.get_future().wait();
    });
    ASSERT_EQ(running.get_future().wait_for(kyTest::s_patience), std::future_status::ready);
    auto other = std::async(std::launch::async,
                            [&] { const Watchdog::Guard guard(watchdog, s_long, [] {}); });
    EXPECT_EQ(other.wait_for(kyTest::s_patience), std::future_status::ready);
    release.set_value();
}

TEST(Watchdog, manyThreadsWithShortAndLongGuards)
{
    Watchdog watchdog;
    std::atomic<int> expired{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int turn = 0; turn < 200; ++turn) {
                std::promise<void> called;
                const Watchdog::Guard spared(watchdog, s_long, [&] { ++expired; });
                const Watchdog::Guard guard(watchdog, 0.0, [&] { called.set_value(); });
                called.get_future().wait();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(expired, 0);
}
