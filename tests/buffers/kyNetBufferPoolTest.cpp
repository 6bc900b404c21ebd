#include <NetBase/buffers/kyNetBufferPool.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <random>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <tests/support/kyTestMemory.h>
#include <tests/support/kyTestSlowness.h>
#include <tests/support/kyTestSocket.h>
#include <tests/support/kyTestThreads.h>
#include <tests/support/kyTestWait.h>

namespace {

using Buffer = std::shared_ptr<kyNetBuffer>;
using Buffers = std::vector<Buffer>;

std::set<kyNetBuffer*> addressesOf(const Buffers& buffers)
{
    std::set<kyNetBuffer*> addresses;
    for (const Buffer& buffer : buffers) {
        addresses.insert(buffer.get());
    }
    return addresses;
}

} // namespace

TEST(kyNetBufferPool, firstBufferIsMadeAndThenReused)
{
    kyNetBufferPool pool;
    Buffer buffer = pool.get();
    ASSERT_NE(buffer, nullptr);
    kyNetBuffer* const first = buffer.get();
    for (int i = 0; i < 10; ++i) {
        buffer.reset();
        buffer = pool.get();
        EXPECT_EQ(buffer.get(), first);
    }
}

TEST(kyNetBufferPool, newBufferHasNoSendMode)
{
    kyNetBufferPool pool;
    EXPECT_EQ(pool.get()->getSendMode(), kyNetBufferSendMode::Automatic);
}

TEST(kyNetBufferPool, comesBackWithTheLastOfItsCopies)
{
    kyNetBufferPool pool;
    Buffer buffer = pool.get();
    kyNetBuffer* const first = buffer.get();
    Buffer copy = buffer;
    buffer.reset();
    EXPECT_NE(pool.get().get(), first);
    copy.reset();
    const Buffer second = pool.get();
    const Buffer third = pool.get();
    EXPECT_TRUE(second.get() == first || third.get() == first);
}

TEST(kyNetBufferPool, holdingManyMakesAsManyAndNoMore)
{
    kyNetBufferPool pool;
    Buffers held;
    pool.getMany(50, held);
    const std::set<kyNetBuffer*> made = addressesOf(held);
    EXPECT_EQ(made.size(), 50U);

    held.clear();
    pool.getMany(50, held);
    EXPECT_EQ(addressesOf(held), made);
    EXPECT_EQ(made.count(pool.get().get()), 0U);
}

TEST(kyNetBufferPool, returnedBuffersAreReusedInTheOrderTheyCameBack)
{
    kyNetBufferPool pool;
    Buffers held;
    pool.getMany(3, held);
    const std::vector<kyNetBuffer*> order = {held[1].get(), held[0].get(), held[2].get()};
    for (const int i : {1, 0, 2}) {
        held[static_cast<std::size_t>(i)].reset();
    }
    held.clear();
    for (kyNetBuffer* expected : order) {
        held.push_back(pool.get());
        EXPECT_EQ(held.back().get(), expected);
    }
}

TEST(kyNetBufferPool, orderIsThatOfComingBackWhicheverThreadsRelease)
{
    kyNetBufferPool pool;
    Buffers held;
    pool.getMany(4, held);
    std::vector<kyNetBuffer*> order;
    for (const std::size_t i : {2U, 0U, 3U, 1U}) {
        order.push_back(held[i].get());
        std::thread([&, i] { held[i].reset(); }).join();
    }
    for (kyNetBuffer* expected : order) {
        held.push_back(pool.get());
        EXPECT_EQ(held.back().get(), expected);
    }
}

TEST(kyNetBufferPool, orderIsThatOfComingBackHoweverManyAreTaken)
{
    constexpr std::size_t buffers = 1000;
    kyNetBufferPool pool;
    Buffers held;
    pool.getMany(buffers, held);
    std::shuffle(held.begin(), held.end(), std::mt19937(1));
    std::vector<kyNetBuffer*> order;
    for (Buffer& buffer : held) {
        order.push_back(buffer.get());
        buffer.reset();
    }
    held.clear();
    for (const int many : {1, 255, 256, 257, 2}) {
        pool.getMany(many, held);
        held.push_back(pool.get());
    }
    pool.getMany(static_cast<int>(buffers - held.size()), held);
    ASSERT_EQ(held.size(), buffers);
    for (std::size_t i = 0; i < buffers; ++i) {
        EXPECT_EQ(held[i].get(), order[i]) << i;
    }
}

TEST(kyNetBufferPool, orderIsThatOfComingBackAcrossThoseThatAreTakenMeanwhile)
{
    constexpr int buffers = 1000;
    kyNetBufferPool pool;
    Buffers held;
    pool.getMany(buffers, held);
    std::vector<kyNetBuffer*> order;
    const auto release = [&] {
        for (Buffer& buffer : held) {
            order.push_back(buffer.get());
            buffer.reset();
        }
        held.clear();
    };
    std::size_t taken = 0;
    const auto take = [&](int count) {
        pool.getMany(count, held);
        for (const Buffer& buffer : held) {
            EXPECT_EQ(buffer.get(), order[taken]) << taken;
            ++taken;
        }
    };
    release();
    take(300);
    release();
    take(699);
    release();
    take(2); // The last of the first and the first of the second ones.
    release();
    take(buffers);
    EXPECT_EQ(taken, 2001U);
}

TEST(kyNetBufferPool, releasingWaitsForNobodyWhereverOthersStandStill)
{
    kyNetBufferPool pool;
    std::atomic<bool> isOver{false};
    std::promise<std::uint64_t> id;
    std::thread user([&] {
        id.set_value(kyTest::getThreadId());
        Buffers taken; // Its memory is kept: nearly all of the time passes in the pool.
        while (!isOver) {
            pool.getMany(100, taken);
            taken.clear();
        }
    });
    Buffers held;
    std::atomic<int> mustRelease{0};
    std::atomic<int> released{0};
    std::thread releaser([&] {
        while (!isOver) {
            if (mustRelease != released) {
                held.clear();
                ++released;
            }
            std::this_thread::yield();
        }
    });
    const std::uint64_t userId = id.get_future().get();
    for (int round = 1; round <= 500 && released == round - 1; ++round) {
        pool.getMany(3, held);
        const kyTest::StoppedThread stopped(userId);
        mustRelease = round;
        kyTest::waitUntil([&] { return released == round; }, std::chrono::seconds(10));
    }
    EXPECT_EQ(released, 500);
    isOver = true;
    user.join();
    releaser.join();
}

TEST(kyNetBufferPool, noBufferIsHeldTwiceWhereverAThreadStandsStill)
{
    constexpr int buffers = 50;
    kyNetBufferPool pool;
    std::atomic<bool> isOver{false};
    std::atomic<int> clashes{0};
    std::array<std::atomic<int>, 2> rounds{};
    std::array<std::promise<std::uint64_t>, 2> ids;
    const auto use = [&](std::uint32_t user) {
        ids[user].set_value(kyTest::getThreadId());
        Buffers taken;
        while (!isOver) {
            pool.getMany(buffers, taken);
            for (const Buffer& buffer : taken) {
                buffer->setSource(user);
            }
            for (const Buffer& buffer : taken) {
                clashes += buffer->getSource() == user ? 0 : 1;
            }
            taken.clear();
            ++rounds[user];
        }
    };
    std::thread first(use, 0);
    std::thread second(use, 1);
    const std::uint64_t id = ids[0].get_future().get();
    for (int i = 0; i < 500; ++i) {
        const kyTest::StoppedThread stopped(id);
        // The other one waits, too, if the first stands between a place and its buffer.
        const int end = rounds[1] + 3;
        kyTest::waitUntil([&] { return rounds[1] >= end; }, std::chrono::milliseconds(2));
    }
    isOver = true;
    first.join();
    second.join();
    EXPECT_EQ(clashes, 0);
}

TEST(kyNetBufferPool, whatOneThreadHasReleasedServesEveryOther)
{
    kyNetBufferPool pool;
    Buffers held;
    pool.getMany(10, held);
    const std::set<kyNetBuffer*> made = addressesOf(held);
    held.clear();
    for (int round = 0; round < 20; ++round) { // Threads come and go, no buffer is lost with them.
        std::thread([&] {
            Buffers taken;
            pool.getMany(10, taken);
            EXPECT_EQ(addressesOf(taken), made);
        }).join();
    }
}

TEST(kyNetBufferPool, getManyOfNoneChangesNothing)
{
    kyNetBufferPool pool;
    Buffers out = {nullptr};
    for (const int n : {0, -1, -2147483647 - 1}) {
        pool.getMany(n, out);
        kyNetBufferPool::popMany(n, out);
        EXPECT_EQ(out, Buffers{nullptr});
    }
}

TEST(kyNetBufferPool, getManyAppends)
{
    kyNetBufferPool pool;
    Buffers out = {nullptr};
    pool.getMany(2, out);
    ASSERT_EQ(out.size(), 3U);
    EXPECT_EQ(out[0], nullptr);
    EXPECT_NE(out[1], nullptr);
    EXPECT_NE(out[2], nullptr);
    EXPECT_NE(out[1], out[2]);
}

// Intended: whoever takes a buffer sets what it relies on.
TEST(kyNetBufferPool, bufferComesAsItWasReturned)
{
    kyNetBufferPool pool;
    Buffer buffer = pool.get();
    *buffer->getBuffer() = kyNetHeader{1, 2, 3, 4, 5, 6, 7};
    buffer->getData()[0] = 'k';
    buffer->setSendMode(kyNetBufferSendMode::Second);
    buffer->setFlag(true);
    buffer.reset();

    buffer = pool.get();
    const kyNetHeader expected = {1, 2, 3, 4, 5, 6, 7};
    EXPECT_EQ(std::memcmp(buffer->getBuffer(), &expected, sizeof expected), 0);
    EXPECT_EQ(buffer->getData()[0], 'k');
    EXPECT_EQ(buffer->getSendMode(), kyNetBufferSendMode::Second);
    EXPECT_TRUE(buffer->getFlag());
}

TEST(kyNetBufferPool, poolOfTheProcessServesAll)
{
    Buffers held;
    held.push_back(kyNetBufferPool::pop());
    kyNetBufferPool::popMany(4, held);
    const std::set<kyNetBuffer*> made = addressesOf(held);
    EXPECT_EQ(made.size(), 5U);
    EXPECT_EQ(made.count(nullptr), 0U);

    // The pool is one: what one member took, the other gives again.
    held.clear();
    std::set<kyNetBuffer*> again;
    while (again.size() < made.size()) {
        held.push_back(kyNetBufferPool::pop());
        ASSERT_TRUE(again.insert(held.back().get()).second);
    }
    EXPECT_EQ(again, made);
}

TEST(kyNetBufferPool, buffersOutliveTheirPool)
{
    auto pool = std::make_unique<kyNetBufferPool>();
    Buffers held;
    pool->getMany(3, held);
    held.pop_back();
    pool.reset();
    std::memset(held[0]->getData(), 1, kyNetBuffer::getCapacity());
    held[0].reset();
    EXPECT_EQ(held[1].use_count(), 1);
}

TEST(kyNetBufferPool, buffersOfManyThreadsOutliveTheirPool)
{
    for (int round = 0; round < 200; ++round) {
        auto pool = std::make_unique<kyNetBufferPool>();
        std::vector<std::weak_ptr<kyNetBuffer>> ends(3);
        std::atomic<int> holding{0};
        std::vector<std::thread> threads;
        for (std::weak_ptr<kyNetBuffer>& end : ends) {
            threads.emplace_back([&] {
                Buffers held;
                pool->getMany(3, held);
                end = held.front();
                held.pop_back();
                ++holding;
                held.clear(); // While the pool goes, or after it.
            });
        }
        while (holding != 3) {
            std::this_thread::yield();
        }
        pool.reset();
        for (std::thread& thread : threads) {
            thread.join();
        }
        for (const std::weak_ptr<kyNetBuffer>& end : ends) {
            EXPECT_TRUE(end.expired());
        }
    }
}

TEST(kyNetBufferPool, copiesShareTheirBuffers)
{
    kyNetBufferPool pool;
    kyNetBuffer* const first = pool.get().get();

    kyNetBufferPool copy(pool);
    const Buffer taken = copy.get();
    EXPECT_EQ(taken.get(), first);
    EXPECT_NE(pool.get().get(), first);

    kyNetBufferPool assigned;
    assigned.get();
    assigned = pool;
    EXPECT_NE(assigned.get().get(), first);
}

TEST(kyNetBufferPool, anyThreadMayReturnABuffer)
{
    kyNetBufferPool pool;
    Buffer buffer = pool.get();
    kyNetBuffer* const first = buffer.get();
    std::thread([moved = std::move(buffer)]() mutable { moved.reset(); }).join();
    EXPECT_EQ(pool.get().get(), first);
}

TEST(kyNetBufferPool, weakPointerKeepsNoBufferFromComingBack)
{
    kyNetBufferPool pool;
    kyNetBuffer* const first = pool.get().get();
    std::vector<std::weak_ptr<kyNetBuffer>> ends;
    for (int i = 0; i < 5; ++i) {
        const Buffer buffer = pool.get();
        EXPECT_EQ(buffer.get(), first);
        ends.push_back(buffer);
    }
    for (const std::weak_ptr<kyNetBuffer>& end : ends) {
        EXPECT_TRUE(end.expired());
    }
}

TEST(kyNetBufferPool, weakPointersOutliveTheirPool)
{
    std::weak_ptr<kyNetBuffer> end;
    {
        kyNetBufferPool pool;
        end = pool.get();
    }
    EXPECT_EQ(end.lock(), nullptr);
}

TEST(kyNetBufferPool, getManyWithoutMemoryLosesNoBuffer)
{
    constexpr std::size_t buffers = 20;
    for (const std::size_t granted : {0U, 1U, 7U, 19U}) {
        kyNetBufferPool pool;
        Buffers held;
        held.reserve(buffers + 1);
        pool.getMany(buffers, held);
        const std::set<kyNetBuffer*> made = addressesOf(held);
        // Until there are so many weak pointers that the next use of each buffer takes memory.
        std::vector<std::weak_ptr<kyNetBuffer>> ends;
        for (int requests = 0; requests == 0;) {
            ends.insert(ends.end(), held.begin(), held.end());
            held.clear();
            const kyTest::CountedMemory memory;
            pool.getMany(buffers, held);
            requests = memory.getCount();
        }
        ends.insert(ends.end(), held.begin(), held.end());
        held.clear();
        {
            const kyTest::NoMemoryAfter memory(static_cast<int>(granted));
            EXPECT_THROW(pool.getMany(buffers, held), std::bad_alloc);
        }
        EXPECT_EQ(held.size(), granted);

        pool.getMany(static_cast<int>(buffers - granted), held);
        EXPECT_EQ(addressesOf(held), made);
    }
}

TEST(kyNetBufferPool, growthThatFailedForLackOfMemorySucceedsLater)
{
    constexpr int buffers = kyTest::s_isSlow ? 100 : 200;
    bool hasFailed = true;
    int granted = 0;
    for (; hasFailed; ++granted) {
        kyNetBufferPool pool;
        Buffers held;
        held.reserve(buffers);
        {
            const kyTest::NoMemoryAfter memory(granted);
            try {
                pool.getMany(buffers, held);
            } catch (const std::bad_alloc&) {
                EXPECT_LT(held.size(), buffers);
            }
            hasFailed = memory.hasFailed();
        }
        pool.getMany(buffers - static_cast<int>(held.size()), held);
        const std::set<kyNetBuffer*> made = addressesOf(held);
        EXPECT_EQ(made.size(), buffers);

        held.clear();
        pool.getMany(buffers, held);
        EXPECT_EQ(addressesOf(held), made);
    }
    EXPECT_GT(granted, 2 * buffers); // For each more than one thing.
}

TEST(kyNetBufferPool, takingAndReleasingAllocatesNothing)
{
    kyNetBufferPool pool;
    Buffers held;
    held.reserve(100);
    pool.getMany(100, held);
    held.clear();

    const kyTest::CountedMemory memory;
    for (int round = 0; round < 1000; ++round) {
        pool.get();
        pool.getMany(100, held);
        held.clear();
    }
    EXPECT_EQ(memory.getCount(), 0);
    // Beside the zero, which would also be if nothing were counted.
    pool.getMany(101, held);
    EXPECT_GT(memory.getCount(), 0);
}

TEST(kyNetBufferPool, takingInOneThreadAndReleasingInAnotherAllocatesNothing)
{
    constexpr int messages = 20000;
    kyNetBufferPool pool;
    // What is on the way, so many at most, and beside it one that is just taken or released.
    std::array<Buffer, 4> onTheWay;
    std::array<std::atomic<bool>, 4> isFull{};
    {
        Buffers held;
        pool.getMany(static_cast<int>(onTheWay.size()) + 2, held);
    }
    std::atomic<bool> isStarted{false};
    std::thread consumer([&] {
        isStarted = true;
        for (std::size_t i = 0; i < messages; ++i) {
            const std::size_t place = i % onTheWay.size();
            while (!isFull[place]) {
                std::this_thread::yield();
            }
            onTheWay[place].reset();
            isFull[place] = false;
        }
    });
    while (!isStarted) {
        std::this_thread::yield();
    }
    {
        const kyTest::CountedMemory memory;
        for (std::size_t i = 0; i < messages; ++i) {
            const std::size_t place = i % onTheWay.size();
            while (isFull[place]) {
                std::this_thread::yield();
            }
            onTheWay[place] = pool.get();
            isFull[place] = true;
        }
        EXPECT_EQ(memory.getCount(), 0);
    }
    consumer.join();
}

TEST(kyNetBufferPool, noTwoThreadsEverHoldTheSameBuffer)
{
    constexpr unsigned threads = 6;
    constexpr unsigned most = 8;
    kyNetBufferPool pool;
    std::atomic<int> clashes{0};
    std::mutex mutex;
    std::set<kyNetBuffer*> seen;

    std::vector<std::thread> workers;
    for (unsigned t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            std::mt19937 random(t);
            std::set<kyNetBuffer*> mine;
            for (int round = 0; round < 3000; ++round) {
                Buffers held;
                pool.getMany(static_cast<int>(1 + random() % most), held);
                for (const Buffer& buffer : held) {
                    buffer->setSource(t);
                    mine.insert(buffer.get());
                }
                if (round % 16 == 0) {
                    std::this_thread::yield();
                }
                for (const Buffer& buffer : held) {
                    clashes += buffer->getSource() == t ? 0 : 1;
                }
                std::shuffle(held.begin(), held.end(), random);
            }
            const std::lock_guard<std::mutex> lock(mutex);
            seen.insert(mine.begin(), mine.end());
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    EXPECT_EQ(clashes, 0);
    // Contention may make a few more than are ever held, but the pool does not grow for ever.
    EXPECT_LE(seen.size(), 4 * threads * most);
}

TEST(kyNetBufferPool, buffersTravelBetweenThreads)
{
    kyNetBufferPool pool;
    std::mutex mutex;
    std::vector<Buffer> onTheWay;
    std::atomic<int> received{0};
    constexpr int messages = 5000;

    std::thread producer([&] {
        for (int i = 0; i < messages; ++i) {
            Buffer buffer = pool.get();
            buffer->setSequence(i);
            buffer->getData()[0] = static_cast<char>(i);
            const std::lock_guard<std::mutex> lock(mutex);
            onTheWay.push_back(std::move(buffer));
        }
    });
    std::thread consumer([&] {
        while (received < messages) {
            std::vector<Buffer> arrived;
            {
                const std::lock_guard<std::mutex> lock(mutex);
                arrived.swap(onTheWay);
            }
            for (const Buffer& buffer : arrived) {
                EXPECT_EQ(buffer->getData()[0], static_cast<char>(buffer->getSequence()));
                ++received;
            }
        }
    });
    producer.join();
    consumer.join();
    EXPECT_EQ(received, messages);
}

namespace {

/// Ends the process while a detached thread takes and returns buffers, and with some that only
/// a destructor at exit returns.
[[noreturn]] void exitWithBuffersOnTheWay()
{
    static Buffers s_held;
    kyNetBufferPool::popMany(5, s_held);
    std::atomic<bool> isRunning{false};
    std::thread([&isRunning] {
        for (;;) {
            Buffers held;
            kyNetBufferPool::popMany(3, held);
            isRunning = true;
        }
    }).detach();
    while (!isRunning) {
        std::this_thread::yield();
    }
    std::exit(7);
}

} // namespace

TEST(kyNetBufferPoolDeathTest, processEndsWhileBuffersAreReturned)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(exitWithBuffersOnTheWay(), testing::ExitedWithCode(7), "^$");
}
