#include <NetBase/receivers/kyNetReceiver.h>

#include <memory>
#include <queue>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/receivers/kyNetLinkReceiver.h>
#include <tests/support/kyTestChains.h>

using kyTest::Buffer;
using kyTest::GivingReceiver;
using kyTest::KeepingLink;
using kyTest::makeBuffer;
using kyTest::messageOf;

namespace {

using Receivers = std::vector<std::shared_ptr<kyNetReceiver>>;

/// A receiver with nothing of its own but two buffers.
class Plain : public kyNetReceiver
{
public:
    using kyNetReceiver::kyNetReceiver;
    void recv(Buffer& buffer) override { buffer = makeBuffer(std::to_string(++received)); }
    int received = 0;
};

} // namespace

static_assert(std::is_abstract_v<kyNetReceiver> && std::has_virtual_destructor_v<kyNetReceiver>);

TEST(kyNetReceiver, defaultHasNothing)
{
    Plain receiver;
    EXPECT_TRUE(receiver.getLinks().empty());
    EXPECT_EQ(receiver.getNodeAffinity(), -1);
    EXPECT_EQ(receiver.getLinkName(), "unknown");
    EXPECT_TRUE(receiver.isReadable());
    receiver.shutdown();
}

TEST(kyNetReceiver, refusesBuffersFromOutside)
{
    Plain receiver;
    EXPECT_EQ(messageOf([&] { receiver.addToRecvQueue(makeBuffer("x")); }),
              "Adding buffer to queue not supported by this receiver");
}

TEST(kyNetReceiver, availableIsOneBufferAtTheEndOfTheQueue)
{
    Plain receiver;
    std::queue<Buffer> queue;
    queue.push(makeBuffer("before"));
    receiver.recvAvailable(queue);
    EXPECT_EQ(receiver.received, 1);
    ASSERT_EQ(queue.size(), 2u);
    EXPECT_EQ(kyTest::dataOf(*queue.back()), "1");
}

TEST(kyNetReceiver, affinityIsThatOfTheFirstChildThatHasOne)
{
    const auto first = std::make_shared<GivingReceiver>();
    const auto second = std::make_shared<GivingReceiver>();
    const auto third = std::make_shared<GivingReceiver>();
    second->affinity = 4;
    third->affinity = 5;
    Plain parent(Receivers{first, second, third});
    EXPECT_EQ(parent.getNodeAffinity(), 4);
    EXPECT_EQ(first->affinityAsked, 1);
    EXPECT_EQ(second->affinityAsked, 2);
    EXPECT_EQ(third->affinityAsked, 0);
    first->affinity = 0;
    EXPECT_EQ(parent.getNodeAffinity(), 0);
    first->affinity = second->affinity = third->affinity = -1;
    EXPECT_EQ(parent.getNodeAffinity(), -1);
}

TEST(kyNetReceiver, linksComeInTheOrderOfTheChildren)
{
    std::vector<std::shared_ptr<kyNetLink>> links;
    Receivers leaves;
    for (int i = 0; i < 3; ++i) {
        links.push_back(std::make_shared<KeepingLink>());
        leaves.push_back(kyNetLinkReceiver::create(links.back()));
    }
    const auto one = std::make_shared<Plain>(leaves[0]);
    const auto two = std::make_shared<Plain>(Receivers{leaves[1], leaves[2]});
    Plain parent(Receivers{one, two});
    EXPECT_EQ(parent.getLinks(), links);
    Plain copy = parent;
    EXPECT_EQ(copy.getLinks(), links);
}

TEST(kyNetReceiver, shutdownReachesEveryLink)
{
    const auto first = std::make_shared<KeepingLink>();
    const auto second = std::make_shared<KeepingLink>();
    Plain parent(Receivers{kyNetLinkReceiver::create(first), kyNetLinkReceiver::create(second)});
    parent.shutdown();
    EXPECT_TRUE(first->isShutDown);
    EXPECT_TRUE(second->isShutDown);
}
