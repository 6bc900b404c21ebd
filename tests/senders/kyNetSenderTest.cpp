#include <NetBase/senders/kyNetSender.h>

#include <future>
#include <memory>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/senders/kyNetBalancedSender.h>
#include <NetBase/senders/kyNetBufferedSender.h>
#include <NetBase/senders/kyNetLinkSender.h>
#include <tests/support/kyTestBlocked.h>
#include <tests/support/kyTestChains.h>
#include <tests/support/kyTestSystem.h>
#include <tests/support/kyTestWait.h>

using kyTest::KeepingLink;
using kyTest::KeepingSender;

namespace {

using Links = std::vector<std::shared_ptr<kyNetLink>>;
using Ranks = std::set<unsigned int>;
using Senders = std::vector<std::shared_ptr<kyNetSender>>;

/// A sender with nothing of its own.
class Plain : public kyNetSender
{
public:
    using kyNetSender::kyNetSender;
    void send(const kyTest::Buffer&) override {}
};

std::shared_ptr<KeepingSender> makeChild(const Ranks& ranks = {})
{
    return std::make_shared<KeepingSender>(ranks);
}

/// A link that keeps its first sender inside until it may go.
class HeldLink : public KeepingLink
{
public:
    void send(const kyTest::Buffer& buffer) override
    {
        if (sent.empty()) {
            entered.set_value();
            go.get_future().wait();
        }
        KeepingLink::send(buffer);
    }

    std::promise<void> entered;
    std::promise<void> go;
};

Links makeLinks(std::size_t count)
{
    Links links;
    while (links.size() < count) {
        links.push_back(std::make_shared<KeepingLink>());
    }
    return links;
}

} // namespace

TEST(kyNetSender, defaultHasNothing)
{
    Plain sender;
    EXPECT_TRUE(sender.getChildren().empty());
    EXPECT_TRUE(sender.getDestinations().empty());
    EXPECT_TRUE(sender.getLinks().empty());
    EXPECT_EQ(sender.getNodeAffinity(), -1);
    EXPECT_EQ(sender.getCompressedBytes(), 0u);
    sender.resetStatistics();
    sender.waitAllDataTransfered();
    sender.shutdown();
}

TEST(kyNetSender, leafHasTheDestinationsItIsGiven)
{
    Plain sender(Ranks{2, 5});
    EXPECT_EQ(sender.getDestinations(), (Ranks{2, 5}));
    EXPECT_TRUE(sender.hasDestination(2));
    EXPECT_FALSE(sender.hasDestination(3));
}

TEST(kyNetSender, parentHasTheUnionOfItsChildren)
{
    const auto first = makeChild({2, 3});
    const auto second = makeChild({3, 4});

    Plain overMany(Senders{first, second});
    EXPECT_EQ(overMany.getDestinations(), (Ranks{2, 3, 4}));
    EXPECT_EQ(overMany.getChildren(), (Senders{first, second}));

    Plain overTwo(second, first);
    EXPECT_EQ(overTwo.getDestinations(), (Ranks{2, 3, 4}));
    EXPECT_EQ(overTwo.getChildren(), (Senders{second, first}));

    Plain overOne(std::static_pointer_cast<kyNetSender>(first));
    EXPECT_EQ(overOne.getDestinations(), (Ranks{2, 3}));
    EXPECT_EQ(overOne.getChildren(), (Senders{first}));
}

TEST(kyNetSender, destinationsAreTakenWhenItIsMade)
{
    const auto child = makeChild({2, 3});
    Plain parent(Senders{child});
    child->removeDestination(2);
    EXPECT_EQ(parent.getDestinations(), (Ranks{2, 3}));
    parent.removeDestination(3);
    EXPECT_EQ(parent.getDestinations(), (Ranks{2}));
    EXPECT_EQ(child->getDestinations(), (Ranks{3}));
    parent.removeDestination(99);
    EXPECT_EQ(parent.getDestinations(), (Ranks{2}));
}

TEST(kyNetSender, affinityIsThatOfTheFirstChildThatHasOne)
{
    const auto first = makeChild();
    const auto second = makeChild();
    const auto third = makeChild();
    second->affinity = 4;
    third->affinity = 5;
    Plain parent(Senders{first, second, third});
    EXPECT_EQ(parent.getNodeAffinity(), 4);
    EXPECT_EQ(first->affinityAsked, 1);
    EXPECT_EQ(second->affinityAsked, 2);
    EXPECT_EQ(third->affinityAsked, 0);

    first->affinity = 0;
    EXPECT_EQ(parent.getNodeAffinity(), 0);
    first->affinity = second->affinity = third->affinity = -1;
    EXPECT_EQ(parent.getNodeAffinity(), -1);
}

TEST(kyNetSender, compressedBytesAreTheSum)
{
    const auto first = makeChild();
    const auto second = makeChild();
    first->compressedBytes = 5000000000;
    second->compressedBytes = 7;
    EXPECT_EQ(Plain(Senders{first, second}).getCompressedBytes(), 5000000007u);
}

TEST(kyNetSender, resetAndWaitReachEveryChild)
{
    const auto first = makeChild();
    const auto second = makeChild();
    Plain parent(Senders{first, second});
    parent.resetStatistics();
    parent.waitAllDataTransfered();
    EXPECT_EQ(first->resets, 1);
    EXPECT_EQ(second->resets, 1);
    EXPECT_EQ(first->waits, 1);
    EXPECT_EQ(second->waits, 1);
}

TEST(kyNetSender, linksComeInTheOrderOfTheChildren)
{
    std::vector<std::shared_ptr<kyNetLink>> links;
    Senders leaves;
    for (int i = 0; i < 3; ++i) {
        links.push_back(std::make_shared<KeepingLink>());
        leaves.push_back(kyNetLinkSender::create(links.back()));
    }
    const auto pair = std::make_shared<Plain>(leaves[1], leaves[2]);
    Plain parent(leaves[0], pair);
    EXPECT_EQ(parent.getLinks(), links);
}

TEST(kyNetSender, shutdownReachesEveryLink)
{
    const auto first = std::make_shared<KeepingLink>();
    const auto second = std::make_shared<KeepingLink>();
    Plain parent(kyNetLinkSender::create(first), kyNetLinkSender::create(second));
    parent.shutdown();
    EXPECT_TRUE(first->isShutDown);
    EXPECT_TRUE(second->isShutDown);
}

TEST(kyNetSender, copySharesTheChildren)
{
    const auto child = makeChild({2});
    Plain original(Senders{child});
    Plain copy = original;
    EXPECT_EQ(copy.getChildren(), (Senders{child}));
    copy.removeDestination(2);
    EXPECT_TRUE(original.hasDestination(2));
    copy = original;
    EXPECT_TRUE(copy.hasDestination(2));
}

TEST(kyNetSender, destructionReleasesTheChildren)
{
    auto child = makeChild();
    std::weak_ptr<kyNetSender> watched = child;
    {
        Plain parent(Senders{child});
        child.reset();
        EXPECT_FALSE(watched.expired());
    }
    EXPECT_TRUE(watched.expired());
}

TEST(kyNetSender, bundleOfOneLinkIsItsLinkSender)
{
    const auto link = std::make_shared<KeepingLink>();
    const auto sender = kyNetSender::createBundle({link}, false, {2, 3});
    EXPECT_NE(dynamic_cast<kyNetLinkSender*>(sender.get()), nullptr);
    EXPECT_EQ(sender->getDestinations(), (Ranks{2, 3}));
    EXPECT_EQ(sender->getLinks(), Links{link});
}

TEST(kyNetSender, bufferedBundleHasAThreadForEachLink)
{
    const std::size_t threads = kyTest::countThreads();
    for (const std::size_t count : {1u, 4u}) {
        const Links links = makeLinks(count);
        auto sender = kyNetSender::createBundle(links, true, {2, 3});
        EXPECT_NE(dynamic_cast<kyNetBufferedSender*>(sender.get()), nullptr);
        EXPECT_EQ(kyTest::countThreads(), threads + count);
        EXPECT_EQ(sender->getDestinations(), (Ranks{2, 3}));
        EXPECT_EQ(sender->getLinks(), links);
        for (const auto& leaf : sender->getChildren()) {
            EXPECT_EQ(leaf->getDestinations(), (Ranks{2, 3}));
        }
        sender.reset();
        EXPECT_TRUE(kyTest::waitUntil([&] { return kyTest::countThreads() == threads; }));
    }
}

TEST(kyNetSender, bufferedBundleHasRoomFor256Buffers)
{
    const auto link = std::make_shared<HeldLink>();
    const auto sender = kyNetSender::createBundle({link}, true, {2});
    sender->send(kyTest::makeBuffer("held"));
    link->entered.get_future().wait();
    for (int i = 0; i < 256; ++i) {
        sender->send(kyTest::makeBuffer("x"));
    }
    kyTest::Blocked next([&] { sender->send(kyTest::makeBuffer("next")); });
    EXPECT_TRUE(next.isBlocked());
    link->go.set_value();
    next.finish();
    sender->waitAllDataTransfered();
}

TEST(kyNetSender, bundleOfSeveralLinksTakesTurns)
{
    const std::size_t threads = kyTest::countThreads();
    const Links links = makeLinks(4);
    const auto sender = kyNetSender::createBundle(links, false, {2});
    EXPECT_NE(dynamic_cast<kyNetBalancedSender*>(sender.get()), nullptr);
    EXPECT_EQ(sender->getLinks(), links);
    EXPECT_EQ(kyTest::countThreads(), threads);
    for (int i = 0; i < 8; ++i) {
        sender->send(kyTest::makeBuffer(std::to_string(i % 4)));
    }
    for (const auto& link : links) {
        const auto& sent = static_cast<KeepingLink&>(*link).sent;
        ASSERT_EQ(sent.size(), 2u);
        EXPECT_EQ(kyTest::dataOf(*sent[0]), kyTest::dataOf(*sent[1]));
    }
}

TEST(kyNetSender, sendsManyOneAfterTheOther)
{
    const Links links = makeLinks(2);
    const auto balanced = kyNetSender::createBundle(links, false, {2});
    const std::vector<kyTest::Buffer> buffers{kyTest::makeBuffer("a"), kyTest::makeBuffer("b"),
                                              kyTest::makeBuffer("c")};
    balanced->sendMany(buffers);
    const auto& even = static_cast<KeepingLink&>(*links[0]);
    const auto& odd = static_cast<KeepingLink&>(*links[1]);
    EXPECT_EQ(odd.sent, (std::vector<kyTest::Buffer>{buffers[0], buffers[2]}));
    EXPECT_EQ(even.sent, std::vector<kyTest::Buffer>{buffers[1]});
    EXPECT_TRUE(odd.sentTogether.empty());
}

TEST(kyNetSender, bundleWithoutLinksReachesNobody)
{
    const auto balanced = kyNetSender::createBundle({}, false, {2});
    EXPECT_NE(dynamic_cast<kyNetBalancedSender*>(balanced.get()), nullptr);
    const std::size_t threads = kyTest::countThreads();
    const auto buffered = kyNetSender::createBundle({}, true, {2});
    EXPECT_NE(dynamic_cast<kyNetBufferedSender*>(buffered.get()), nullptr);
    EXPECT_EQ(kyTest::countThreads(), threads);
    for (const auto& sender : {balanced, buffered}) {
        EXPECT_TRUE(sender->getChildren().empty());
        EXPECT_TRUE(sender->getDestinations().empty());
    }
}

TEST(kyNetSender, bundleSharesTheLinksAndForgetsTheirList)
{
    const Links links = makeLinks(2);
    const auto sender = kyNetSender::createBundle(links, true, {2});
    for (const auto& link : links) {
        EXPECT_EQ(link.use_count(), 2);
    }
}

static_assert(std::is_abstract_v<kyNetSender> && std::has_virtual_destructor_v<kyNetSender>);
