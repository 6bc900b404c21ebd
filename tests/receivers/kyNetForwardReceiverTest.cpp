#include <NetBase/receivers/kyNetForwardReceiver.h>

#include <memory>
#include <queue>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/receivers/kyNetBufferedReceiver.h>
#include <NetBase/receivers/kyNetLinkReceiver.h>
#include <tests/receivers/kyTestTap.h>
#include <tests/support/kyTestChains.h>

using kyTest::Buffer;
using kyTest::dataOf;
using kyTest::drain;
using kyTest::GivingReceiver;
using kyTest::KeepingSender;
using kyTest::makeBuffer;
using kyTest::messageOf;
using kyTest::recvFrom;

static_assert(std::is_nothrow_destructible_v<kyNetForwardReceiver> &&
              std::is_copy_constructible_v<kyNetForwardReceiver> &&
              std::is_move_constructible_v<kyNetForwardReceiver> &&
              std::is_copy_assignable_v<kyNetForwardReceiver> &&
              std::is_move_assignable_v<kyNetForwardReceiver>);

namespace {

/// Delivers all that it has at once, or just one buffer.
class Source : public GivingReceiver
{
public:
    void recvAvailable(std::queue<Buffer>& queue) override
    {
        ++passes;
        do {
            GivingReceiver::recvAvailable(queue);
        } while (!given.empty());
    }
    int passes = 0;
};

/// A relay of rank 2.
struct Fixture
{
    void give(const std::string& data, std::uint32_t destination)
    {
        source->given.push(makeBuffer(data, 1, destination));
    }
    std::string recv() { return recvFrom(*receiver); }

    /// What was sent on, a message each, bundles opened.
    std::string relayed() const
    {
        std::queue<Buffer> messages;
        for (const Buffer& buffer : forward->sent) {
            if (buffer->getType() == kyNetMessageType::Bundle) {
                buffer->split(messages);
            } else {
                messages.push(buffer);
            }
        }
        return drain(messages);
    }

    std::shared_ptr<Source> source = std::make_shared<Source>();
    std::shared_ptr<KeepingSender> forward = std::make_shared<KeepingSender>();
    std::shared_ptr<kyNetReceiver> receiver = kyNetForwardReceiver::create(source, forward, 2);
};

} // namespace

TEST(kyNetForwardReceiver, keepsItsOwnAndMulticastsAndRelaysMulticastsAndTheRest)
{
    Fixture f;
    f.give("all", 0);
    f.give("mine", 2);
    f.give("other", 5);
    EXPECT_EQ(f.recv(), "all");
    EXPECT_EQ(f.recv(), "mine");
    EXPECT_EQ(f.source->passes, 1);
    EXPECT_EQ(f.relayed(), "all other ");
    // Of different destinations: no bundle holds both.
    ASSERT_EQ(f.forward->sent.size(), 2u);
    EXPECT_EQ(f.forward->sent[0]->getDestination(), 0u);
    EXPECT_EQ(f.forward->sent[1]->getDestination(), 5u);
}

TEST(kyNetForwardReceiver, packsWhatGoesTheSameWay)
{
    Fixture f;
    f.give("a", 0);
    f.give("mine", 2);
    f.give("b", 0);
    f.give("c", 5);
    f.give("d", 5);
    f.give("e", 0);
    EXPECT_EQ(f.recv(), "a");
    ASSERT_EQ(f.forward->sent.size(), 3u);
    EXPECT_EQ(f.forward->sent[0]->getType(), kyNetMessageType::Bundle);
    EXPECT_EQ(f.forward->sent[0]->getDataSize(), 42u);
    EXPECT_EQ(f.forward->sent[0]->getSource(), 1u);
    EXPECT_EQ(f.forward->sent[1]->getType(), kyNetMessageType::Bundle);
    EXPECT_EQ(f.forward->sent[1]->getDestination(), 5u);
    EXPECT_EQ(dataOf(*f.forward->sent[2]), "e");
    EXPECT_EQ(f.relayed(), "a b c d e ");
}

TEST(kyNetForwardReceiver, whatItKeepsStaysAsItWas)
{
    Fixture f;
    const Buffer buffer = makeBuffer("all", 1, 0);
    f.source->given.push(buffer);
    Buffer received;
    f.receiver->recv(received);
    EXPECT_EQ(received, buffer);
    EXPECT_EQ(f.forward->sent, std::vector<Buffer>{buffer});
}

TEST(kyNetForwardReceiver, relaysPassAfterPassUntilSomethingIsForItself)
{
    Fixture f;
    int passes = 0;
    f.give("1", 5);
    f.forward->onSend = [&](kyNetBuffer&) {
        ++passes;
        f.give(std::to_string(passes + 1), passes < 3 ? 7 : 2);
    };
    EXPECT_EQ(f.recv(), "4");
    EXPECT_EQ(f.relayed(), "1 2 3 ");
}

TEST(kyNetForwardReceiver, nothingIsReadWhileSomethingIsKept)
{
    Fixture f;
    f.give("a", 2);
    f.give("b", 2);
    EXPECT_EQ(f.recv(), "a");
    f.give("later", 5);
    EXPECT_EQ(f.recv(), "b");
    EXPECT_TRUE(f.forward->sent.empty());
    EXPECT_EQ(f.source->passes, 1);
}

TEST(kyNetForwardReceiver, emptyBuffersAreKeptButNotRelayed)
{
    Fixture f;
    f.give("", 0);
    f.give("", 5);
    f.give("", 2);
    f.give("x", 5);
    EXPECT_EQ(f.recv(), "");
    EXPECT_EQ(f.recv(), "");
    EXPECT_EQ(f.relayed(), "x ");
}

TEST(kyNetForwardReceiver, rankZeroStillRelaysMulticasts)
{
    Fixture f;
    const auto receiver = kyNetForwardReceiver::create(f.source, f.forward, 0);
    f.give("all", 0);
    EXPECT_EQ(recvFrom(*receiver), "all");
    EXPECT_EQ(f.relayed(), "all ");
}

TEST(kyNetForwardReceiver, largestDestinationIsARankLikeOthers)
{
    Fixture f;
    f.give("far", 0xffffffff);
    f.give("mine", 2);
    EXPECT_EQ(f.recv(), "mine");
    EXPECT_EQ(f.relayed(), "far ");
}

TEST(kyNetForwardReceiver, failureOfTheSenderLeavesWhatIsKept)
{
    Fixture f;
    f.give("a", 0);
    f.give("b", 2);
    f.give("c", 5);
    f.give("d", 2);
    f.forward->onSend = [](kyNetBuffer&) { throw kyNetError("no way on"); };
    EXPECT_EQ(messageOf([&] { f.recv(); }), "no way on");
    f.forward->onSend = nullptr;
    EXPECT_EQ(f.recv(), "a");
    EXPECT_EQ(f.recv(), "b");
    EXPECT_EQ(f.recv(), "d");
    EXPECT_TRUE(f.forward->sent.empty()); // The rest of the pass is lost.
    f.give("e", 0);
    EXPECT_EQ(f.recv(), "e");
    EXPECT_EQ(f.relayed(), "e ");
}

TEST(kyNetForwardReceiver, failureOfTheSenderInTheMiddleLosesTheRestOnly)
{
    Fixture f;
    f.give("a", 3);
    f.give("b", 4);
    f.give("c", 5);
    f.give("mine", 2);
    f.forward->onSend = [](kyNetBuffer& buffer) {
        if (buffer.getDestination() == 4) {
            throw kyNetError("no way to 4");
        }
    };
    EXPECT_EQ(messageOf([&] { f.recv(); }), "no way to 4");
    EXPECT_EQ(f.relayed(), "a ");
    EXPECT_EQ(f.recv(), "mine");
    EXPECT_EQ(f.source->passes, 1);
}

TEST(kyNetForwardReceiver, whatCameBeforeAFailureOfAThreadedSourceIsRelayedAndDelivered)
{
    const auto tap = std::make_shared<kyTest::Tap>();
    const auto forward = std::make_shared<KeepingSender>();
    const auto receiver = kyNetForwardReceiver::create(
        kyNetBufferedReceiver::create({std::shared_ptr<kyNetReceiver>(tap)}), forward, 2);
    tap->give(makeBuffer("all", 1, 0));
    tap->give(makeBuffer("", 1, 0));
    tap->give(makeBuffer("on", 1, 5));
    tap->give(makeBuffer("mine", 1, 2));
    ASSERT_TRUE(tap->hasDelivered(4));
    tap->fail("broken");
    EXPECT_EQ(recvFrom(*receiver), "all");
    EXPECT_EQ(recvFrom(*receiver), "");
    EXPECT_EQ(recvFrom(*receiver), "mine");
    EXPECT_EQ(messageOf([&] { recvFrom(*receiver); }), "broken");
    ASSERT_EQ(forward->sent.size(), 2u);
    EXPECT_EQ(dataOf(*forward->sent[1]), "on");
}

TEST(kyNetForwardReceiver, failureOfTheSourcePassesThrough)
{
    Fixture f;
    EXPECT_THROW(f.recv(), kyConnectionClosed);
    f.give("a", 2);
    EXPECT_EQ(f.recv(), "a");
    EXPECT_THROW(f.recv(), kyConnectionClosed);
}

TEST(kyNetForwardReceiver, restIsThatOfAnyReceiverOverItsSource)
{
    Fixture f;
    f.source->affinity = 3;
    f.give("a", 2);
    f.give("b", 2);
    EXPECT_EQ(f.receiver->getNodeAffinity(), 3);
    EXPECT_EQ(f.receiver->getLinkName(), "unknown");
    EXPECT_TRUE(f.receiver->isReadable());
    EXPECT_EQ(kyTest::recvAvailableFrom(*f.receiver), "a ");
    EXPECT_EQ(messageOf([&] { f.receiver->addToRecvQueue(makeBuffer("x")); }),
              "Adding buffer to queue not supported by this receiver");
    const auto link = std::make_shared<kyTest::KeepingLink>();
    EXPECT_EQ(
        kyNetForwardReceiver::create(kyNetLinkReceiver::create(link), f.forward, 2)->getLinks(),
        std::vector<std::shared_ptr<kyNetLink>>{link});
}

TEST(kyNetForwardReceiver, copyAndMovedHaveTheirOwnQueueOfTheSameBuffers)
{
    Fixture f;
    f.give("a", 2);
    f.give("b", 2);
    EXPECT_EQ(f.recv(), "a");
    auto& original = dynamic_cast<kyNetForwardReceiver&>(*f.receiver);
    kyNetForwardReceiver copy = original;
    EXPECT_EQ(recvFrom(copy), "b");
    copy = original;
    EXPECT_EQ(recvFrom(copy), "b");
    kyNetForwardReceiver moved = std::move(original);
    EXPECT_EQ(recvFrom(moved), "b");
    f.give("c", 2);
    copy = std::move(moved);
    EXPECT_EQ(recvFrom(copy), "c");
}

TEST(kyNetForwardReceiver, relaysFromLinkToLink)
{
    const auto [rootNear, rootFar] = kyTest::makeLinks();
    const auto forward = std::make_shared<KeepingSender>();
    const auto receiver =
        kyNetForwardReceiver::create(kyNetLinkReceiver::create(rootNear), forward, 2);
    rootFar->send(makeBuffer("on", 1, 3));
    rootFar->send(makeBuffer("here", 1, 2));
    EXPECT_EQ(recvFrom(*receiver), "here");
    ASSERT_EQ(forward->sent.size(), 1u);
    rootFar->shutdown();
    EXPECT_THROW(recvFrom(*receiver), kyConnectionClosed);
}
