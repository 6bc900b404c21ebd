#include <NetBase/receivers/kyNetLinkReceiver.h>

#include <memory>
#include <queue>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyConnectionTimeout.h>
#include <tests/support/kyTestBlocked.h>
#include <tests/support/kyTestChains.h>

using kyTest::Blocked;
using kyTest::Buffer;
using kyTest::dataOf;
using kyTest::KeepingLink;
using kyTest::makeBuffer;
using kyTest::messageOf;

TEST(kyNetLinkReceiver, deliversWhatItsLinkReceives)
{
    const auto link = std::make_shared<KeepingLink>();
    const Buffer given = makeBuffer("abc");
    link->given.push(given);
    Buffer buffer;
    kyNetLinkReceiver::create(link)->recv(buffer);
    EXPECT_EQ(buffer, given);
}

TEST(kyNetLinkReceiver, hasItsLinkWithAffinityAndName)
{
    const auto link = std::make_shared<KeepingLink>();
    const auto receiver = kyNetLinkReceiver::create(link);
    EXPECT_EQ(receiver->getLinks(), std::vector<std::shared_ptr<kyNetLink>>{link});
    EXPECT_EQ(receiver->getNodeAffinity(), -1);
    link->setNodeAffinity(2);
    EXPECT_EQ(receiver->getNodeAffinity(), 2);
    EXPECT_EQ(receiver->getLinkName(), "a->b");
}

TEST(kyNetLinkReceiver, isReadableEvenWithNothingToRead)
{
    EXPECT_TRUE(kyNetLinkReceiver::create(std::make_shared<KeepingLink>())->isReadable());
}

TEST(kyNetLinkReceiver, refusesBuffersFromOutside)
{
    const auto receiver = kyNetLinkReceiver::create(std::make_shared<KeepingLink>());
    EXPECT_EQ(messageOf([&] { receiver->addToRecvQueue(makeBuffer("x")); }),
              "Adding buffer to queue not supported by this receiver");
}

TEST(kyNetLinkReceiver, availableIsOneBuffer)
{
    const auto link = std::make_shared<KeepingLink>();
    link->given.push(makeBuffer("1"));
    link->given.push(makeBuffer("2"));
    std::queue<Buffer> queue;
    kyNetLinkReceiver::create(link)->recvAvailable(queue);
    ASSERT_EQ(queue.size(), 1u);
    EXPECT_EQ(dataOf(*queue.front()), "1");
}

TEST(kyNetLinkReceiver, endLeavesTheLinkOpen)
{
    const auto link = std::make_shared<KeepingLink>();
    kyNetLinkReceiver::create(link).reset();
    EXPECT_FALSE(link->isShutDown);
}

TEST(kyNetLinkReceiver, copySharesTheLink)
{
    const auto link = std::make_shared<KeepingLink>();
    link->given.push(makeBuffer("1"));
    link->given.push(makeBuffer("2"));
    kyNetLinkReceiver original(link);
    kyNetLinkReceiver copy = original;
    Buffer buffer;
    original.recv(buffer);
    copy.recv(buffer);
    EXPECT_EQ(dataOf(*buffer), "2");
    copy = original;
    EXPECT_THROW(copy.recv(buffer), kyConnectionClosed);
}

TEST(kyNetLinkReceiver, timeOutOfTheLinkPassesThrough)
{
    const auto [near, far] = kyTest::makeLinks();
    const auto receiver = kyNetLinkReceiver::create(near);
    near->setRecvTimeout(0.01);
    Buffer buffer;
    EXPECT_THROW(receiver->recv(buffer), kyConnectionTimeout);
    far->send(makeBuffer("later"));
    receiver->recv(buffer);
    EXPECT_EQ(dataOf(*buffer), "later");
}

TEST(kyNetLinkReceiver, shutdownWakesABlockedReceive)
{
    const auto [near, far] = kyTest::makeLinks();
    const auto receiver = kyNetLinkReceiver::create(near);
    Blocked receiving([&] {
        Buffer buffer;
        receiver->recv(buffer);
    });
    EXPECT_TRUE(receiving.isBlocked());
    receiver->shutdown();
    EXPECT_THROW(receiving.finish(), kyConnectionClosed);
}
