#include <NetBase/senders/kyNetBalancedSender.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <tests/support/kyTestChains.h>

using kyTest::KeepingSender;
using kyTest::makeBuffer;
using kyTest::messageOf;

namespace {

/// A balanced sender over children that write their number into one order.
struct Fixture
{
    explicit Fixture(std::size_t count)
    {
        std::vector<std::shared_ptr<kyNetSender>> senders;
        for (std::size_t i = 0; i < count; ++i) {
            children.push_back(std::make_shared<KeepingSender>());
            children.back()->onSend = [this, i](kyNetBuffer&) { order += std::to_string(i); };
            senders.push_back(children.back());
        }
        sender = kyNetBalancedSender::create(senders);
    }

    std::string order;
    std::vector<std::shared_ptr<KeepingSender>> children;
    std::shared_ptr<kyNetSender> sender;
};

} // namespace

TEST(kyNetBalancedSender, oneChildNeedsNoWrapper)
{
    const Fixture one(1);
    EXPECT_EQ(one.sender, one.children[0]);
    const Fixture two(2);
    EXPECT_NE(dynamic_cast<kyNetBalancedSender*>(two.sender.get()), nullptr);
}

TEST(kyNetBalancedSender, buffersGoToTheChildrenInTurn)
{
    Fixture f(3);
    for (int i = 0; i < 6; ++i) {
        f.sender->send(makeBuffer("x"));
    }
    EXPECT_EQ(f.order, "120120");
    for (const auto& child : f.children) {
        EXPECT_EQ(child->sent.size(), 2u);
    }
}

TEST(kyNetBalancedSender, destinationsDoNotMatter)
{
    Fixture f(2);
    for (const std::uint32_t destination : {0u, 2u, 0u, 7u}) {
        f.sender->send(makeBuffer("x", 1, destination));
    }
    EXPECT_EQ(f.order, "1010");
}

TEST(kyNetBalancedSender, withoutChildrenItRefuses)
{
    Fixture f(0);
    EXPECT_EQ(messageOf([&] { f.sender->send(makeBuffer("x")); }),
              "Unable to send: balanced sender without children");
}

TEST(kyNetBalancedSender, failureMovesOnToTheNextChild)
{
    Fixture f(2);
    f.children[1]->onSend = [](kyNetBuffer&) { throw kyConnectionClosed(); };
    EXPECT_THROW(f.sender->send(makeBuffer("x")), kyConnectionClosed);
    f.sender->send(makeBuffer("x"));
    EXPECT_EQ(f.order, "0");
}

TEST(kyNetBalancedSender, copyHasItsOwnTurn)
{
    const auto first = std::make_shared<KeepingSender>();
    const auto second = std::make_shared<KeepingSender>();
    kyNetBalancedSender original({first, second});
    kyNetBalancedSender copy = original;
    original.send(makeBuffer("a"));
    copy.send(makeBuffer("b"));
    EXPECT_EQ(second->sent.size(), 2u);
    copy = original;
    copy.send(makeBuffer("c"));
    kyNetBalancedSender moved = std::move(original);
    moved.send(makeBuffer("d"));
    EXPECT_EQ(first->sent.size(), 2u);
}
