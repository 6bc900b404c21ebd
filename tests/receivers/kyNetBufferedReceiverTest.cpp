#include <NetBase/receivers/kyNetBufferedReceiver.h>

#include <memory>
#include <new>
#include <string>
#include <system_error>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionTimeout.h>
#include <NetBase/receivers/kyNetLinkReceiver.h>
#include <NetBase/receivers/kyNetUnbundleReceiver.h>
#include <tests/receivers/kyTestTap.h>
#include <tests/support/kyTestBlocked.h>
#include <tests/support/kyTestChains.h>
#include <tests/support/kyTestMemory.h>
#include <tests/support/kyTestThreads.h>

using kyTest::Blocked;
using kyTest::Buffer;
using kyTest::endsAtOnce;
using kyTest::failureOf;
using kyTest::makeBuffer;
using kyTest::messageOf;
using kyTest::recvAvailableFrom;
using kyTest::recvFrom;
using kyTest::Tap;

static_assert(!std::is_copy_constructible_v<kyNetBufferedReceiver> &&
              !std::is_copy_assignable_v<kyNetBufferedReceiver>);

namespace {

using Children = std::vector<std::shared_ptr<kyNetReceiver>>;

/// A buffered receiver over children that do as they are told.
struct Fixture
{
    explicit Fixture(std::size_t count)
    {
        for (std::size_t i = 0; i < count; ++i) {
            taps.push_back(std::make_shared<Tap>());
        }
        receiver = kyNetBufferedReceiver::create({taps.begin(), taps.end()});
    }

    std::string recv() { return recvFrom(*receiver); }
    std::string failure() { return failureOf(*receiver); }

    std::vector<std::shared_ptr<Tap>> taps;
    std::shared_ptr<kyNetReceiver> receiver;
};

/// A buffered receiver over real connections, and their other ends.
struct Connected
{
    explicit Connected(std::size_t count)
    {
        Children children;
        for (std::size_t i = 0; i < count; ++i) {
            const auto [near, far] = kyTest::makeLinks();
            links.push_back(near);
            peers.push_back(far);
            children.push_back(kyNetUnbundleReceiver::create(kyNetLinkReceiver::create(near)));
        }
        receiver = kyNetBufferedReceiver::create(children);
    }

    std::vector<std::shared_ptr<kySocketLink>> links;
    std::vector<std::shared_ptr<kySocketLink>> peers;
    std::shared_ptr<kyNetReceiver> receiver;
};

} // namespace

TEST(kyNetBufferedReceiver, mergesItsChildrenEachInOrder)
{
    Fixture f(2);
    for (const char* const number : {"1", "2", "3"}) {
        f.taps[0]->give(std::string("a") + number);
        f.taps[1]->give(std::string("b") + number);
    }
    std::string a;
    std::string b;
    for (int i = 0; i < 6; ++i) {
        const std::string data = f.recv();
        (data[0] == 'a' ? a : b) += data[1];
    }
    EXPECT_EQ(a, "123");
    EXPECT_EQ(b, "123");
}

TEST(kyNetBufferedReceiver, readsAheadBeforeAnybodyReceives)
{
    Fixture f(2);
    f.taps[0]->give("a");
    f.taps[1]->give("b");
    EXPECT_TRUE(f.taps[0]->hasDelivered(1));
    EXPECT_TRUE(f.taps[1]->hasDelivered(1));
}

TEST(kyNetBufferedReceiver, oneReceiveTakesTheWholeBacklog)
{
    Fixture f(1);
    for (const char* const data : {"a", "b", "c", "d", "e"}) {
        f.taps[0]->give(data);
    }
    ASSERT_TRUE(f.taps[0]->hasDelivered(5));
    EXPECT_EQ(recvAvailableFrom(*f.receiver), "a b c d e ");
    for (const char* const data : {"1", "2", "3"}) {
        f.taps[0]->give(data);
    }
    ASSERT_TRUE(f.taps[0]->hasDelivered(8));
    EXPECT_EQ(f.recv(), "1");
    f.taps[0]->give("later");
    ASSERT_TRUE(f.taps[0]->hasDelivered(9));
    EXPECT_EQ(recvAvailableFrom(*f.receiver), "2 3 ");
    EXPECT_EQ(recvAvailableFrom(*f.receiver), "later ");
}

TEST(kyNetBufferedReceiver, deliversTheVeryBuffers)
{
    Fixture f(1);
    const Buffer given = makeBuffer("a");
    f.taps[0]->give(given);
    Buffer received;
    f.receiver->recv(received);
    EXPECT_EQ(received, given);
}

TEST(kyNetBufferedReceiver, emptyBufferIsDeliveredLikeAnyOther)
{
    Fixture f(1);
    f.taps[0]->give("");
    f.taps[0]->give("a");
    EXPECT_EQ(f.recv(), "");
    EXPECT_EQ(f.recv(), "a");
}

TEST(kyNetBufferedReceiver, restIsThatOfAnyReceiverOverItsChildren)
{
    Fixture f(2);
    EXPECT_EQ(messageOf([&] { f.receiver->addToRecvQueue(makeBuffer("x")); }),
              "Adding buffer to queue not supported by this receiver");
    EXPECT_TRUE(f.receiver->isReadable());
    EXPECT_EQ(f.receiver->getLinkName(), "unknown");
    EXPECT_EQ(f.receiver->getNodeAffinity(), -1);
    EXPECT_EQ(f.receiver->getLinks().size(), 2u);
}

TEST(kyNetBufferedReceiver, singleChildIsBufferedToo)
{
    const Fixture f(1);
    EXPECT_NE(dynamic_cast<kyNetBufferedReceiver*>(f.receiver.get()), nullptr);
}

TEST(kyNetBufferedReceiver, threadsRunWhereTheirChildrenAreServed)
{
    const auto child = std::make_shared<kyTest::GivingReceiver>();
    child->affinity = 1;
    testing::internal::CaptureStdout();
    const auto receiver = kyNetBufferedReceiver::create({child});
    EXPECT_EQ(failureOf(*receiver), "Connection closed");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "setaffinity 1\n");
}

TEST(kyNetBufferedReceiver, whatCameBeforeAFailureIsDeliveredFirst)
{
    Fixture f(1);
    f.taps[0]->give("a");
    f.taps[0]->give("b");
    f.taps[0]->fail("broken");
    EXPECT_EQ(f.recv(), "a");
    EXPECT_EQ(f.recv(), "b");
    for (int i = 0; i < 1000; ++i) {
        EXPECT_EQ(f.failure(), "broken");
    }
    EXPECT_EQ(messageOf([&] { recvAvailableFrom(*f.receiver); }), "broken");
    EXPECT_TRUE(f.receiver->isReadable());
    EXPECT_TRUE(endsAtOnce(f.receiver));
}

TEST(kyNetBufferedReceiver, failureWakesTheReader)
{
    Fixture f(3);
    Blocked receiving([&] { f.recv(); });
    EXPECT_TRUE(receiving.isBlocked());
    f.taps[1]->fail("broken");
    EXPECT_EQ(messageOf([&] { receiving.finish(); }), "broken");
}

TEST(kyNetBufferedReceiver, othersGoOnWhenOneFails)
{
    Fixture f(3);
    f.taps[1]->fail("broken");
    EXPECT_EQ(f.failure(), "broken");
    for (int i = 0; i < 100; ++i) {
        f.taps[0]->give("a");
        EXPECT_EQ(f.recv(), "a");
        f.taps[2]->give("c");
        EXPECT_EQ(f.recv(), "c");
    }
    EXPECT_TRUE(endsAtOnce(f.receiver));
}

TEST(kyNetBufferedReceiver, whenAllHaveFailedNobodyWaits)
{
    Fixture f(3);
    f.taps[2]->fail("first");
    EXPECT_EQ(f.failure(), "first");
    f.taps[0]->give("a");
    f.taps[0]->fail("second");
    f.taps[1]->give("b");
    f.taps[1]->fail("third");
    std::string delivered;
    for (int i = 0; i < 100; ++i) {
        try {
            delivered += f.recv();
        } catch (const kyNetError& error) {
            EXPECT_EQ(std::string(error.what()), "first");
        }
    }
    EXPECT_TRUE(delivered == "ab" || delivered == "ba") << delivered;
    EXPECT_TRUE(endsAtOnce(f.receiver));
}

TEST(kyNetBufferedReceiver, emptyBufferNeitherHidesNorRepeatsAFailure)
{
    Fixture f(2);
    f.taps[0]->give("");
    f.taps[0]->give("a");
    ASSERT_TRUE(f.taps[0]->hasDelivered(2));
    f.taps[0]->fail("broken");
    EXPECT_EQ(f.recv(), "");
    EXPECT_EQ(f.recv(), "a");
    EXPECT_EQ(f.failure(), "broken");
    f.taps[1]->give("");
    f.taps[1]->give("b");
    EXPECT_EQ(f.recv(), "");
    EXPECT_EQ(f.recv(), "b");
}

TEST(kyNetBufferedReceiver, availableKeepsWhatCameBeforeAFailure)
{
    Fixture f(1);
    f.taps[0]->give("a");
    f.taps[0]->give("b");
    ASSERT_TRUE(f.taps[0]->hasDelivered(2));
    f.taps[0]->fail("broken");
    EXPECT_EQ(recvAvailableFrom(*f.receiver), "a b ");
    EXPECT_EQ(messageOf([&] { recvAvailableFrom(*f.receiver); }), "broken");
}

TEST(kyNetBufferedReceiver, whateverIsThrownArrivesAsItIs)
{
    Fixture f(1);
    f.taps[0]->fail(std::make_exception_ptr(42));
    EXPECT_THROW(f.recv(), int);
    EXPECT_THROW(f.recv(), int);
}

TEST(kyNetBufferedReceiver, withoutChildrenItIsClosed)
{
    auto receiver = kyNetBufferedReceiver::create({});
    EXPECT_EQ(failureOf(*receiver), "Connection closed");
    EXPECT_TRUE(endsAtOnce(receiver));
}

TEST(kyNetBufferedReceiver, endShutsDownTheLinksAndDropsWhatIsQueued)
{
    Fixture f(2);
    std::weak_ptr<kyNetBuffer> queued;
    {
        const Buffer buffer = makeBuffer("never read");
        queued = buffer;
        f.taps[0]->give(buffer);
    }
    ASSERT_TRUE(f.taps[0]->hasDelivered(1));
    EXPECT_FALSE(queued.expired());
    EXPECT_TRUE(endsAtOnce(f.receiver));
    EXPECT_TRUE(queued.expired());
    EXPECT_TRUE(f.taps[0]->isShutDown());
    EXPECT_TRUE(f.taps[1]->isShutDown());
}

TEST(kyNetBufferedReceiver, endRightAfterTheBeginning)
{
    for (int i = 0; i < 100; ++i) {
        Fixture f(3);
        EXPECT_TRUE(endsAtOnce(f.receiver));
    }
}

TEST(kyNetBufferedReceiver, threadThatCannotBeStartedIsToldAndLeavesNothing)
{
    const auto tap = std::make_shared<Tap>();
    const Children children{tap};
    {
        const kyTest::NoNewThreads noNewThreads;
        EXPECT_THROW(kyNetBufferedReceiver::create(children), std::system_error);
    }
    EXPECT_TRUE(tap->isShutDown());
    EXPECT_EQ(tap.use_count(), 2);
}

TEST(kyNetBufferedReceiver, beginningThatFailsHalfWayEndsWhatIsRunning)
{
    for (int count = 0;; ++count) {
        const std::vector<std::shared_ptr<Tap>> taps{
            std::make_shared<Tap>(), std::make_shared<Tap>(), std::make_shared<Tap>()};
        const Children children{taps.begin(), taps.end()};
        std::shared_ptr<kyNetReceiver> receiver;
        try {
            const kyTest::NoMemoryAfter noMemory(count);
            receiver = kyNetBufferedReceiver::create(children);
        } catch (const std::bad_alloc&) {
        }
        if (receiver) {
            EXPECT_GT(count, 9); // Several failed for each child.
            break;
        }
        for (const auto& tap : taps) {
            EXPECT_EQ(tap.use_count(), 2); // Ours and that among the children.
        }
    }
}

TEST(kyNetBufferedReceiver, stagesMayStandAboveEachOther)
{
    const auto tap = std::make_shared<Tap>();
    auto receiver = kyNetBufferedReceiver::create({kyNetBufferedReceiver::create(Children{tap})});
    tap->give("a");
    EXPECT_EQ(recvFrom(*receiver), "a");
    tap->give("b");
    tap->fail("broken");
    EXPECT_EQ(recvFrom(*receiver), "b");
    EXPECT_EQ(failureOf(*receiver), "broken");
    EXPECT_EQ(failureOf(*receiver), "broken");
    EXPECT_TRUE(endsAtOnce(receiver));
}

TEST(kyNetBufferedReceiver, endNeedsNoMemory)
{
    const auto [near, far] = kyTest::makeLinks();
    const auto [otherNear, otherFar] = kyTest::makeLinks();
    auto receiver = kyNetBufferedReceiver::create(
        Children{kyNetLinkReceiver::create(near), kyNetLinkReceiver::create(otherNear)});
    far->send(makeBuffer("a"));
    EXPECT_EQ(recvFrom(*receiver), "a");
    const kyTest::NoMemoryAfter noMemory(0);
    receiver.reset();
    EXPECT_FALSE(noMemory.hasFailed());
}

TEST(kyNetBufferedReceiver, endWakesThreadsThatWaitInRealLinks)
{
    Connected c(4);
    c.peers[0]->send(makeBuffer("a"));
    EXPECT_EQ(recvFrom(*c.receiver), "a");
    EXPECT_TRUE(endsAtOnce(c.receiver));
    for (const auto& link : c.links) {
        EXPECT_THROW(link->checkAlive(), kyConnectionClosed);
    }
}

TEST(kyNetBufferedReceiver, endWakesAThreadThatWaitsInsideABuffer)
{
    const auto [near, far] = kyTest::makeConnection();
    kyTest::RawSocket peer(far);
    auto receiver = kyNetBufferedReceiver::create(
        Children{kyNetLinkReceiver::create(std::make_shared<kySocketLink>(near))});
    peer.send(std::string("\x10\0\0\0\0", 5)); // A peer that stops.
    EXPECT_TRUE(endsAtOnce(receiver));
}

TEST(kyNetBufferedReceiver, shutdownWakesABlockedReceive)
{
    Connected c(2);
    Blocked receiving([&] { recvFrom(*c.receiver); });
    EXPECT_TRUE(receiving.isBlocked());
    c.receiver->shutdown();
    EXPECT_THROW(receiving.finish(), kyConnectionClosed);
    EXPECT_EQ(failureOf(*c.receiver), "Connection closed");
    EXPECT_TRUE(endsAtOnce(c.receiver));
}

TEST(kyNetBufferedReceiver, peerThatGoesIsReportedAndTheOtherIsRead)
{
    Connected c(2);
    c.peers[0]->send(makeBuffer("last words"));
    c.peers[0]->shutdown();
    EXPECT_EQ(recvFrom(*c.receiver), "last words");
    EXPECT_EQ(failureOf(*c.receiver), "Connection closed");
    c.peers[1]->send(makeBuffer("still there"));
    EXPECT_EQ(recvFrom(*c.receiver), "still there");
    EXPECT_TRUE(endsAtOnce(c.receiver));
}

TEST(kyNetBufferedReceiver, hostileBundleIsReportedAndTheOtherPeerIsRead)
{
    Connected c(2);
    c.peers[0]->send(makeBuffer("no entries", 0, 0, kyNetMessageType::Bundle));
    EXPECT_EQ(failureOf(*c.receiver), "Received invalid bundle. Possibly stream is out of sync.");
    c.peers[1]->send(makeBuffer("good"));
    EXPECT_EQ(recvFrom(*c.receiver), "good");
    EXPECT_TRUE(endsAtOnce(c.receiver));
}

TEST(kyNetBufferedReceiver, timeOutOfALinkEndsItsThread)
{
    const auto [near, far] = kyTest::makeLinks();
    near->setRecvTimeout(0.01);
    auto receiver = kyNetBufferedReceiver::create(Children{kyNetLinkReceiver::create(near)});
    Buffer buffer;
    EXPECT_THROW(receiver->recv(buffer), kyConnectionTimeout);
    EXPECT_THROW(receiver->recv(buffer), kyConnectionTimeout);
    EXPECT_TRUE(endsAtOnce(receiver));
}

TEST(kyNetBufferedReceiver, manyBuffersOverSeveralLinksStayInOrderEach)
{
    constexpr std::uint32_t s_links = 4;
    constexpr int s_count = 2000;
    Connected c(s_links);
    Blocked sending([&] {
        for (int i = 0; i < s_count; ++i) {
            for (std::uint32_t link = 0; link < s_links; ++link) {
                const Buffer buffer = makeBuffer("x", link);
                buffer->setSequence(i);
                c.peers[link]->send(buffer);
            }
        }
    });
    std::vector<int> next(s_links);
    for (std::uint32_t i = 0; i < s_links * s_count; ++i) {
        Buffer buffer;
        c.receiver->recv(buffer);
        ASSERT_EQ(buffer->getSequence(), next[buffer->getSource()]++);
    }
    sending.finish();
    EXPECT_FALSE(testing::Test::HasFailure());
}
