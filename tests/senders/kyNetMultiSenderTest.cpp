#include <NetBase/senders/kyNetMultiSender.h>

#include <initializer_list>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <tests/support/kyTestChains.h>

using kyTest::Buffer;
using kyTest::KeepingSender;
using kyTest::makeBuffer;

namespace {

using Ranks = std::set<unsigned int>;

/// A multi sender over children that keep what they get.
struct Fixture
{
    Fixture(std::initializer_list<Ranks> ranks)
    {
        std::vector<std::shared_ptr<kyNetSender>> senders;
        for (const Ranks& each : ranks) {
            children.push_back(std::make_shared<KeepingSender>(each));
            senders.push_back(children.back());
        }
        sender = kyNetMultiSender::create(senders);
    }

    void send(std::uint32_t destination, std::uint32_t source = 1)
    {
        sender->send(makeBuffer("x", source, destination));
    }

    /// How many buffers each child got, as "2 0 1".
    std::string counts() const
    {
        std::string text;
        for (const auto& child : children) {
            text += (text.empty() ? "" : " ") + std::to_string(child->sent.size());
        }
        return text;
    }

    std::vector<std::shared_ptr<KeepingSender>> children;
    std::shared_ptr<kyNetSender> sender;
};

} // namespace

TEST(kyNetMultiSender, oneChildNeedsNoWrapper)
{
    const Fixture one{{2}};
    EXPECT_EQ(one.sender, one.children[0]);
    const Fixture two{{2}, {3}};
    EXPECT_NE(dynamic_cast<kyNetMultiSender*>(two.sender.get()), nullptr);
    EXPECT_EQ(two.sender->getDestinations(), (Ranks{2, 3}));
}

TEST(kyNetMultiSender, unicastGoesToTheChildThatReachesIt)
{
    Fixture f{{2}, {3}, {4}};
    f.send(3);
    EXPECT_EQ(f.counts(), "0 1 0");
    f.send(3);
    EXPECT_EQ(f.counts(), "0 2 0");
    f.send(2);
    f.send(4);
    EXPECT_EQ(f.counts(), "1 2 1");
}

TEST(kyNetMultiSender, unicastRotatesOverTheChildrenThatReachIt)
{
    Fixture f{{2}, {2, 3}, {2}};
    std::string order;
    for (std::size_t i = 0; i < f.children.size(); ++i) {
        f.children[i]->onSend = [&order, i](kyNetBuffer&) { order += std::to_string(i); };
    }
    for (int i = 0; i < 6; ++i) {
        f.send(2);
    }
    EXPECT_EQ(order, "120120");
}

TEST(kyNetMultiSender, allDestinationsShareOneTurn)
{
    Fixture f{{2, 3}, {2, 3}};
    std::string order;
    for (std::size_t i = 0; i < f.children.size(); ++i) {
        f.children[i]->onSend = [&order, i](kyNetBuffer& buffer) {
            order += std::to_string(i) + ":" + std::to_string(buffer.getDestination()) + " ";
        };
    }
    for (const std::uint32_t destination : {2u, 3u, 2u, 3u}) {
        f.send(destination);
    }
    EXPECT_EQ(order, "1:2 0:3 1:2 0:3 ");
}

TEST(kyNetMultiSender, unreachableUnicastIsDropped)
{
    Fixture f{{2}, {3}};
    f.send(4);
    EXPECT_EQ(f.counts(), "0 0");
}

TEST(kyNetMultiSender, removedDestinationIsDropped)
{
    Fixture f{{2}, {3}};
    f.sender->removeDestination(2);
    f.send(2);
    EXPECT_EQ(f.counts(), "0 0");
}

TEST(kyNetMultiSender, destinationWithoutAChildEndsTheSearch)
{
    Fixture f{{2}, {2, 3}};
    for (const auto& child : f.children) {
        child->removeDestination(2);
    }
    f.send(2); // Would turn for ever.
    EXPECT_EQ(f.counts(), "0 0");
    f.send(3);
    EXPECT_EQ(f.counts(), "0 1");
}

TEST(kyNetMultiSender, multicastGoesToAllButTheSourcesSide)
{
    Fixture f{{2, 3}, {4}, {5}};
    f.send(0, 3);
    EXPECT_EQ(f.counts(), "0 1 1");
    f.send(0, 1);
    EXPECT_EQ(f.counts(), "1 2 2");
    f.send(0, 5);
    EXPECT_EQ(f.counts(), "2 3 2");
}

TEST(kyNetMultiSender, multicastSharesOneBufferAndKeepsTheTurn)
{
    Fixture f{{2}, {2}};
    const Buffer buffer = makeBuffer("x", 1, 0);
    f.sender->send(buffer);
    EXPECT_EQ(f.children[0]->sent.at(0), buffer);
    EXPECT_EQ(f.children[1]->sent.at(0), buffer);
    f.send(2);
    EXPECT_EQ(f.counts(), "1 2");
}

TEST(kyNetMultiSender, withoutChildrenEverythingIsDropped)
{
    Fixture f{};
    f.send(0);
    f.send(2);
    EXPECT_TRUE(f.sender->getLinks().empty());
    EXPECT_NE(dynamic_cast<kyNetMultiSender*>(f.sender.get()), nullptr);
}

TEST(kyNetMultiSender, failureOfAChildPassesThrough)
{
    Fixture f{{2}, {3}};
    f.children[0]->onSend = [](kyNetBuffer&) { throw kyConnectionClosed(); };
    EXPECT_THROW(f.send(2), kyConnectionClosed);
    EXPECT_THROW(f.send(0), kyConnectionClosed);
    f.send(3);
    EXPECT_EQ(f.counts(), "0 1");
}

TEST(kyNetMultiSender, copyHasItsOwnTurn)
{
    const auto first = std::make_shared<KeepingSender>(Ranks{2});
    const auto second = std::make_shared<KeepingSender>(Ranks{2});
    kyNetMultiSender original({first, second});
    original.send(makeBuffer("a", 1, 2)); // second
    kyNetMultiSender copy = original;
    copy.send(makeBuffer("b", 1, 2));     // first
    original.send(makeBuffer("c", 1, 2)); // first
    EXPECT_EQ(first->sent.size(), 2u);
    kyNetMultiSender moved = std::move(copy);
    moved.send(makeBuffer("d", 1, 2)); // second
    EXPECT_EQ(second->sent.size(), 2u);
}
