#include <NetBase/buffers/kyNetActionManager.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <tests/support/kyTestThreads.h>
#include <tests/support/kyTestWait.h>

namespace {

using namespace std::chrono_literals;

/// Actions that end when they are told to, and how many of them run.
class Gate
{
public:
    ~Gate() { EXPECT_EQ(m_inside, 0); }

    std::function<void()> action()
    {
        return [this] {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_most = std::max(m_most, ++m_inside);
            m_changed.notify_all();
            m_changed.wait(lock, [this] { return m_leaves > 0; });
            --m_leaves;
            --m_inside;
            m_changed.notify_all();
        };
    }

    /// Lets so many of the actions end.
    void letGo(int count)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_leaves += count;
        m_changed.notify_all();
    }

    /// Waits until so many of them run; false if that does not come.
    bool hasInside(int count)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, kyTest::s_patience, [&] { return m_inside == count; });
    }

    int most()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_most;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_inside = 0;
    int m_most = 0;
    int m_leaves = 0;
};

/// How many actions a manager lets in before run() blocks, at most `limit`.
int boundOf(kyNetActionManager& manager, int limit)
{
    Gate gate;
    auto starter = std::async(std::launch::async, [&] {
        for (int i = 0; i < limit; ++i) {
            manager.run(gate.action());
        }
    });
    // Either all come in, or no more for a while.
    int inside = 0;
    while (gate.most() < limit && kyTest::waitUntil([&] { return gate.most() > inside; }, 300ms)) {
        inside = gate.most();
    }
    gate.letGo(limit);
    starter.get();
    manager.waitAll();
    return gate.most();
}

std::string failureOf(kyNetActionManager& manager)
{
    try {
        manager.waitAll();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "none";
}

} // namespace

TEST(kyNetActionManager, runsEveryActionOnce)
{
    kyNetActionManager manager(3);
    std::atomic<int> sum{0};
    for (int i = 1; i <= 100; ++i) {
        manager.run([&sum, i] { sum += i; });
    }
    manager.waitAll();
    EXPECT_EQ(sum, 5050);
}

TEST(kyNetActionManager, actionsRunOnThreadsOfTheirOwn)
{
    kyNetActionManager manager(0);
    std::atomic<bool> isOther{false};
    const std::thread::id caller = std::this_thread::get_id();
    manager.run([&] { isOther = std::this_thread::get_id() != caller; });
    manager.waitAll();
    EXPECT_TRUE(isOther);
}

TEST(kyNetActionManager, waitingForNothingReturnsAtOnce)
{
    kyNetActionManager manager(1);
    manager.waitAll();
    manager.waitAll();
}

TEST(kyNetActionManager, withoutABoundRunNeverBlocks)
{
    for (const int bound : {0, -1, -5, std::numeric_limits<int>::min()}) {
        kyNetActionManager manager(bound);
        Gate gate;
        for (int i = 0; i < 20; ++i) {
            manager.run(gate.action());
        }
        EXPECT_TRUE(gate.hasInside(20));
        gate.letGo(20);
        manager.waitAll();
    }
}

TEST(kyNetActionManager, thirdRunBlocksUntilOneOfTwoEnds)
{
    kyNetActionManager manager(2);
    Gate gate;
    manager.run(gate.action());
    manager.run(gate.action());
    ASSERT_TRUE(gate.hasInside(2));

    auto third = std::async(std::launch::async, [&] { manager.run(gate.action()); });
    EXPECT_EQ(third.wait_for(100ms), std::future_status::timeout);
    EXPECT_EQ(gate.most(), 2);
    gate.letGo(1);
    EXPECT_EQ(third.wait_for(kyTest::s_patience), std::future_status::ready);
    EXPECT_TRUE(gate.hasInside(2));
    gate.letGo(2);
    manager.waitAll();
    EXPECT_EQ(gate.most(), 2);
}

TEST(kyNetActionManager, neverMoreThanTheBoundRunWhoeverStartsThem)
{
    kyNetActionManager manager(3);
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    std::atomic<int> done{0};
    std::vector<std::thread> starters;
    for (int t = 0; t < 4; ++t) {
        starters.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                manager.run([&] {
                    const int now = ++inside;
                    int seen = most;
                    while (seen < now && !most.compare_exchange_weak(seen, now)) {
                    }
                    std::this_thread::yield();
                    --inside;
                    ++done;
                });
            }
        });
    }
    for (std::thread& starter : starters) {
        starter.join();
    }
    manager.waitAll();
    EXPECT_EQ(done, 200);
    EXPECT_LE(most, 3);
}

TEST(kyNetActionManager, waitAllBlocksWhileAnythingRuns)
{
    kyNetActionManager manager(0);
    Gate gate;
    manager.run(gate.action());
    manager.run(gate.action());
    ASSERT_TRUE(gate.hasInside(2));
    auto waiting = std::async(std::launch::async, [&] { manager.waitAll(); });
    gate.letGo(1);
    ASSERT_TRUE(gate.hasInside(1));
    EXPECT_EQ(waiting.wait_for(50ms), std::future_status::timeout);
    gate.letGo(1);
    EXPECT_EQ(waiting.wait_for(kyTest::s_patience), std::future_status::ready);
}

TEST(kyNetActionManager, severalMayWaitAtOnce)
{
    kyNetActionManager manager(0);
    Gate gate;
    manager.run(gate.action());
    std::vector<std::future<void>> waiting;
    for (int i = 0; i < 3; ++i) {
        waiting.push_back(std::async(std::launch::async, [&] { manager.waitAll(); }));
    }
    gate.letGo(1);
    for (std::future<void>& one : waiting) {
        EXPECT_EQ(one.wait_for(kyTest::s_patience), std::future_status::ready);
    }
}

TEST(kyNetActionManager, lastFailureIsThrownOnce)
{
    kyNetActionManager manager(1);
    manager.run([] { throw std::runtime_error("first"); });
    manager.run([] { throw std::logic_error("last"); });
    manager.run([] {});
    EXPECT_EQ(failureOf(manager), "last");
    EXPECT_EQ(failureOf(manager), "none");
}

TEST(kyNetActionManager, failureIsTheVeryObjectThatWasThrown)
{
    struct Failure
    {
        int value;
    };
    kyNetActionManager manager(0);
    std::atomic<const Failure*> thrown{nullptr};
    manager.run([&] {
        try {
            throw Failure{42};
        } catch (const Failure& failure) {
            thrown = &failure;
            throw;
        }
    });
    try {
        manager.waitAll();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const Failure& failure) {
        EXPECT_EQ(&failure, thrown);
        EXPECT_EQ(failure.value, 42);
    }
}

TEST(kyNetActionManager, failingActionStopsNoOther)
{
    kyNetActionManager manager(2);
    std::atomic<int> done{0};
    for (int i = 0; i < 20; ++i) {
        manager.run([&done, i] {
            ++done;
            if (i % 2 == 0) {
                throw std::runtime_error("even");
            }
        });
    }
    EXPECT_EQ(failureOf(manager), "even");
    EXPECT_EQ(done, 20);
    manager.run([&done] { ++done; });
    EXPECT_EQ(failureOf(manager), "none");
    EXPECT_EQ(done, 21);
}

TEST(kyNetActionManager, emptyActionIsAFailure)
{
    kyNetActionManager manager(1);
    manager.run({});
    EXPECT_THROW(manager.waitAll(), std::bad_function_call);
}

TEST(kyNetActionManager, actionMayStartAnother)
{
    kyNetActionManager manager(0);
    std::atomic<int> done{0};
    manager.run([&] {
        manager.run([&] { ++done; });
        ++done;
    });
    manager.waitAll();
    EXPECT_EQ(done, 2);
}

TEST(kyNetActionManager, whatAnActionHoldsIsGoneWhenWaitAllReturns)
{
    for (int i = 0; i < 200; ++i) {
        kyNetActionManager manager(0);
        auto held = std::make_shared<int>(1);
        const std::weak_ptr<int> observed = held;
        manager.run([moved = std::move(held)] {});
        manager.waitAll();
        ASSERT_TRUE(observed.expired()) << i;
    }
}

TEST(kyNetActionManager, mayBeDestroyedAsSoonAsWaitAllReturns)
{
    for (int i = 0; i < 300; ++i) {
        auto manager = std::make_unique<kyNetActionManager>(2);
        for (int action = 0; action < 4; ++action) {
            manager->run([] {});
        }
        manager->waitAll();
        // Whoever still touches it would write here.
        manager.reset();
        const std::string overwrite(sizeof(kyNetActionManager), 'x');
        ASSERT_EQ(overwrite[0], 'x');
    }
}

TEST(kyNetActionManager, reducingLowersTheBoundByOne)
{
    const int bounds[][2] = {{3, 2},  {2, 1},  {1, 1},
                             {-5, 1}, {-1, 1}, {std::numeric_limits<int>::min(), 1}};
    for (const auto& [before, after] : bounds) {
        kyNetActionManager manager(before);
        manager.reduceMaxRunning();
        EXPECT_EQ(boundOf(manager, 4), after) << before;
    }
}

TEST(kyNetActionManager, reducingNoBoundLeavesNone)
{
    kyNetActionManager manager(0);
    manager.reduceMaxRunning();
    EXPECT_EQ(boundOf(manager, 10), 10);
}

TEST(kyNetActionManager, boundThatIsLoweredMeanwhileHoldsForWhoWaits)
{
    kyNetActionManager manager(2);
    Gate gate;
    manager.run(gate.action());
    manager.run(gate.action());
    auto third = std::async(std::launch::async, [&] { manager.run(gate.action()); });
    ASSERT_TRUE(gate.hasInside(2));
    manager.reduceMaxRunning();

    gate.letGo(1);
    ASSERT_TRUE(gate.hasInside(1));
    EXPECT_EQ(third.wait_for(100ms), std::future_status::timeout);
    gate.letGo(1);
    EXPECT_EQ(third.wait_for(kyTest::s_patience), std::future_status::ready);
    gate.letGo(1);
    manager.waitAll();
    EXPECT_EQ(gate.most(), 2);
}

TEST(kyNetActionManager, threadThatCannotBeStartedIsNotCounted)
{
    kyNetActionManager manager(1);
    auto held = std::make_shared<int>(1);
    const std::weak_ptr<int> observed = held;
    {
        const kyTest::NoNewThreads noNewThreads;
        EXPECT_THROW(manager.run([moved = std::move(held)] { FAIL() << "was started"; }),
                     std::system_error);
    }
    EXPECT_TRUE(observed.expired());
    EXPECT_EQ(failureOf(manager), "none");

    // The only place is free again.
    std::atomic<bool> done{false};
    manager.run([&] { done = true; });
    manager.waitAll();
    EXPECT_TRUE(done);
}

TEST(kyNetActionManager, threadThatCannotBeStartedFreesItsPlaceForWhoWaits)
{
    kyNetActionManager manager(1);
    Gate gate;
    manager.run(gate.action());
    ASSERT_TRUE(gate.hasInside(1));
    auto second = std::async(std::launch::async, [&] { manager.run(gate.action()); });
    auto third = std::async(std::launch::async, [&] { manager.run(gate.action()); });
    int failed = 0;
    {
        // Both get the place in turn, and neither a thread.
        const kyTest::NoNewThreads noNewThreads;
        gate.letGo(1);
        for (auto* waiting : {&second, &third}) {
            ASSERT_EQ(waiting->wait_for(kyTest::s_patience), std::future_status::ready);
            try {
                waiting->get();
            } catch (const std::system_error&) {
                ++failed;
            }
        }
    }
    EXPECT_EQ(failed, 2);
    manager.waitAll();
}
