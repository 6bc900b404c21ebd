#include <NetBase/senders/kyNetSwitchSender.h>

#include <memory>
#include <set>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <tests/support/kyTestChains.h>

using kyTest::Buffer;
using kyTest::KeepingSender;
using kyTest::makeBuffer;

namespace {

/// Which of the two children gets a buffer of this size and mode: "first" or "second".
std::string route(std::uint64_t threshold, std::size_t size, int mode)
{
    const auto first = std::make_shared<KeepingSender>();
    const auto second = std::make_shared<KeepingSender>();
    const auto sender = kyNetSwitchSender::create(first, second, threshold);
    const Buffer buffer = makeBuffer(std::string(size, 'x'));
    buffer->setSendMode(static_cast<kyNetBufferSendMode>(mode));
    sender->send(buffer);
    return std::string(first->sent.size(), '1') + std::string(second->sent.size(), '2');
}

} // namespace

TEST(kyNetSwitchSender, automaticModeGoesBySize)
{
    EXPECT_EQ(route(1000, 0, 0), "2");
    EXPECT_EQ(route(1000, 999, 0), "2");
    EXPECT_EQ(route(1000, 1000, 0), "2");
    EXPECT_EQ(route(1000, 1001, 0), "1");
    EXPECT_EQ(route(1000, 131602, 0), "1");
}

TEST(kyNetSwitchSender, thresholdsAtTheirEnds)
{
    EXPECT_EQ(route(0, 0, 0), "2");
    EXPECT_EQ(route(0, 1, 0), "1");
    EXPECT_EQ(route(std::uint64_t{1} << 32, 131602, 0), "2");
}

TEST(kyNetSwitchSender, namedModeGoesByName)
{
    EXPECT_EQ(route(1000, 1, 1), "1");
    EXPECT_EQ(route(1000, 2000, 1), "1");
    EXPECT_EQ(route(1000, 1, 2), "2");
    EXPECT_EQ(route(1000, 2000, 2), "2");
}

TEST(kyNetSwitchSender, unknownModesTakeTheSecond)
{
    EXPECT_EQ(route(1000, 2000, 3), "2");
    EXPECT_EQ(route(1000, 2000, -1), "2");
}

TEST(kyNetSwitchSender, reachesWhatBothReach)
{
    const auto first = std::make_shared<KeepingSender>(std::set<unsigned int>{2});
    const auto second = std::make_shared<KeepingSender>(std::set<unsigned int>{3});
    const auto sender = kyNetSwitchSender::create(first, second, 10);
    EXPECT_EQ(sender->getDestinations(), (std::set<unsigned int>{2, 3}));
    ASSERT_EQ(sender->getChildren().size(), 2u);
    EXPECT_EQ(sender->getChildren()[0], first);
    EXPECT_EQ(sender->getChildren()[1], second);
}

TEST(kyNetSwitchSender, failureOfAChildPassesThrough)
{
    const auto first = std::make_shared<KeepingSender>();
    first->onSend = [](kyNetBuffer&) { throw kyConnectionClosed(); };
    const auto second = std::make_shared<KeepingSender>();
    const auto sender = kyNetSwitchSender::create(first, second, 0);
    EXPECT_THROW(sender->send(makeBuffer("x")), kyConnectionClosed);
    EXPECT_TRUE(second->sent.empty());
}

TEST(kyNetSwitchSender, copyAndMoveRouteAlike)
{
    const auto first = std::make_shared<KeepingSender>();
    const auto second = std::make_shared<KeepingSender>();
    kyNetSwitchSender original(first, second, 2);
    kyNetSwitchSender copy = original;
    copy.send(makeBuffer("xxx"));
    kyNetSwitchSender moved = std::move(original);
    moved.send(makeBuffer("xxx"));
    copy = moved;
    copy.send(makeBuffer("xx"));
    EXPECT_EQ(first->sent.size(), 2u);
    EXPECT_EQ(second->sent.size(), 1u);
}
