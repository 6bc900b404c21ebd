#include <NetBase/receivers/kyNetRecvQueue.h>

#include <future>
#include <memory>
#include <queue>
#include <string>

#include <gtest/gtest.h>

#include <tests/receivers/kyTestTap.h>
#include <tests/support/kyTestBlocked.h>
#include <tests/support/kyTestChains.h>
#include <tests/support/kyTestMemory.h>

using kyTest::Blocked;
using kyTest::Buffer;
using kyTest::dataOf;
using kyTest::makeBuffer;
using kyTest::messageOf;

namespace {

/// A queue with one source.
struct Fixture
{
    void push(const std::string& data) { queue.push(makeBuffer(data)); }
    void fail(const std::string& text)
    {
        EXPECT_FALSE(queue.getFailure().attempt([&] { throw kyNetError(text); }));
    }
    void endSource(const std::string& text)
    {
        fail(text);
        source.reset();
    }

    std::string recv()
    {
        Buffer buffer;
        queue.recv(buffer);
        return dataOf(*buffer);
    }
    std::string recvAvailable()
    {
        std::queue<Buffer> all;
        queue.recvAvailable(all);
        return kyTest::drain(all);
    }
    std::string failure()
    {
        return messageOf([this] { recv(); });
    }

    kyNetRecvQueue queue;
    std::shared_ptr<kyNetRecvQueue::Source> source = queue.addSource();
};

} // namespace

TEST(kyNetRecvQueue, deliversInTheOrderOfArrival)
{
    Fixture f;
    f.push("a");
    f.push("b");
    EXPECT_EQ(f.recv(), "a");
    f.push("c");
    EXPECT_EQ(f.recv(), "b");
    EXPECT_EQ(f.recv(), "c");
}

TEST(kyNetRecvQueue, wholeBacklogIsTakenInOneStep)
{
    Fixture f;
    for (const char* const data : {"a", "b", "c", "d", "e"}) {
        f.push(data);
    }
    EXPECT_EQ(f.recv(), "a");
    f.push("later");
    EXPECT_EQ(f.recvAvailable(), "b c d e ");
    EXPECT_EQ(f.recvAvailable(), "later ");
}

TEST(kyNetRecvQueue, waitsForTheFirstBuffer)
{
    Fixture f;
    Blocked receiving([&] { EXPECT_EQ(f.recv(), "a"); });
    EXPECT_TRUE(receiving.isBlocked());
    f.push("a");
    receiving.finish();
}

TEST(kyNetRecvQueue, whatArrivedBeforeAFailureIsDeliveredFirst)
{
    Fixture f;
    f.push("a");
    f.push("b");
    f.endSource("broken");
    EXPECT_EQ(f.recv(), "a");
    EXPECT_EQ(f.recv(), "b");
    for (int i = 0; i < 1000; ++i) {
        EXPECT_EQ(f.failure(), "broken");
    }
    EXPECT_EQ(messageOf([&] { f.recvAvailable(); }), "broken");
}

TEST(kyNetRecvQueue, whatArrivesAfterTheEndIsDelivered)
{
    Fixture f;
    f.endSource("broken");
    EXPECT_EQ(f.failure(), "broken");
    f.push("from inside");
    EXPECT_EQ(f.recv(), "from inside");
    EXPECT_EQ(f.failure(), "broken");
}

TEST(kyNetRecvQueue, endOfASourceLeavesTheOthers)
{
    Fixture f;
    const auto other = f.queue.addSource();
    f.push("a");
    f.endSource("broken");
    f.push("b");
    EXPECT_EQ(f.recv(), "a");
    EXPECT_EQ(f.failure(), "broken");
    EXPECT_EQ(f.recv(), "b");
    Blocked receiving([&] { EXPECT_EQ(f.recv(), "c"); });
    EXPECT_TRUE(receiving.isBlocked());
    f.push("c");
    receiving.finish();
}

TEST(kyNetRecvQueue, firstFailureIsToldForEachSource)
{
    Fixture f;
    auto other = f.queue.addSource();
    f.endSource("first");
    f.push("a");
    f.fail("second");
    other.reset();
    EXPECT_EQ(f.failure(), "first");
    EXPECT_EQ(f.recv(), "a");
    EXPECT_EQ(f.failure(), "first");
    EXPECT_EQ(f.failure(), "first");
}

TEST(kyNetRecvQueue, sourceEndsWithItsLastHolder)
{
    Fixture f;
    auto holder = f.source;
    f.endSource("broken");
    EXPECT_FALSE(f.queue.isReadable());
    f.push("in the works");
    holder.reset();
    EXPECT_EQ(f.recv(), "in the works");
    EXPECT_EQ(f.failure(), "broken");
}

TEST(kyNetRecvQueue, endOfTheLastSourceWakesTheReader)
{
    Fixture f;
    Blocked receiving([&] { f.recv(); });
    EXPECT_TRUE(receiving.isBlocked());
    f.endSource("broken");
    EXPECT_EQ(messageOf([&] { receiving.finish(); }), "broken");
}

TEST(kyNetRecvQueue, readerNeverMissesTheEnd)
{
    for (int round = 0; round < 1000; ++round) {
        Fixture f;
        auto ending = std::async(std::launch::async, [&] {
            f.push("a");
            f.endSource("broken");
        });
        EXPECT_EQ(f.recv(), "a");
        EXPECT_EQ(f.failure(), "broken");
        EXPECT_EQ(f.failure(), "broken");
        ending.get();
    }
}

TEST(kyNetRecvQueue, failureBesideASourceIsToldOnce)
{
    Fixture f;
    f.push("a");
    f.fail("broken");
    f.queue.pushFailure();
    f.push("b");
    EXPECT_EQ(f.recv(), "a");
    EXPECT_EQ(f.failure(), "broken");
    EXPECT_EQ(f.recv(), "b");
    EXPECT_FALSE(f.queue.isReadable());
}

TEST(kyNetRecvQueue, availableEndsBeforeAFailure)
{
    Fixture f;
    const auto other = f.queue.addSource();
    f.push("a");
    f.push("b");
    f.endSource("broken");
    f.push("c");
    EXPECT_EQ(f.recvAvailable(), "a b ");
    EXPECT_EQ(messageOf([&] { f.recvAvailable(); }), "broken");
    EXPECT_EQ(f.recvAvailable(), "c ");
}

TEST(kyNetRecvQueue, emptyBuffersAreDeliveredLikeAllOthers)
{
    Fixture f;
    const auto other = f.queue.addSource();
    f.push("");
    EXPECT_EQ(f.recv(), "");
    f.push("");
    f.push("a");
    EXPECT_EQ(f.recvAvailable(), " a ");
    f.push("b");
    f.push("");
    f.push("c");
    f.endSource("broken");
    f.push("");
    f.push("d");
    EXPECT_EQ(f.recv(), "b");
    EXPECT_EQ(f.recv(), ""); // Does not tell the failure too early,
    EXPECT_EQ(f.recv(), "c");
    EXPECT_EQ(f.failure(), "broken");
    EXPECT_EQ(f.recv(), ""); // nor a second time.
    EXPECT_EQ(f.recv(), "d");
}

TEST(kyNetRecvQueue, availableLosesNothingByAFailureMeanwhile)
{
    constexpr int s_count = 2000;
    const Buffer empty = makeBuffer("");
    for (int round = 0; round < 100; ++round) {
        Fixture f;
        for (int i = 0; i < s_count; ++i) {
            f.queue.push(empty);
        }
        auto failing = std::async(std::launch::async, [&] { f.endSource("broken"); });
        std::queue<Buffer> all;
        EXPECT_NO_THROW(f.queue.recvAvailable(all));
        EXPECT_EQ(all.size(), static_cast<std::size_t>(s_count));
        failing.get();
        EXPECT_EQ(f.failure(), "broken");
    }
}

TEST(kyNetRecvQueue, failureLeavesTheCallersBufferAsItIs)
{
    Fixture f;
    f.endSource("broken");
    const Buffer old = makeBuffer("old");
    Buffer buffer = old;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(messageOf([&] { f.queue.recv(buffer); }), "broken");
        EXPECT_EQ(buffer, old);
    }
}

TEST(kyNetRecvQueue, failureIsToldWithoutMemory)
{
    Fixture f;
    f.push("a");
    EXPECT_EQ(f.recv(), "a");
    f.fail("broken");
    Blocked receiving([&] { f.recv(); });
    EXPECT_TRUE(receiving.isBlocked());
    {
        const kyTest::NoMemoryAfter noMemory(0);
        f.source.reset();
    }
    EXPECT_EQ(messageOf([&] { receiving.finish(); }), "broken");
}

TEST(kyNetRecvQueue, isReadableWhenRecvWouldNotWait)
{
    Fixture f;
    EXPECT_FALSE(f.queue.isReadable());
    f.push("a");
    EXPECT_TRUE(f.queue.isReadable());
    EXPECT_TRUE(f.queue.isReadable());
    EXPECT_EQ(f.recv(), "a");
    EXPECT_FALSE(f.queue.isReadable());
    f.endSource("broken");
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(f.queue.isReadable());
        EXPECT_EQ(f.failure(), "broken");
    }
}

TEST(kyNetRecvQueue, lookingDoesNotChangeTheOrder)
{
    Fixture f;
    f.push("a");
    f.push("b");
    EXPECT_TRUE(f.queue.isReadable());
    EXPECT_EQ(f.recv(), "a");
    EXPECT_TRUE(f.queue.isReadable());
    f.push("c");
    EXPECT_EQ(f.recv(), "b");
    EXPECT_EQ(f.recv(), "c");
}

TEST(kyNetRecvQueue, withoutSourcesItIsClosed)
{
    kyNetRecvQueue queue;
    Buffer buffer;
    EXPECT_THROW(queue.recv(buffer), kyConnectionClosed);
    EXPECT_FALSE(queue.isReadable());
    queue.push(makeBuffer("a"));
    queue.recv(buffer);
    EXPECT_EQ(dataOf(*buffer), "a");
}

TEST(kyNetRecvQueue, childIsReadUntilItFails)
{
    Fixture f;
    kyTest::GivingReceiver child;
    child.given.push(makeBuffer("a"));
    child.given.push(makeBuffer("b"));
    std::string delivered;
    f.queue.readFrom(child, [&](Buffer&& buffer) { delivered += dataOf(*buffer); });
    EXPECT_EQ(delivered, "ab");
    EXPECT_EQ(child.affinityAsked, 1);
    f.source.reset();
    EXPECT_EQ(f.failure(), "Connection closed");
}

TEST(kyNetRecvQueue, deliveryThatFailsEndsTheReading)
{
    Fixture f;
    kyTest::GivingReceiver child;
    child.given.push(makeBuffer("a"));
    child.given.push(makeBuffer("b"));
    f.queue.readFrom(child, [&](Buffer&&) { throw kyNetError("no room"); });
    f.source.reset();
    EXPECT_EQ(f.failure(), "no room");
    EXPECT_EQ(child.given.size(), 1u);
}

TEST(kyNetRecvQueue, anythingThrownIsKept)
{
    Fixture f;
    EXPECT_FALSE(f.queue.getFailure().attempt([] { throw 7; }));
    f.source.reset();
    EXPECT_THROW(f.recv(), int);
}
