#include <NetBase/receivers/kyNetMultiLinkReceiver.h>

#include <functional>
#include <future>
#include <memory>
#include <queue>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyConnectionTimeout.h>
#include <NetBase/receivers/kyNetLinkReceiver.h>
#include <tests/support/kyTestBlocked.h>
#include <tests/support/kyTestChains.h>
#include <tests/support/kyTestMemory.h>
#include <tests/support/kyTestSystem.h>
#include <tests/support/kyTestWait.h>

using kyTest::Blocked;
using kyTest::Buffer;
using kyTest::dataOf;
using kyTest::makeBuffer;
using kyTest::messageOf;

namespace {

/// A real link that can deliver all that waits at once, and counts how often it is asked whether
/// it is alive.
class WatchedLink : public kySocketLink
{
public:
    explicit WatchedLink(kySocketHandle handle) : kySocketLink(handle) {}

    void recvAvailable(std::queue<Buffer>& queue) override
    {
        do {
            kySocketLink::recvAvailable(queue);
        } while (isGreedy && pollReadable(0.0));
    }
    void checkAlive() override
    {
        ++checks;
        if (onCheck) {
            onCheck();
        }
        kySocketLink::checkAlive();
    }

    bool isGreedy = false;
    int checks = 0;
    std::function<void()> onCheck;
};

/// A multi link receiver over several connections, and their other ends.
struct Fixture
{
    explicit Fixture(std::size_t count)
    {
        for (std::size_t i = 0; i < count; ++i) {
            const auto [near, far] = kyTest::makeConnection();
            links.push_back(std::make_shared<WatchedLink>(near));
            peers.push_back(std::make_shared<kySocketLink>(far));
        }
        receiver = kyNetMultiLinkReceiver::create({links.begin(), links.end()});
    }

    /// Sends a buffer and waits until it can be received.
    void send(std::size_t link, const std::string& data)
    {
        peers[link]->send(makeBuffer(data));
        ASSERT_TRUE(links[link]->pollReadable(30.0));
    }

    std::string recv()
    {
        Buffer buffer;
        receiver->recv(buffer);
        return dataOf(*buffer);
    }

    std::string recvAvailable()
    {
        std::queue<Buffer> queue;
        receiver->recvAvailable(queue);
        std::string all;
        for (; !queue.empty(); queue.pop()) {
            all += dataOf(*queue.front()) + " ";
        }
        return all;
    }

    std::vector<std::shared_ptr<WatchedLink>> links;
    std::vector<std::shared_ptr<kySocketLink>> peers;
    std::shared_ptr<kyNetReceiver> receiver;
};

/// A receiver that has a failure to tell.
class Failing : public kyNetMultiLinkReceiver
{
public:
    using kyNetMultiLinkReceiver::kyNetMultiLinkReceiver;
    void fail() { m_error = std::make_exception_ptr(kyNetError("what has failed")); }
};

} // namespace

TEST(kyNetMultiLinkReceiver, oneLinkNeedsNoPoll)
{
    const Fixture one(1);
    EXPECT_NE(dynamic_cast<kyNetLinkReceiver*>(one.receiver.get()), nullptr);
    const Fixture two(2);
    EXPECT_NE(dynamic_cast<kyNetMultiLinkReceiver*>(two.receiver.get()), nullptr);
}

TEST(kyNetMultiLinkReceiver, hasItsLinksInOrderAndNothingElse)
{
    const Fixture f(3);
    f.links[1]->setNodeAffinity(2);
    EXPECT_EQ(f.receiver->getLinks(),
              (std::vector<std::shared_ptr<kyNetLink>>(f.links.begin(), f.links.end())));
    EXPECT_EQ(f.receiver->getNodeAffinity(), -1);
    EXPECT_EQ(f.receiver->getLinkName(), "unknown");
    EXPECT_TRUE(f.receiver->isReadable());
    EXPECT_EQ(messageOf([&] { f.receiver->addToRecvQueue(makeBuffer("x")); }),
              "Adding buffer to queue not supported by this receiver");
}

TEST(kyNetMultiLinkReceiver, readsWhicheverLinkHasSomething)
{
    Fixture f(3);
    f.send(1, "b");
    EXPECT_EQ(f.recv(), "b");
    f.send(2, "c");
    EXPECT_EQ(f.recv(), "c");
    f.send(0, "a");
    EXPECT_EQ(f.recv(), "a");
}

TEST(kyNetMultiLinkReceiver, waitsForTheFirstBuffer)
{
    Fixture f(2);
    Blocked receiving([&] { EXPECT_EQ(f.recv(), "late"); });
    EXPECT_TRUE(receiving.isBlocked());
    f.peers[1]->send(makeBuffer("late"));
    receiving.finish();
}

TEST(kyNetMultiLinkReceiver, onePassReadsEveryReadyLinkInOrder)
{
    Fixture f(3);
    f.links[1]->isGreedy = true;
    f.links[2]->isGreedy = true;
    f.send(2, "c1");
    f.send(2, "c2");
    f.send(1, "b1");
    f.send(1, "b2");
    EXPECT_EQ(f.recv(), "b1");
    f.send(0, "a1"); // Comes after the pass.
    EXPECT_EQ(f.recvAvailable(), "b2 c1 c2 ");
    EXPECT_EQ(f.recv(), "a1");
}

TEST(kyNetMultiLinkReceiver, availableTakesThePassAndNoMore)
{
    Fixture f(2);
    f.send(0, "a1");
    f.send(0, "a2");
    f.send(1, "b1");
    EXPECT_EQ(f.recvAvailable(), "a1 b1 ");
    EXPECT_EQ(f.recvAvailable(), "a2 ");
}

TEST(kyNetMultiLinkReceiver, busyLinkStarvesNoOther)
{
    Fixture f(2);
    for (int i = 0; i < 50; ++i) {
        f.send(0, "a");
    }
    f.send(1, "b");
    EXPECT_EQ(f.recv(), "a");
    EXPECT_EQ(f.recv(), "b");
}

// Once for every sixteen links.
TEST(kyNetMultiLinkReceiver, linkThatIsBusyAloneIsReadAFewTimesBeforeTheNextPoll)
{
    const std::pair<std::size_t, int> counts[] = {{2, 0}, {15, 0}, {16, 1}, {47, 2}, {48, 3}};
    for (const auto& [links, more] : counts) {
        Fixture f(links);
        for (int i = 0; i < 10; ++i) {
            f.send(1, "busy");
        }
        EXPECT_EQ(f.recv(), "busy");
        f.send(0, "quiet");
        for (int i = 0; i < more; ++i) {
            EXPECT_EQ(f.recv(), "busy") << links;
        }
        EXPECT_EQ(f.recv(), "quiet") << links;
        EXPECT_EQ(f.recv(), "busy") << links;
    }
}

TEST(kyNetMultiLinkReceiver, busyLinkThatIsEmptyLetsTheOthersInAtOnce)
{
    Fixture f(64);
    f.send(3, "busy");
    EXPECT_EQ(f.recv(), "busy");
    f.send(0, "first");
    f.send(5, "second");
    EXPECT_EQ(f.recv(), "first");
    f.send(0, "third");
    EXPECT_EQ(f.recv(), "second");
    EXPECT_EQ(f.recv(), "third");
}

TEST(kyNetMultiLinkReceiver, busyLinkThatClosesReportsItself)
{
    Fixture f(32);
    f.send(3, "busy");
    EXPECT_EQ(f.recv(), "busy");
    f.links[3]->shutdown();
    EXPECT_THROW(f.recv(), kyConnectionClosed);
}

// All links are polled before the one that has failed is read again.
TEST(kyNetMultiLinkReceiver, busyLinkThatTricklesLetsTheOthersIn)
{
    Fixture f(64);
    f.links[3]->setRecvTimeout(0.01);
    f.send(3, "busy");
    EXPECT_EQ(f.recv(), "busy");
    f.send(0, "quiet");
    const auto trickle = [&] {
        f.peers[3]->send("", 1);
        ASSERT_TRUE(f.links[3]->pollReadable(30.0));
    };
    for (int i = 0; i < 2; ++i) {
        trickle();
        EXPECT_THROW(f.recv(), kyConnectionTimeout);
    }
    trickle();
    EXPECT_EQ(f.recv(), "quiet");
}

TEST(kyNetMultiLinkReceiver, busyLinkThatClosesLetsTheOthersIn)
{
    Fixture f(64);
    f.send(3, "busy");
    EXPECT_EQ(f.recv(), "busy");
    f.send(0, "quiet");
    f.links[3]->shutdown();
    EXPECT_THROW(f.recv(), kyConnectionClosed);
    EXPECT_THROW(f.recv(), kyConnectionClosed);
    EXPECT_EQ(f.recv(), "quiet");
}

TEST(kyNetMultiLinkReceiver, passNeedsNoMemory)
{
    Fixture f(20);
    f.send(3, "a");
    EXPECT_EQ(f.recv(), "a");
    f.send(3, "b");
    Buffer buffer;
    bool hasFailed = false;
    {
        const kyTest::NoMemoryAfter noMemory(1); // Of the pool, for the pointer.
        f.receiver->recv(buffer);
        hasFailed = noMemory.hasFailed();
    }
    EXPECT_FALSE(hasFailed);
}

TEST(kyNetMultiLinkReceiver, silenceIsCheckedOnEveryLinkAndWaitedOn)
{
    Fixture f(3);
    f.links[2]->onCheck = [&] { f.peers[0]->send(makeBuffer("at last")); };
    EXPECT_EQ(f.recv(), "at last");
    for (const auto& link : f.links) {
        EXPECT_EQ(link->checks, 1);
    }
}

TEST(kyNetMultiLinkReceiver, deadPeerFoundInSilenceIsReported)
{
    Fixture f(3);
    f.links[1]->onCheck = [] { throw kyConnectionClosed(); };
    EXPECT_THROW(f.recv(), kyConnectionClosed);
    EXPECT_EQ(f.links[0]->checks, 1);
    EXPECT_EQ(f.links[2]->checks, 0);
}

TEST(kyNetMultiLinkReceiver, linkThatIsClosedReportsItselfAtOnce)
{
    Fixture f(3);
    f.links[1]->shutdown();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_THROW(f.recv(), kyConnectionClosed);
    EXPECT_THROW(f.recv(), kyConnectionClosed);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
    EXPECT_EQ(f.links[0]->checks, 0);
}

TEST(kyNetMultiLinkReceiver, peerThatGoesIsReported)
{
    Fixture f(2);
    f.peers[1]->shutdown();
    EXPECT_THROW(f.recv(), kyConnectionClosed);
}

TEST(kyNetMultiLinkReceiver, resetInTheMiddleOfABufferIsReported)
{
    const auto [near, far] = kyTest::makeConnection();
    const auto [otherNear, otherFar] = kyTest::makeLinks();
    kyTest::RawSocket peer(far);
    const auto receiver =
        kyNetMultiLinkReceiver::create({std::make_shared<kySocketLink>(near), otherNear});
    peer.send(std::string("\x10\0\0\0\0", 5));
    peer.reset();
    Buffer buffer;
    EXPECT_THROW(receiver->recv(buffer), kyNetError);
}

TEST(kyNetMultiLinkReceiver, whatThePassHadReadBeforeAFailureIsDelivered)
{
    Fixture f(3);
    f.links[0]->isGreedy = true;
    f.send(0, "a1");
    f.send(0, "a2");
    f.peers[1]->shutdown();
    ASSERT_TRUE(f.links[1]->pollReadable(30.0));
    EXPECT_THROW(f.recv(), kyConnectionClosed);
    EXPECT_EQ(f.recv(), "a1");
    EXPECT_EQ(f.recv(), "a2");
    EXPECT_THROW(f.recv(), kyConnectionClosed);
}

TEST(kyNetMultiLinkReceiver, whatIsReadyBesideAClosedLinkIsDelivered)
{
    Fixture f(2);
    f.send(0, "a");
    f.links[1]->shutdown();
    EXPECT_THROW(f.recv(), kyConnectionClosed);
    EXPECT_EQ(f.recv(), "a");
}

TEST(kyNetMultiLinkReceiver, timeOutOfALinkPassesThrough)
{
    const auto [near, far] = kyTest::makeConnection();
    const auto [otherNear, otherFar] = kyTest::makeLinks();
    kyTest::RawSocket peer(far);
    const auto link = std::make_shared<kySocketLink>(near);
    link->setRecvTimeout(0.01);
    const auto receiver = kyNetMultiLinkReceiver::create({link, otherNear});
    peer.send("\x10"); // A peer that stops inside a header.
    Buffer buffer;
    EXPECT_THROW(receiver->recv(buffer), kyConnectionTimeout);
}

TEST(kyNetMultiLinkReceiver, hostileSizeIsRefusedAndTheOtherLinkIsRead)
{
    const auto [near, far] = kyTest::makeConnection();
    const auto [otherNear, otherFar] = kyTest::makeLinks();
    kyTest::RawSocket peer(far);
    const auto receiver =
        kyNetMultiLinkReceiver::create({std::make_shared<kySocketLink>(near), otherNear});
    peer.send(std::string("\xff\xff\xff\xff", 4) + std::string(16, '\0'));
    Buffer buffer;
    EXPECT_EQ(messageOf([&] { receiver->recv(buffer); }),
              "Received invalid buffer size. Possibly stream is out of sync.");
    otherFar->send(makeBuffer("good"));
    receiver->recv(buffer);
    EXPECT_EQ(dataOf(*buffer), "good");
}

TEST(kyNetMultiLinkReceiver, failedPollTellsWhyAndMayBeRepeated)
{
    Fixture f(2);
    // Once before, and the text after: a sanitizer needs a descriptor to learn a type.
    f.send(0, "a");
    EXPECT_EQ(f.recv(), "a");

    f.send(1, "b");
    std::exception_ptr failure;
    std::string reason;
    {
        const kyTest::DescriptorLimit limit(1); // The system polls no more sockets than that.
        try {
            f.recv();
        } catch (const kyNetError&) {
            failure = std::current_exception();
            reason = kyNetError::getLastErrorString();
        }
    }
    ASSERT_TRUE(failure);
    EXPECT_NE(reason, "");
    try {
        std::rethrow_exception(failure);
    } catch (const kyNetError& error) {
        EXPECT_EQ(error.what(), "poll error:" + reason);
    }
    EXPECT_EQ(f.recv(), "b");
}

TEST(kyNetMultiLinkReceiver, interruptedPollGoesOn)
{
    Fixture f(2);
    Blocked receiving([&] { EXPECT_EQ(f.recv(), "a"); });
    const kyTest::ThreadInterruptions interruptions(receiving.getId());
    EXPECT_TRUE(kyTest::waitUntil([] { return kyTest::ThreadInterruptions::count() > 20; }));
    f.peers[0]->send(makeBuffer("a"));
    receiving.finish();
}

TEST(kyNetMultiLinkReceiver, shutdownWakesABlockedReceive)
{
    Fixture f(2);
    Blocked receiving([&] { f.recv(); });
    EXPECT_TRUE(receiving.isBlocked());
    f.receiver->shutdown();
    EXPECT_THROW(receiving.finish(), kyConnectionClosed);
}

TEST(kyNetMultiLinkReceiver, shutdownOfOneLinkNeverLetsAnotherOneInUnderThePoll)
{
    for (std::size_t i = 0; i < 100; ++i) {
        Fixture f(2);
        auto receiving = std::async(std::launch::async, [&] { return f.recv(); });
        std::this_thread::yield();
        f.links[i % 2]->shutdown();
        // Would get the number of the closed one, were that closed while the poll waits on it.
        const auto [near, far] = kyTest::makeLinks();
        far->send(makeBuffer("of another connection"));
        EXPECT_THROW(receiving.get(), kyConnectionClosed);
        Buffer buffer;
        near->recv(buffer);
        EXPECT_EQ(dataOf(*buffer), "of another connection");
    }
}

TEST(kyNetMultiLinkReceiver, endShutsItsLinksDown)
{
    Fixture f(2);
    f.receiver.reset();
    for (const auto& link : f.links) {
        EXPECT_THROW(link->checkAlive(), kyConnectionClosed);
    }
    Buffer buffer;
    EXPECT_THROW(f.peers[0]->recv(buffer), kyConnectionClosed);
}

TEST(kyNetMultiLinkReceiver, withoutLinksItIsClosed)
{
    const auto receiver = kyNetMultiLinkReceiver::create({});
    EXPECT_NE(dynamic_cast<kyNetMultiLinkReceiver*>(receiver.get()), nullptr);
    Buffer buffer;
    std::queue<Buffer> queue;
    EXPECT_THROW(receiver->recv(buffer), kyConnectionClosed);
    EXPECT_THROW(receiver->recvAvailable(queue), kyConnectionClosed);
}

TEST(kyNetMultiLinkReceiver, emptyBuffersAreDelivered)
{
    Fixture f(2);
    f.send(0, "");
    EXPECT_EQ(f.recv(), "");
}

TEST(kyNetMultiLinkReceiver, storedFailureComesWithAnEmptyBuffer)
{
    Fixture f(2);
    Failing receiver({f.links.begin(), f.links.end()});
    receiver.fail();
    f.send(0, "a");
    Buffer buffer;
    receiver.recv(buffer);
    EXPECT_EQ(dataOf(*buffer), "a");
    f.send(1, "");
    EXPECT_EQ(messageOf([&] { receiver.recv(buffer); }), "what has failed");
    EXPECT_EQ(buffer->getDataSize(), 0u);
}

TEST(kyNetMultiLinkReceiver, copyHasItsOwnQueueOfTheSameBuffers)
{
    Fixture f(2);
    f.send(0, "a");
    f.send(1, "b");
    EXPECT_EQ(f.recv(), "a");
    auto copy = dynamic_cast<kyNetMultiLinkReceiver&>(*f.receiver);
    Buffer buffer;
    copy.recv(buffer);
    EXPECT_EQ(dataOf(*buffer), "b");
    EXPECT_EQ(f.recv(), "b");
    EXPECT_EQ(copy.getLinks(), f.receiver->getLinks());
}
