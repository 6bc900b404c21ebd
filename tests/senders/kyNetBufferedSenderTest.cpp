#include <NetBase/senders/kyNetBufferedSender.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <limits>
#include <map>
#include <memory>
#include <new>
#include <numeric>
#include <optional>
#include <queue>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyNetOptions.h>
#include <NetBase/platform/kyThreads.h>
#include <NetBase/senders/kyNetLinkSender.h>
#include <tests/support/kyTestBlocked.h>
#include <tests/support/kyTestChains.h>
#include <tests/support/kyTestMemory.h>
#include <tests/support/kyTestSlowness.h>
#include <tests/support/kyTestSystem.h>
#include <tests/support/kyTestThreads.h>
#include <tests/support/kyTestWait.h>
#include <tests/support/kyTestWorkerChild.h>

using kyTest::Blocked;
using kyTest::Buffer;
using kyTest::makeBuffer;
using kyTest::messagesOf;
using kyTest::WorkerChild;

static_assert(!std::is_copy_constructible_v<kyNetBufferedSender>);
static_assert(!std::is_copy_assignable_v<kyNetBufferedSender>);

namespace {

using namespace std::chrono_literals;

using Children = std::vector<std::shared_ptr<WorkerChild>>;
using Senders = std::vector<std::shared_ptr<kyNetSender>>;
using Strings = std::vector<std::string>;

/// Sets the stream buffer size; the default is restored on destruction.
class StreamBufferSize
{
public:
    explicit StreamBufferSize(int size) { kyNetOptions::setStreamBufferSize(size); }
    ~StreamBufferSize() { kyNetOptions::setStreamBufferSize(-1); }

    StreamBufferSize(const StreamBufferSize&) = delete;
    StreamBufferSize& operator=(const StreamBufferSize&) = delete;
};

Children makeChildren(int count)
{
    Children children;
    for (int i = 0; i < count; ++i) {
        children.push_back(std::make_shared<WorkerChild>());
    }
    return children;
}

std::shared_ptr<kyNetSender> makeSender(const Children& children, int capacity = -1)
{
    return kyNetBufferedSender::create(Senders(children.begin(), children.end()), capacity);
}

/// Sends a buffer of its own to the worker of each child and keeps it inside there, so that all
/// that is sent from now on is queued.
void occupyAll(kyNetSender& sender, const Children& children)
{
    for (const auto& child : children) {
        child->hold();
    }
    const auto entered = [&] {
        return std::accumulate(children.begin(), children.end(), 0,
                               [](int sum, const auto& child) { return sum + child->entered(); });
    };
    for (int i = 1; i <= static_cast<int>(children.size()); ++i) {
        sender.send(makeBuffer("held"));
        ASSERT_TRUE(kyTest::waitUntil([&] { return entered() == i; }));
    }
}

/// A buffer that shares no bundle with the one before and after it.
Buffer makeUnbundled(int number)
{
    return makeBuffer(std::to_string(number), 0, static_cast<std::uint32_t>(1 + number % 2));
}

std::size_t countMessages(const Children& children)
{
    std::size_t count = 0;
    for (const auto& child : children) {
        count += child->messages().size();
    }
    return count;
}

void waitForThreads(std::size_t count)
{
    ASSERT_TRUE(kyTest::waitUntil([&] { return kyTest::countThreads() == count; }))
        << kyTest::countThreads();
}

/// What an action throws, and nothing else.
const kyConnectionClosed* thrownBy(const std::function<void()>& action)
{
    try {
        action();
    } catch (const kyConnectionClosed& error) {
        return &error;
    }
    return nullptr;
}

/// An exception and its address, which everybody is to be thrown.
struct Failure
{
    Failure()
    {
        try {
            throw kyConnectionClosed();
        } catch (const kyConnectionClosed& error) {
            object = &error;
            pointer = std::current_exception();
        }
    }
    const kyConnectionClosed* object;
    std::exception_ptr pointer;
};

/// How many messages each buffer that a child was sent holds, when it is given so many of so many
/// bytes at once.
std::vector<std::size_t> batchesOf(int count, std::size_t size)
{
    const Children children = makeChildren(1);
    const auto sender = makeSender(children);
    occupyAll(*sender, children);
    for (int i = 0; i < count; ++i) {
        sender->send(makeBuffer(std::string(size, 'x')));
    }
    children[0]->letGo();
    sender->waitAllDataTransfered();

    std::vector<std::size_t> batches;
    for (const Buffer& buffer : children[0]->sent()) {
        batches.push_back(messagesOf({buffer}).size());
    }
    EXPECT_EQ(batches.front(), 1u); // The one that was held.
    batches.erase(batches.begin());
    return batches;
}

} // namespace

TEST(kyNetBufferedSender, oneThreadServesEachChild)
{
    const std::size_t threads = kyTest::countThreads();
    for (const int count : {1, 4}) {
        const Children children = makeChildren(count);
        auto sender = makeSender(children);
        EXPECT_EQ(kyTest::countThreads(), threads + static_cast<std::size_t>(count));
        EXPECT_NE(dynamic_cast<kyNetBufferedSender*>(sender.get()), nullptr);
        occupyAll(*sender, children);
        for (const auto& child : children) {
            child->letGo();
        }
        sender->waitAllDataTransfered();
        for (const auto& child : children) {
            EXPECT_EQ(child->threads().size(), 1u);
        }
        sender.reset();
        waitForThreads(threads);
    }
}

TEST(kyNetBufferedSender, singleChildGetsAThreadToo)
{
    const std::size_t threads = kyTest::countThreads();
    const auto child = std::make_shared<WorkerChild>();
    const auto sender = kyNetBufferedSender::create(child, 10);
    EXPECT_NE(dynamic_cast<kyNetBufferedSender*>(sender.get()), nullptr);
    EXPECT_EQ(kyTest::countThreads(), threads + 1);
    EXPECT_EQ(sender->getChildren(), (Senders{child}));
    sender->send(makeBuffer("x"));
    sender->waitAllDataTransfered();
    EXPECT_EQ(child->messages(), (Strings{"x"}));
    EXPECT_EQ(child->threads().count(std::this_thread::get_id()), 0u);
}

TEST(kyNetBufferedSender, asksItsChildrenForAllElse)
{
    const auto first = std::make_shared<WorkerChild>(std::set<unsigned int>{2, 3});
    const auto second = std::make_shared<WorkerChild>(std::set<unsigned int>{4});
    const auto sender = kyNetBufferedSender::create(Senders{first, second}, -1);
    EXPECT_EQ(sender->getDestinations(), (std::set<unsigned int>{2, 3, 4}));
    EXPECT_EQ(sender->getCompressedBytes(), 154u);
    EXPECT_EQ(sender->getNodeAffinity(), -1);
    sender->resetStatistics();
    sender->waitAllDataTransfered();
    for (const auto& child : {first, second}) {
        EXPECT_EQ(child->resets, 1);
        EXPECT_EQ(child->waits, 1);
    }
}

TEST(kyNetBufferedSender, linksAreThoseOfItsChildren)
{
    const auto first = std::make_shared<kyTest::KeepingLink>();
    const auto second = std::make_shared<kyTest::KeepingLink>();
    const auto sender = kyNetBufferedSender::create(
        Senders{kyNetLinkSender::create(first), kyNetLinkSender::create(second)}, -1);
    EXPECT_EQ(sender->getLinks(), (std::vector<std::shared_ptr<kyNetLink>>{first, second}));
    sender->shutdown();
    EXPECT_TRUE(first->isShutDown);
    EXPECT_TRUE(second->isShutDown);
}

TEST(kyNetBufferedSender, oneChildSendsInTheOrderOfTheQueue)
{
    const Children children = makeChildren(1);
    const auto sender = makeSender(children);
    Strings expected;
    for (int i = 0; i < 2000; ++i) {
        expected.push_back(std::to_string(i));
        sender->send(makeBuffer(expected.back(), 1, i % 7 == 0 ? 2 : 3));
    }
    sender->waitAllDataTransfered();
    EXPECT_EQ(children[0]->messages(), expected);
}

TEST(kyNetBufferedSender, lonelyBufferIsPassedOnAsItIs)
{
    const Children children = makeChildren(1);
    const auto sender = makeSender(children);
    const Buffer buffer = makeBuffer("x");
    sender->send(buffer);
    sender->waitAllDataTransfered();
    ASSERT_EQ(children[0]->sent().size(), 1u);
    EXPECT_EQ(children[0]->sent()[0], buffer);
}

TEST(kyNetBufferedSender, freeChildTakesWhatABusyOneCannot)
{
    const Children children = makeChildren(2);
    const auto sender = makeSender(children);
    occupyAll(*sender, children);
    children[1]->letGo();
    for (int i = 0; i < 100; ++i) {
        sender->send(makeBuffer("x"));
    }
    ASSERT_TRUE(kyTest::waitUntil([&] { return children[1]->messages().size() == 101; }));
    EXPECT_EQ(children[0]->entered(), 1);
    children[0]->letGo();
    sender->waitAllDataTransfered();
    EXPECT_EQ(children[0]->messages(), (Strings{"held"}));
}

TEST(kyNetBufferedSender, queueIsFullAtItsCapacity)
{
    const std::pair<int, int> capacities[] = {{1, 1},
                                              {2, 2},
                                              {10, 10},
                                              {257, 257},
                                              {0, 256},
                                              {-1, 256},
                                              {std::numeric_limits<int>::min(), 256}};
    for (const auto& [argument, capacity] : capacities) {
        const Children children = makeChildren(1);
        const auto sender = makeSender(children, argument);
        occupyAll(*sender, children);
        for (int i = 0; i < capacity; ++i) {
            sender->send(makeBuffer("x"));
        }
        Blocked next([&] { sender->send(makeBuffer("next")); });
        EXPECT_TRUE(next.isBlocked()) << argument;
        children[0]->letGo();
        next.finish();
        sender->waitAllDataTransfered();
        EXPECT_EQ(children[0]->messages().size(), static_cast<std::size_t>(capacity) + 2);
        EXPECT_EQ(children[0]->messages().back(), "next");
    }
}

// Seven of 10020 bytes are the first that do not stay below 65536, half the stream buffer size.
TEST(kyNetBufferedSender, batchEndsWithTheBufferThatCrossesTheLimit)
{
    std::vector<std::size_t> expected(14, 7);
    expected.push_back(2);
    EXPECT_EQ(batchesOf(100, 10000), expected);
}

TEST(kyNetBufferedSender, batchLimitFollowsTheCappedStreamBufferSize)
{
    const StreamBufferSize size(1048576);
    std::vector<std::size_t> expected(14, 7);
    expected.push_back(2);
    EXPECT_EQ(batchesOf(100, 10000), expected);
}

TEST(kyNetBufferedSender, batchThatReachesTheLimitIsFull)
{
    // Halves rounded down; 10020 bytes each.
    const std::pair<int, std::vector<std::size_t>> sizes[] = {
        {1, {1, 1, 1, 1}}, {20040, {1, 1, 1, 1}}, {20041, {1, 1, 1, 1}}, {20042, {2, 2}},
        {40080, {2, 2}},   {40082, {3, 1}},       {80160, {4}},
    };
    for (const auto& [streamBufferSize, expected] : sizes) {
        const StreamBufferSize size(streamBufferSize);
        EXPECT_EQ(batchesOf(4, 10000), expected) << streamBufferSize;
    }
}

TEST(kyNetBufferedSender, batchNeverWaitsForMore)
{
    const Children children = makeChildren(1);
    const auto sender = makeSender(children);
    for (std::size_t i = 1; i <= 10; ++i) {
        sender->send(makeBuffer("x"));
        ASSERT_TRUE(children[0]->hasSent(i));
    }
}

// Four of 131092 bytes are the first that are not below 524288.
TEST(kyNetBufferedSender, handsWhatIsQueuedToItsChildTogether)
{
    const Children children = makeChildren(1);
    const auto sender = makeSender(children);
    occupyAll(*sender, children);
    Strings expected{"held"};
    for (int i = 0; i < 10; ++i) {
        expected.emplace_back(131072, static_cast<char>('a' + i));
        sender->send(makeBuffer(expected.back()));
    }
    children[0]->letGo();
    sender->waitAllDataTransfered();
    EXPECT_EQ(children[0]->messages(), expected);
    EXPECT_EQ(children[0]->sentTogether(), (std::vector<std::size_t>{1, 4, 4, 2}));
}

TEST(kyNetBufferedSender, handsBundlesOfSeveralBatchesToItsChildTogether)
{
    const Children children = makeChildren(1);
    const auto sender = makeSender(children);
    occupyAll(*sender, children);
    for (int i = 0; i < 20; ++i) {
        sender->send(makeBuffer(std::string(10000, 'x')));
    }
    children[0]->letGo();
    sender->waitAllDataTransfered();
    EXPECT_EQ(children[0]->sentTogether(), (std::vector<std::size_t>{1, 3}));
    EXPECT_EQ(children[0]->messages().size(), 21u);
}

// What is taken would else be late by all that its callers can send meanwhile.
TEST(kyNetBufferedSender, handsOverNoMoreThanWaitedWhenItBegan)
{
    const Children children = makeChildren(1);
    const auto sender = makeSender(children, 2);
    std::vector<std::future<void>> callers;
    for (int t = 0; t < 2; ++t) {
        callers.push_back(std::async(std::launch::async, [&] {
            for (int i = 0; i < 300; ++i) {
                sender->send(makeBuffer(std::string(65536, 'x')));
            }
        }));
    }
    callers.clear();
    sender->waitAllDataTransfered();
    const std::vector<std::size_t> together = children[0]->sentTogether();
    // The first one, two in the queue, and two whose callers wait for room.
    EXPECT_LE(*std::max_element(together.begin(), together.end()), 5u);
    EXPECT_EQ(std::accumulate(together.begin(), together.end(), std::size_t{0}), 600u);
}

TEST(kyNetBufferedSender, leavesToOtherChildrenWhatTheyCanTake)
{
    const Children children = makeChildren(4);
    const auto sender = makeSender(children);
    occupyAll(*sender, children);
    for (int i = 0; i < 4; ++i) {
        sender->send(makeBuffer(std::string(131072, 'x')));
    }
    children[0]->letGo();
    ASSERT_TRUE(children[0]->hasSent(5));
    EXPECT_EQ(children[0]->sentTogether(), (std::vector<std::size_t>{1, 1, 1, 1, 1}));
    for (const auto& child : children) {
        child->letGo();
    }
}

TEST(kyNetBufferedSender, emptyBufferEndsTheWorkerThatTakesIt)
{
    const std::size_t threads = kyTest::countThreads();
    const Children children = makeChildren(1);
    const auto sender = makeSender(children);
    occupyAll(*sender, children);
    sender->send(makeBuffer("before"));
    sender->send(makeBuffer(""));
    sender->send(makeBuffer("after"));
    children[0]->letGo();
    waitForThreads(threads);
    EXPECT_EQ(children[0]->messages(), (Strings{"held", "before"}));
    sender->send(makeBuffer("later"));
    EXPECT_EQ(children[0]->entered(), 2);
}

TEST(kyNetBufferedSender, emptyBufferIsDoneWhenItsWorkerHasEnded)
{
    const Children children = makeChildren(1);
    const auto sender = makeSender(children);
    sender->send(makeBuffer("before"));
    sender->send(makeBuffer(""));
    sender->waitAllDataTransfered();
    EXPECT_EQ(children[0]->messages(), (Strings{"before"}));
}

TEST(kyNetBufferedSender, whatFollowsAnEmptyBufferIsLeftToTheOtherChild)
{
    const std::size_t threads = kyTest::countThreads();
    const Children children = makeChildren(2);
    const auto sender = makeSender(children);
    occupyAll(*sender, children);
    sender->send(makeBuffer("a"));
    sender->send(makeBuffer(""));
    sender->send(makeBuffer("b"));
    children[0]->letGo();
    waitForThreads(threads + 1);
    EXPECT_EQ(children[0]->messages(), (Strings{"held", "a"}));
    children[1]->letGo();
    for (int i = 0; i < 50; ++i) {
        sender->send(makeBuffer("c"));
    }
    sender->waitAllDataTransfered();
    EXPECT_EQ(children[0]->entered(), 2);
    const Strings messages = children[1]->messages();
    ASSERT_EQ(messages.size(), 52u);
    EXPECT_EQ(messages[1], "b");
}

TEST(kyNetBufferedSender, waitingReturnsWhenTheLastSendHas)
{
    const Children children = makeChildren(2);
    const auto sender = makeSender(children);
    sender->waitAllDataTransfered();
    EXPECT_EQ(children[0]->waits, 1);

    occupyAll(*sender, children);
    auto waiting = std::async(std::launch::async, [&] { sender->waitAllDataTransfered(); });
    children[0]->letGo();
    ASSERT_TRUE(children[0]->hasSent(1));
    EXPECT_EQ(waiting.wait_for(50ms), std::future_status::timeout);
    children[1]->letGo();
    ASSERT_EQ(waiting.wait_for(kyTest::s_patience), std::future_status::ready);
    waiting.get();
    EXPECT_EQ(children[0]->waits, 2);
    EXPECT_EQ(children[1]->waits, 2);
}

TEST(kyNetBufferedSender, passedBuffersAreReleasedWhenWaitingReturns)
{
    for (int i = 0; i < 200; ++i) {
        const Children children = makeChildren(1);
        const auto sender = makeSender(children);
        Buffer buffer = makeBuffer("x");
        const std::weak_ptr<kyNetBuffer> watched = buffer;
        sender->send(buffer);
        buffer.reset();
        sender->waitAllDataTransfered();
        children[0]->forget();
        ASSERT_TRUE(watched.expired()) << i;
    }
}

TEST(kyNetBufferedSender, manyThreadsSendOverManyChildren)
{
    const Children children = makeChildren(4);
    const auto sender = makeSender(children, 16);
    constexpr int s_each = 500;
    std::vector<std::future<void>> threads;
    for (int t = 0; t < 4; ++t) {
        threads.push_back(std::async(std::launch::async, [&, t] {
            for (int i = 0; i < s_each; ++i) {
                sender->send(makeBuffer(std::to_string(t * s_each + i)));
            }
            sender->waitAllDataTransfered();
        }));
    }
    for (auto& thread : threads) {
        thread.get();
    }
    std::vector<int> received;
    for (const auto& child : children) {
        for (const std::string& message : child->messages()) {
            received.push_back(std::stoi(message));
        }
    }
    std::sort(received.begin(), received.end());
    std::vector<int> expected(4 * s_each);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(received, expected);
}

TEST(kyNetBufferedSender, destructionDropsWhatIsQueued)
{
    const Children children = makeChildren(1);
    auto sender = makeSender(children);
    occupyAll(*sender, children);
    std::vector<std::weak_ptr<kyNetBuffer>> queued;
    for (int i = 0; i < 5; ++i) {
        const Buffer buffer = makeBuffer("queued");
        queued.push_back(buffer);
        sender->send(buffer);
    }
    Blocked end([&] { sender.reset(); });
    for (const auto& buffer : queued) {
        EXPECT_TRUE(kyTest::waitUntil([&] { return buffer.expired(); }));
    }
    // The send that is on its way is waited for.
    EXPECT_TRUE(end.isBlocked());
    children[0]->letGo();
    end.finish();
    EXPECT_EQ(children[0]->messages(), (Strings{"held"}));
}

// What a worker has taken is no longer queued, however many buffers its child is sent.
TEST(kyNetBufferedSender, destructionWaitsForAllThatAWorkerHasTaken)
{
    const auto child = std::make_shared<kyTest::KeepingSender>();
    std::promise<void> alone;
    std::promise<void> first;
    std::promise<void> second;
    std::promise<void> taken;
    child->onSend = [&, number = 0](kyNetBuffer&) mutable {
        if (++number == 1) {
            alone.set_value();
            first.get_future().wait();
        } else if (number == 2) {
            taken.set_value();
            second.get_future().wait();
        }
    };
    auto sender = kyNetBufferedSender::create(child, -1);
    sender->send(makeUnbundled(0));
    ASSERT_EQ(alone.get_future().wait_for(kyTest::s_patience), std::future_status::ready);
    for (int i = 1; i <= 5; ++i) {
        sender->send(makeUnbundled(i));
    }
    first.set_value();
    ASSERT_EQ(taken.get_future().wait_for(kyTest::s_patience), std::future_status::ready);
    Blocked end([&] { sender.reset(); });
    EXPECT_TRUE(end.isBlocked());
    second.set_value();
    end.finish();
    EXPECT_EQ(messagesOf(child->sent), (Strings{"0", "1", "2", "3", "4", "5"}));
}

TEST(kyNetBufferedSender, endMarkersNeedNoRoom)
{
    const std::size_t threads = kyTest::countThreads();
    for (const int count : {1, 2, 50}) {
        auto sender = makeSender(makeChildren(count), 1);
        auto end = std::async(std::launch::async, [&] { sender.reset(); });
        ASSERT_EQ(end.wait_for(kyTest::s_patience), std::future_status::ready);
        waitForThreads(threads);
    }
}

TEST(kyNetBufferedSender, endAtAnyMomentReleasesEveryThread)
{
    for (int round = 0; round < 200; ++round) {
        const Children children = makeChildren(3);
        children[0]->failAt(round % 5, Failure().pointer);
        auto sender = makeSender(children, 4);
        thrownBy([&] {
            for (int i = 0; i < round % 23; ++i) {
                sender->send(i % 11 == 10 ? makeBuffer("") : makeBuffer("x"));
            }
        });
        auto end = std::async(std::launch::async, [&] { sender.reset(); });
        ASSERT_EQ(end.wait_for(kyTest::s_patience), std::future_status::ready) << round;
    }
}

TEST(kyNetBufferedSender, withoutChildrenAllIsDroppedAtTheEnd)
{
    auto sender = kyNetBufferedSender::create(Senders{}, 10);
    sender->waitAllDataTransfered();
    std::weak_ptr<kyNetBuffer> last;
    for (int i = 0; i < 10; ++i) {
        const Buffer buffer = makeBuffer("x");
        last = buffer;
        sender->send(buffer);
    }
    EXPECT_FALSE(last.expired());
    sender.reset();
    EXPECT_TRUE(last.expired());
}

TEST(kyNetBufferedSender, failureReachesTheCallersWhereverItHappens)
{
    constexpr int s_buffers = 60;
    for (const int count : {1, 4}) {
        for (const int position : {1, 10, s_buffers - count + 1}) {
            const Failure failure;
            const Children children = makeChildren(count);
            children.back()->failAt(position, failure.pointer);
            auto sender = makeSender(children);
            occupyAll(*sender, children);
            for (int i = count; i < s_buffers; ++i) {
                sender->send(makeUnbundled(i));
            }
            // Only the last child works now, so that it comes to its failing send.
            children.back()->letGo();
            EXPECT_EQ(thrownBy([&] { sender->waitAllDataTransfered(); }), failure.object);
            EXPECT_EQ(children.back()->entered(), position);
            for (const auto& child : children) {
                child->letGo();
            }
            EXPECT_EQ(thrownBy([&] { sender->send(makeBuffer("late")); }), failure.object);
            EXPECT_EQ(thrownBy([&] { sender->waitAllDataTransfered(); }), failure.object);
            EXPECT_EQ(thrownBy([&] { sender->send(makeBuffer("later")); }), failure.object);

            auto end = std::async(std::launch::async, [&] { sender.reset(); });
            ASSERT_EQ(end.wait_for(kyTest::s_patience), std::future_status::ready);
            // The failed one sends nothing more, and the others only what they were at.
            EXPECT_EQ(children.back()->entered(), position);
            EXPECT_EQ(countMessages(children), static_cast<std::size_t>(count - 2 + position));
        }
    }
}

TEST(kyNetBufferedSender, failureLetsGoOfAllThatItsWorkerHasTaken)
{
    const Children children = makeChildren(1);
    children[0]->failAt(2, Failure().pointer);
    const auto sender = makeSender(children);
    occupyAll(*sender, children);
    std::vector<std::weak_ptr<kyNetBuffer>> taken;
    for (int i = 0; i < 5; ++i) {
        const Buffer buffer = makeUnbundled(i);
        taken.push_back(buffer);
        sender->send(buffer);
    }
    children[0]->letGo();
    for (const auto& buffer : taken) {
        ASSERT_TRUE(kyTest::waitUntil([&] { return buffer.expired(); }));
    }
    EXPECT_EQ(children[0]->messages(), (Strings{"held"}));
}

TEST(kyNetBufferedSender, firstFailureIsKept)
{
    struct Counted : kyConnectionClosed
    {
        explicit Counted(const std::shared_ptr<int>& use) : m_use(use) {}
        std::shared_ptr<int> m_use;
    };
    const Failure first;
    auto use = std::make_shared<int>();
    const std::weak_ptr<int> second = use;
    const Children children = makeChildren(2);
    children[0]->failAt(1, first.pointer);
    children[1]->failAt(1, std::make_exception_ptr(Counted(use)));
    use.reset();
    const auto sender = makeSender(children);
    occupyAll(*sender, children);
    children[0]->letGo();
    EXPECT_EQ(thrownBy([&] { sender->waitAllDataTransfered(); }), first.object);
    EXPECT_FALSE(second.expired());
    children[1]->letGo();
    EXPECT_TRUE(kyTest::waitUntil([&] { return second.expired(); }));
    EXPECT_EQ(thrownBy([&] { sender->send(makeBuffer("x")); }), first.object);
    EXPECT_EQ(thrownBy([&] { sender->waitAllDataTransfered(); }), first.object);
}

TEST(kyNetBufferedSender, failureMayBeAnything)
{
    const auto thrown = [](std::exception_ptr failure) {
        const Children children = makeChildren(1);
        children[0]->failAt(1, std::move(failure));
        const auto sender = makeSender(children);
        sender->send(makeBuffer("x"));
        sender->waitAllDataTransfered();
    };
    struct Own
    {
    };
    EXPECT_THROW(thrown(std::make_exception_ptr(kyNetError("x"))), kyNetError);
    EXPECT_THROW(thrown(std::make_exception_ptr(std::logic_error("x"))), std::logic_error);
    EXPECT_THROW(thrown(std::make_exception_ptr(std::bad_alloc())), std::bad_alloc);
    EXPECT_THROW(thrown(std::make_exception_ptr(42)), int);
    EXPECT_THROW(thrown(std::make_exception_ptr("text")), const char*);
    EXPECT_THROW(thrown(std::make_exception_ptr(Own())), Own);
}

TEST(kyNetBufferedSender, failureWakesASendThatWaitsForRoom)
{
    const Failure failure;
    const Children children = makeChildren(1);
    children[0]->failAt(1, failure.pointer);
    const auto sender = makeSender(children, 3);
    occupyAll(*sender, children);
    for (int i = 0; i < 3; ++i) {
        sender->send(makeBuffer("x"));
    }
    const kyConnectionClosed* thrown = nullptr;
    Blocked blocked([&] { thrown = thrownBy([&] { sender->send(makeBuffer("next")); }); });
    ASSERT_TRUE(blocked.isBlocked());
    children[0]->letGo();
    blocked.finish();
    EXPECT_EQ(thrown, failure.object);
    EXPECT_EQ(children[0]->entered(), 1);
}

// The empty ones must not end the only worker that makes room, wherever they stand.
TEST(kyNetBufferedSender, failureWakesEverySendThatWaitsForRoom)
{
    for (const int position : {1, 2}) {
        const Failure failure;
        const Children children = makeChildren(1);
        children[0]->failAt(position, failure.pointer);
        auto sender = makeSender(children, 2);
        occupyAll(*sender, children);
        sender->send(makeBuffer("x"));
        sender->send(makeBuffer(""));
        std::vector<std::unique_ptr<Blocked>> blocked;
        std::vector<const kyConnectionClosed*> thrown(8);
        for (std::size_t i = 0; i < thrown.size(); ++i) {
            blocked.push_back(std::make_unique<Blocked>([&, i] {
                const Buffer buffer = makeBuffer(i % 2 == 0 ? "" : "x");
                thrown[i] = thrownBy([&] { sender->send(buffer); });
            }));
            ASSERT_TRUE(blocked.back()->isBlocked());
        }
        children[0]->letGo();
        // Room that the worker made before it failed was given in order.
        const auto isThrown = [&](const kyConnectionClosed* one) { return one == failure.object; };
        for (const auto& one : blocked) {
            one->finish();
        }
        const auto count = std::count_if(thrown.begin(), thrown.end(), isThrown);
        EXPECT_GE(count, position == 1 ? 8 : 6) << position;
        EXPECT_NE(thrownBy([&] { sender->waitAllDataTransfered(); }), nullptr);
        sender.reset();
        EXPECT_EQ(children[0]->entered(), position);
    }
}

TEST(kyNetBufferedSender, failureWhileManySendBlocksNobody)
{
    for (int round = 1; round <= 8; ++round) {
        const Children children = makeChildren(3);
        for (const auto& child : children) {
            child->failAt(round * 3, Failure().pointer);
        }
        auto sender = makeSender(children, 2);
        std::vector<std::future<bool>> threads;
        for (int t = 0; t < 4; ++t) {
            threads.push_back(std::async(std::launch::async, [&] {
                return thrownBy([&] {
                           for (int i = 0; i < 100000; ++i) {
                               sender->send(makeUnbundled(i));
                           }
                       }) != nullptr;
            }));
        }
        for (auto& thread : threads) {
            ASSERT_EQ(thread.wait_for(kyTest::s_patience), std::future_status::ready);
            EXPECT_TRUE(thread.get());
        }
        auto end = std::async(std::launch::async, [&] { sender.reset(); });
        ASSERT_EQ(end.wait_for(kyTest::s_patience), std::future_status::ready);
    }
}

TEST(kyNetBufferedSender, endAfterAFailureTakesNoTime)
{
    const Children children = makeChildren(4);
    children[2]->failAt(1, Failure().pointer);
    auto sender = makeSender(children);
    occupyAll(*sender, children);
    for (int i = 0; i < 200; ++i) {
        sender->send(makeBuffer("x"));
    }
    for (const auto& child : children) {
        child->letGo();
    }
    EXPECT_NE(thrownBy([&] { sender->waitAllDataTransfered(); }), nullptr);
    auto end = std::async(std::launch::async, [&] { sender.reset(); });
    EXPECT_EQ(end.wait_for(kyTest::s_moment), std::future_status::ready);
}

// A peer that never reads holds the worker inside its link until the link is shut down.
TEST(kyNetBufferedSender, shutdownWakesWorkersAndCallers)
{
    const auto [near, far] = kyTest::makeLinks();
    auto sender = kyNetBufferedSender::create(kyNetLinkSender::create(near), 2);
    Blocked blocked([&] {
        while (true) {
            sender->send(makeBuffer(std::string(100000, 'x')));
        }
    });
    ASSERT_TRUE(blocked.isBlocked());
    sender->shutdown();
    EXPECT_THROW(blocked.finish(), kyConnectionClosed);
    EXPECT_THROW(sender->waitAllDataTransfered(), kyConnectionClosed);
    auto end = std::async(std::launch::async, [&] { sender.reset(); });
    EXPECT_EQ(end.wait_for(kyTest::s_moment), std::future_status::ready);
}

TEST(kyNetBufferedSender, shutdownOfTheLinkEndsADestructionThatWaits)
{
    const auto [near, far] = kyTest::makeLinks();
    auto sender = kyNetBufferedSender::create(kyNetLinkSender::create(near), 200);
    for (int i = 0; i < 200; ++i) {
        sender->send(makeBuffer(std::string(100000, 'x')));
    }
    Blocked end([&] { sender.reset(); });
    ASSERT_TRUE(end.isBlocked());
    near->shutdown();
    end.finish();
}

TEST(kyNetBufferedSender, allArrivesOverSeveralLinks)
{
    std::vector<std::shared_ptr<kySocketLink>> far;
    Senders leaves;
    for (int i = 0; i < 3; ++i) {
        const auto [mine, theirs] = kyTest::makeLinks();
        leaves.push_back(kyNetLinkSender::create(mine));
        far.push_back(theirs);
    }
    auto sender = kyNetBufferedSender::create(leaves, -1);
    leaves.clear();
    std::vector<std::future<Strings>> reading;
    for (const auto& link : far) {
        reading.push_back(std::async(std::launch::async, [link] {
            std::vector<Buffer> received;
            thrownBy([&] {
                while (true) {
                    Buffer buffer;
                    link->recv(buffer);
                    received.push_back(buffer);
                }
            });
            return messagesOf(received);
        }));
    }
    std::map<std::string, int> expected;
    for (int i = 0; i < 3000; ++i) {
        const std::string message(static_cast<std::size_t>(1 + i * 37 % 9000), 'x');
        ++expected[message];
        sender->send(makeBuffer(message));
    }
    sender->waitAllDataTransfered();
    sender.reset(); // Closes the links in order.
    std::map<std::string, int> received;
    for (auto& one : reading) {
        for (const std::string& message : one.get()) {
            ++received[message];
        }
    }
    EXPECT_EQ(received, expected);
}

namespace {

/// Says where its worker may run.
class PlacedChild : public WorkerChild
{
public:
    explicit PlacedChild(int node) : m_node(node) {}

    int getNodeAffinity() override { return m_node; }
    void send(const Buffer& buffer) override
    {
        processors = kyTest::getProcessors();
        WorkerChild::send(buffer);
    }

    std::vector<int> processors;

private:
    int m_node;
};

std::vector<int> getWorkersProcessors(int node)
{
    const auto child = std::make_shared<PlacedChild>(node);
    const auto sender = kyNetBufferedSender::create(child, -1);
    sender->send(makeBuffer("x"));
    sender->waitAllDataTransfered();
    return child->processors;
}

/// Does not say it.
class LostChild : public WorkerChild
{
public:
    int getNodeAffinity() override { throw kyConnectionClosed(); }
};

/// Sees to it that no more threads can be started, as soon as one has.
class LastChild : public WorkerChild
{
public:
    int getNodeAffinity() override
    {
        m_noNewThreads.emplace();
        return -1;
    }

private:
    std::optional<kyTest::NoNewThreads> m_noNewThreads;
};

} // namespace

TEST(kyNetBufferedSender, workerRunsWhereItsChildIsServed)
{
    EXPECT_EQ(getWorkersProcessors(0), std::vector<int>{0});
    EXPECT_EQ(getWorkersProcessors(3), std::vector<int>{0});
}

TEST(kyNetBufferedSender, workerOfAPinnedThreadGetsAllProcessorsBack)
{
    const std::vector<int> ofProcess = kyTest::getProcessors();
    std::vector<int> ofWorker;
    std::thread([&] {
        EXPECT_TRUE(kyThreads::pinToFirstProcessor());
        ofWorker = getWorkersProcessors(-1);
    }).join();
    EXPECT_EQ(ofWorker, ofProcess);
}

TEST(kyNetBufferedSender, failureBeforeTheFirstBufferIsThrownToo)
{
    const auto child = std::make_shared<LostChild>();
    const auto sender = kyNetBufferedSender::create(child, 1);
    EXPECT_NE(thrownBy([&] {
                  while (true) {
                      sender->send(makeBuffer("x"));
                  }
              }),
              nullptr);
    EXPECT_EQ(child->entered(), 0);
}

TEST(kyNetBufferedSender, threadThatCannotBeStartedLeavesNothing)
{
    const std::size_t threads = kyTest::countThreads();
    const Children children = makeChildren(2);
    {
        const kyTest::NoNewThreads noNewThreads;
        EXPECT_THROW(makeSender(children), std::system_error);
    }
    EXPECT_EQ(children[0].use_count(), 1);
    EXPECT_EQ(kyTest::countThreads(), threads);
}

TEST(kyNetBufferedSender, threadThatCannotBeStartedEndsThoseThatRun)
{
    const std::size_t threads = kyTest::countThreads();
    // The first thread may come too late to keep the last from being started.
    EXPECT_TRUE(kyTest::waitUntil([] {
        Senders children{std::make_shared<LastChild>()};
        for (int i = 0; i < 50; ++i) {
            children.push_back(std::make_shared<WorkerChild>());
        }
        try {
            kyNetBufferedSender::create(children, -1);
        } catch (const std::system_error&) {
            return true;
        }
        return false;
    }));
    waitForThreads(threads);
}

TEST(kyNetBufferedSender, workersNeedNoMemoryToStart)
{
    const Children children = makeChildren(3);
    std::shared_ptr<kyNetSender> sender;
    {
        const kyTest::NoMemoryElsewhere noMemory;
        sender = makeSender(children);
        // Two of the three have ended: so they have started.
        sender->send(makeBuffer(""));
        sender->send(makeBuffer(""));
        sender->waitAllDataTransfered();
    }
    sender->send(makeBuffer("x"));
    sender->waitAllDataTransfered();
    EXPECT_EQ(countMessages(children), 1u);
}

TEST(kyNetBufferedSender, memoryThatAWorkerLacksIsItsFailure)
{
    const Children children = makeChildren(1);
    auto sender = makeSender(children);
    occupyAll(*sender, children);
    for (int i = 0; i < 200; ++i) {
        sender->send(makeBuffer("x"));
    }
    children[0]->forget();
    {
        const kyTest::NoMemoryElsewhere noMemory;
        children[0]->letGo();
        EXPECT_THROW(sender->waitAllDataTransfered(), std::bad_alloc);
    }
    EXPECT_THROW(sender->send(makeBuffer("x")), std::bad_alloc);
    auto end = std::async(std::launch::async, [&] { sender.reset(); });
    EXPECT_EQ(end.wait_for(kyTest::s_patience), std::future_status::ready);
}

TEST(kyNetBufferedSender, endNeedsNoMemory)
{
    const Children children = makeChildren(2);
    auto sender = makeSender(children);
    sender->send(makeBuffer("x"));
    sender->waitAllDataTransfered();
    const kyTest::NoMemoryElsewhere noMemory;
    auto end = std::async(std::launch::async, [&] { sender.reset(); });
    EXPECT_EQ(end.wait_for(kyTest::s_patience), std::future_status::ready);
}
