#include <NetBase/senders/kyNetLinkSender.h>

#include <memory>
#include <set>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <tests/support/kyTestBlocked.h>
#include <tests/support/kyTestChains.h>

using kyTest::Blocked;
using kyTest::Buffer;
using kyTest::dataOf;
using kyTest::KeepingLink;
using kyTest::makeBuffer;

TEST(kyNetLinkSender, sendsTheVeryBufferOverItsLink)
{
    const auto link = std::make_shared<KeepingLink>();
    const Buffer buffer = makeBuffer("abc");
    kyNetLinkSender::create(link)->send(buffer);
    ASSERT_EQ(link->sent.size(), 1u);
    EXPECT_EQ(link->sent[0], buffer);
}

TEST(kyNetLinkSender, sendsManyWithOneCallOfItsLink)
{
    const auto link = std::make_shared<KeepingLink>();
    const std::vector<Buffer> buffers{makeBuffer("a"), makeBuffer("b"), makeBuffer("c")};
    kyNetLinkSender::create(link)->sendMany(buffers);
    EXPECT_EQ(link->sent, buffers);
    EXPECT_EQ(link->sentTogether, std::vector<std::size_t>{3});
}

TEST(kyNetLinkSender, hasItsLinkAndItsAffinity)
{
    const auto link = std::make_shared<KeepingLink>();
    const auto sender = kyNetLinkSender::create(link);
    EXPECT_EQ(sender->getLinks(), std::vector<std::shared_ptr<kyNetLink>>{link});
    EXPECT_EQ(sender->getNodeAffinity(), -1);
    link->setNodeAffinity(3);
    EXPECT_EQ(sender->getNodeAffinity(), 3);
}

TEST(kyNetLinkSender, destinationsAreTheGivenOrNone)
{
    const auto link = std::make_shared<KeepingLink>();
    const std::set<unsigned int> ranks{2, 9};
    EXPECT_EQ(kyNetLinkSender::create(link, ranks)->getDestinations(), ranks);
    EXPECT_TRUE(kyNetLinkSender::create(link)->getDestinations().empty());
}

TEST(kyNetLinkSender, failureOfTheLinkPassesThrough)
{
    const auto link = std::make_shared<KeepingLink>();
    const auto sender = kyNetLinkSender::create(link);
    sender->shutdown();
    EXPECT_THROW(sender->send(makeBuffer("abc")), kyConnectionClosed);
}

TEST(kyNetLinkSender, endLeavesTheLinkOpen)
{
    const auto link = std::make_shared<KeepingLink>();
    kyNetLinkSender::create(link).reset();
    EXPECT_FALSE(link->isShutDown);
}

TEST(kyNetLinkSender, copyAndMoveShareTheLink)
{
    const auto link = std::make_shared<KeepingLink>();
    kyNetLinkSender original(link, {4});
    kyNetLinkSender copy = original;
    copy.send(makeBuffer("1"));
    kyNetLinkSender moved = std::move(original);
    moved.send(makeBuffer("2"));
    copy = moved;
    copy.send(makeBuffer("3"));
    EXPECT_EQ(link->sent.size(), 3u);
    EXPECT_TRUE(copy.hasDestination(4));
}

TEST(kyNetLinkSender, buffersArriveOverARealLink)
{
    const auto [near, far] = kyTest::makeLinks();
    const auto sender = kyNetLinkSender::create(near);
    sender->send(makeBuffer("first", 2, 3));
    sender->send(makeBuffer("second"));
    Buffer buffer;
    far->recv(buffer);
    EXPECT_EQ(dataOf(*buffer), "first");
    EXPECT_EQ(buffer->getSource(), 2u);
    EXPECT_EQ(buffer->getDestination(), 3u);
    far->recv(buffer);
    EXPECT_EQ(dataOf(*buffer), "second");
}

TEST(kyNetLinkSender, shutdownWakesABlockedSend)
{
    const auto [near, far] = kyTest::makeLinks();
    const auto sender = kyNetLinkSender::create(near);
    const Buffer buffer = makeBuffer(std::string(131072, 'x'));
    Blocked sending([&] {
        for (;;) {
            sender->send(buffer); // The peer never reads.
        }
    });
    EXPECT_TRUE(sending.isBlocked());
    sender->shutdown();
    EXPECT_THROW(sending.finish(), kyConnectionClosed);
}
