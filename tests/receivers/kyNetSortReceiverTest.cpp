#include <NetBase/receivers/kyNetSortReceiver.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/receivers/kyNetLinkReceiver.h>
#include <tests/receivers/kyTestTap.h>
#include <tests/support/kyTestChains.h>

using kyTest::Buffer;
using kyTest::GivingReceiver;
using kyTest::makeBuffer;
using kyTest::messageOf;
using kyTest::recvFrom;

static_assert(std::is_copy_constructible_v<kyNetSortReceiver> &&
              std::is_copy_assignable_v<kyNetSortReceiver>);

namespace {

struct Fixture
{
    void give(int sequence, const std::string& data, std::uint32_t destination = 0)
    {
        const Buffer buffer = makeBuffer(data, 1, destination);
        buffer->setSequence(sequence);
        source->given.push(buffer);
    }
    void give(int sequence) { give(sequence, std::to_string(sequence)); }

    std::string recv() { return recvFrom(*receiver); }

    /// Delivers all numbers up to this one.
    void passUntil(int sequence)
    {
        for (int i = 0; i < sequence; ++i) {
            give(i);
            recv();
        }
    }

    std::shared_ptr<GivingReceiver> source = std::make_shared<GivingReceiver>();
    std::shared_ptr<kyNetReceiver> receiver = kyNetSortReceiver::create(source);
};

/// A multicast that takes no more memory than its header.
Buffer makeSmall(int sequence)
{
    auto* header = static_cast<kyNetHeader*>(std::calloc(1, sizeof(kyNetHeader)));
    Buffer buffer = std::make_shared<kyNetBuffer>(header, reinterpret_cast<char*>(header + 1));
    buffer->setSequence(sequence);
    return buffer;
}

} // namespace

TEST(kyNetSortReceiver, earlyMulticastsWaitForTheFirst)
{
    Fixture f;
    f.give(1);
    f.give(2);
    f.give(0);
    f.give(3);
    EXPECT_EQ(f.recv(), "0");
    EXPECT_EQ(f.source->given.size(), 1u);
    EXPECT_EQ(f.recv(), "1");
    EXPECT_EQ(f.recv(), "2");
    EXPECT_EQ(f.source->given.size(), 1u);
    EXPECT_EQ(f.recv(), "3");
}

TEST(kyNetSortReceiver, whatComesInOrderPassesAsItIs)
{
    Fixture f;
    for (int i = 0; i < 3; ++i) {
        f.give(i);
        const Buffer given = f.source->given.front();
        Buffer received;
        f.receiver->recv(received);
        EXPECT_EQ(received, given);
    }
}

TEST(kyNetSortReceiver, unicastOvertakes)
{
    Fixture f;
    f.give(1);
    f.give(9, "unicast", 5);
    f.give(0);
    EXPECT_EQ(f.recv(), "unicast");
    EXPECT_EQ(f.source->given.size(), 1u);
    EXPECT_EQ(f.recv(), "0");
    EXPECT_EQ(f.recv(), "1");
}

TEST(kyNetSortReceiver, unicastWithTheExpectedNumberDoesNotCount)
{
    Fixture f;
    f.give(0, "unicast", 5);
    f.give(0);
    f.give(1);
    EXPECT_EQ(f.recv(), "unicast");
    EXPECT_EQ(f.recv(), "0");
    EXPECT_EQ(f.recv(), "1");
}

TEST(kyNetSortReceiver, heldOneThatIsNextGoesBeforeAUnicast)
{
    Fixture f;
    f.give(1);
    f.give(0);
    f.give(0, "unicast", 5);
    EXPECT_EQ(f.recv(), "0");
    EXPECT_EQ(f.recv(), "1");
    EXPECT_EQ(f.recv(), "unicast");
}

TEST(kyNetSortReceiver, zeroComesAfter65535)
{
    Fixture f;
    f.passUntil(65535);
    f.give(0, "zero");
    f.give(1, "one");
    f.give(65535, "last");
    EXPECT_EQ(f.recv(), "last");
    EXPECT_EQ(f.recv(), "zero");
    EXPECT_EQ(f.recv(), "one");
    f.give(2, "two");
    EXPECT_EQ(f.recv(), "two");
}

TEST(kyNetSortReceiver, heldLastNumberIsFollowedByZero)
{
    Fixture f;
    f.passUntil(65534);
    f.give(65535, "last");
    f.give(65534, "last but one");
    f.give(0, "zero");
    EXPECT_EQ(f.recv(), "last but one");
    EXPECT_EQ(f.recv(), "last");
    EXPECT_EQ(f.recv(), "zero");
}

TEST(kyNetSortReceiver, secondOfTwoWithTheSameEarlyNumberReplacesTheFirst)
{
    Fixture f;
    f.give(1, "first");
    f.give(1, "second");
    f.give(0);
    EXPECT_EQ(f.recv(), "0");
    EXPECT_EQ(f.recv(), "second");
    EXPECT_THROW(f.recv(), kyConnectionClosed);
}

TEST(kyNetSortReceiver, lateDuplicateIsHeldForTheNextRound)
{
    Fixture f;
    f.give(0, "first");
    EXPECT_EQ(f.recv(), "first");
    f.give(0, "again");
    f.give(1);
    EXPECT_EQ(f.recv(), "1");
    EXPECT_TRUE(f.receiver->isReadable()); // Held, for ever or until the numbers come round.
    EXPECT_THROW(f.recv(), kyConnectionClosed);
}

TEST(kyNetSortReceiver, lateDuplicateIsTakenForTheNextRoundsBuffer)
{
    Fixture f;
    f.passUntil(1);
    f.give(0, "stale");
    for (int i = 1; i <= 65535; ++i) {
        f.give(i);
        f.recv();
    }
    f.give(0, "zero");
    f.give(1, "one");
    EXPECT_EQ(f.recv(), "stale"); // Nothing tells it from the right one.
    EXPECT_EQ(f.recv(), "one");
    EXPECT_TRUE(f.source->given.empty());
}

TEST(kyNetSortReceiver, earlyBufferOfTheNextRoundReplacesALateDuplicate)
{
    Fixture f;
    f.passUntil(1);
    f.give(0, "stale");
    f.give(0, "zero");
    for (int i = 1; i <= 65535; ++i) {
        f.give(i);
        f.recv();
    }
    EXPECT_EQ(f.recv(), "zero");
}

TEST(kyNetSortReceiver, unicastsPassWhateverTheirNumberAndWhileOthersAreHeld)
{
    Fixture f;
    f.give(5);
    for (const int sequence : {0, 1, 5, 65535}) {
        f.give(sequence, "unicast", 0xffffffff);
        EXPECT_EQ(f.recv(), "unicast");
    }
    f.give(0);
    EXPECT_EQ(f.recv(), "0");
}

TEST(kyNetSortReceiver, emptyMulticastsCount)
{
    Fixture f;
    f.give(1);
    f.give(0, "");
    EXPECT_EQ(f.recv(), "");
    EXPECT_EQ(f.recv(), "1");
}

TEST(kyNetSortReceiver, asManyAsThereAreNumbersInReverseOrder)
{
    Fixture f;
    for (int i = 65535; i >= 0; --i) {
        f.source->given.push(makeSmall(i));
    }
    for (int i = 0; i <= 65535; ++i) {
        Buffer buffer;
        f.receiver->recv(buffer);
        ASSERT_EQ(buffer->getSequence(), i);
    }
    EXPECT_FALSE(f.receiver->isReadable());
    f.give(0, "next round");
    EXPECT_EQ(f.recv(), "next round");
}

TEST(kyNetSortReceiver, gapIsWaitedForThroughFailures)
{
    Fixture f;
    f.give(2);
    f.give(3);
    EXPECT_THROW(f.recv(), kyConnectionClosed);
    f.give(1);
    EXPECT_THROW(f.recv(), kyConnectionClosed);
    f.give(0);
    for (const char* const expected : {"0", "1", "2", "3"}) {
        EXPECT_EQ(f.recv(), expected);
    }
}

TEST(kyNetSortReceiver, anyOrderIsRestored)
{
    Fixture f;
    std::vector<int> order(2000);
    for (int i = 0; i < 2000; ++i) {
        order[static_cast<std::size_t>(i)] = i;
    }
    std::shuffle(order.begin(), order.end(), std::minstd_rand(1));
    for (const int sequence : order) {
        f.give(sequence);
    }
    for (int i = 0; i < 2000; ++i) {
        EXPECT_EQ(f.recv(), std::to_string(i));
    }
}

TEST(kyNetSortReceiver, isReadableIfSomethingIsHeldOrTheSourceIs)
{
    Fixture f;
    EXPECT_FALSE(f.receiver->isReadable());
    f.give(7);
    EXPECT_TRUE(f.receiver->isReadable());
    EXPECT_THROW(f.recv(), kyConnectionClosed);
    EXPECT_FALSE(f.source->isReadable());
    EXPECT_TRUE(f.receiver->isReadable()); // Though another number is expected, which is intended.
}

TEST(kyNetSortReceiver, letsGoOfWhatItHasDelivered)
{
    Fixture f;
    f.give(1);
    const std::weak_ptr<kyNetBuffer> held = f.source->given.front();
    f.give(0);
    f.recv();
    EXPECT_FALSE(held.expired());
    f.recv();
    EXPECT_TRUE(held.expired());
    EXPECT_FALSE(f.receiver->isReadable());
}

TEST(kyNetSortReceiver, restIsThatOfAnyReceiverOverItsSource)
{
    Fixture f;
    f.source->affinity = 3;
    f.give(1);
    f.give(0);
    EXPECT_EQ(f.receiver->getNodeAffinity(), 3);
    EXPECT_EQ(f.receiver->getLinkName(), "unknown");
    EXPECT_EQ(kyTest::recvAvailableFrom(*f.receiver), "0 ");
    EXPECT_EQ(messageOf([&] { f.receiver->addToRecvQueue(makeBuffer("x")); }),
              "Adding buffer to queue not supported by this receiver");
    const auto link = std::make_shared<kyTest::KeepingLink>();
    EXPECT_EQ(kyNetSortReceiver::create(kyNetLinkReceiver::create(link))->getLinks(),
              std::vector<std::shared_ptr<kyNetLink>>{link});
}

TEST(kyNetSortReceiver, copyHoldsTheSameBuffersAndGoesOnByItself)
{
    Fixture f;
    f.give(1);
    f.give(2);
    f.give(0);
    EXPECT_EQ(f.recv(), "0");
    auto& original = dynamic_cast<kyNetSortReceiver&>(*f.receiver);
    kyNetSortReceiver copy = original;
    EXPECT_EQ(recvFrom(copy), "1");
    EXPECT_EQ(recvFrom(original), "1");
    EXPECT_EQ(recvFrom(original), "2");
    copy = original;
    f.give(3);
    EXPECT_EQ(recvFrom(copy), "3");
}
