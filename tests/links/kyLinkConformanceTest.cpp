#include <functional>
#include <memory>
#include <ostream>
#include <queue>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyConnectionTimeout.h>
#include <NetBase/links/kyBoundSocketLink.h>
#include <NetBase/links/kyNetLink.h>
#include <NetBase/links/kyNetLinkPin.h>
#include <NetBase/links/kySocketPipe.h>
#include <NetBase/platform/kySockets.h>
#include <tests/links/kyLinkFixtures.h>

// What every kind of link promises, however it came about.

namespace {

using kyTest::Blocked;
using kyTest::bytesOf;
using kyTest::makeBuffer;
using kyTest::OpenLink;

struct Ends
{
    std::shared_ptr<kyNetLink> first;
    std::shared_ptr<kyNetLink> second;
};

struct Kind
{
    std::string name;
    std::function<Ends()> connect;
};

std::ostream& operator<<(std::ostream& stream, const Kind& kind)
{
    return stream << kind.name;
}

Ends adopt()
{
    const auto handles = kyTest::makeConnection();
    return {std::make_shared<kySocketLink>(handles.first),
            std::make_shared<kySocketLink>(handles.second)};
}

Ends listenAndConnect()
{
    const kyBoundSocketLink listening(0);
    auto first = std::make_shared<kySocketLink>(
        kySocketAddress("127.0.0.1", listening.getAddress().getPort()), 10.0);
    return {first, std::make_shared<kySocketLink>(listening)};
}

Ends handOver()
{
    const auto handles = kyTest::makeConnection();
    kySocketPipe sending(true);
    kySocketPipe receiving(sending.getName());
    Blocked sender([&] { kySocketLink(handles.second).sendDescriptor(sending, 10.0); });
    Ends ends{std::make_shared<kySocketLink>(handles.first),
              std::make_shared<kySocketLink>(receiving, 10.0)};
    sender.finish();
    return ends;
}

Ends shakeHands()
{
    const auto handles = kyTest::makeConnection();
    auto client = std::make_shared<kySocketLink>(handles.first);
    std::shared_ptr<kySocketLink> server;
    Blocked checking([&] { server.reset(kySocketLink::checkForHPCNetSocket(handles.second)); });
    client->signalHPCNetSocket();
    checking.finish();
    return {client, server};
}

/// Where the two ends are copies of links that are given up in favour of them.
Ends copy()
{
    const auto handles = kyTest::makeConnection();
    kySocketLink first(handles.first);
    kySocketLink second(handles.second);
    Ends ends{std::make_shared<kySocketLink>(first), std::make_shared<kySocketLink>(second)};
    first.takeDescriptor();
    second.takeDescriptor();
    return ends;
}

Kind ciphered(const Kind& kind)
{
    return {kind.name + "Ciphered", [connect = kind.connect] {
                const Ends ends = connect();
                const auto cipher = std::make_shared<kyTest::XorCipher>();
                ends.first->setCipher(cipher);
                ends.second->setCipher(cipher);
                return ends;
            }};
}

std::vector<Kind> makeKinds()
{
    std::vector<Kind> kinds;
    for (const Kind& kind :
         {Kind{"adopted", adopt}, Kind{"connected", listenAndConnect}, Kind{"handedOver", handOver},
          Kind{"greeted", shakeHands}, Kind{"copied", copy}}) {
        kinds.push_back(kind);
        kinds.push_back(ciphered(kind));
    }
    return kinds;
}

class kyLinkConformance : public testing::TestWithParam<Kind>
{
protected:
    Ends m_ends = GetParam().connect();
};

/// Sizes at the edges of the header, of the largest stream buffer and of the capacity.
const std::vector<std::uint64_t> s_sizes = {0,    1,      2,      19,     20,    21,
                                            4096, 131071, 131072, 131601, 131602};

std::string receive(kyNetLink& link)
{
    std::shared_ptr<kyNetBuffer> buffer;
    link.recv(buffer);
    return bytesOf(*buffer);
}

} // namespace

TEST_P(kyLinkConformance, carriesBuffersOfEverySize)
{
    Blocked sender([&] {
        for (const std::uint64_t size : s_sizes) {
            m_ends.first->send(makeBuffer(size));
        }
    });
    for (const std::uint64_t size : s_sizes) {
        EXPECT_EQ(receive(*m_ends.second), bytesOf(*makeBuffer(size))) << size;
    }
    sender.finish();
}

TEST_P(kyLinkConformance, carriesManyBuffersThatAreSentTogether)
{
    std::vector<std::shared_ptr<kyNetBuffer>> buffers;
    for (unsigned i = 0; i < 150; ++i) {
        buffers.push_back(makeBuffer(s_sizes[i % s_sizes.size()], i));
    }
    Blocked sender([&] {
        m_ends.first->sendMany({});
        m_ends.first->sendMany(buffers);
        m_ends.first->sendMany({buffers.front()});
    });
    for (const auto& buffer : buffers) {
        ASSERT_EQ(receive(*m_ends.second), bytesOf(*buffer));
    }
    EXPECT_EQ(receive(*m_ends.second), bytesOf(*buffers.front()));
    sender.finish();
}

TEST_P(kyLinkConformance, carriesBothDirectionsAtOnce)
{
    const auto sendAll = [](kyNetLink& link, unsigned seed) {
        for (unsigned i = 0; i < 200; ++i) {
            link.send(makeBuffer((i * 977) % 20000, seed + i));
        }
    };
    const auto receiveAll = [](kyNetLink& link, unsigned seed) {
        for (unsigned i = 0; i < 200; ++i) {
            ASSERT_EQ(receive(link), bytesOf(*makeBuffer((i * 977) % 20000, seed + i)));
        }
    };
    Blocked there([&] { sendAll(*m_ends.first, 1000); });
    Blocked back([&] { sendAll(*m_ends.second, 2000); });
    Blocked arriving([&] { receiveAll(*m_ends.first, 2000); });
    receiveAll(*m_ends.second, 1000);
    there.finish();
    back.finish();
    arriving.finish();
}

TEST_P(kyLinkConformance, leavesASentBufferAsItWas)
{
    const auto buffer = makeBuffer(100);
    const std::string before = bytesOf(*buffer);
    m_ends.first->send(buffer);
    m_ends.first->send(buffer);
    EXPECT_EQ(bytesOf(*buffer), before);
    EXPECT_EQ(receive(*m_ends.second), before);
    EXPECT_EQ(receive(*m_ends.second), before);
}

TEST_P(kyLinkConformance, appendsAtLeastOneBuffer)
{
    m_ends.first->send(makeBuffer(3));
    std::queue<std::shared_ptr<kyNetBuffer>> queue;
    m_ends.second->recvAvailable(queue);
    ASSERT_FALSE(queue.empty());
    EXPECT_EQ(bytesOf(*queue.front()), bytesOf(*makeBuffer(3)));
}

TEST_P(kyLinkConformance, namesItsEnds)
{
    EXPECT_EQ(m_ends.first->getLinkName(), "127.0.0.1->127.0.0.1");
    EXPECT_EQ(m_ends.second->getLinkName(), "127.0.0.1->127.0.0.1");
}

TEST_P(kyLinkConformance, isOwnedBySharedPointers)
{
    EXPECT_EQ(m_ends.first->getSharedPtr(), m_ends.first);
}

TEST_P(kyLinkConformance, timesOutAndGoesOn)
{
    m_ends.second->setRecvTimeout(0.05);
    std::shared_ptr<kyNetBuffer> buffer;
    EXPECT_THROW(m_ends.second->recv(buffer), kyConnectionTimeout);
    m_ends.second->checkAlive();
    m_ends.second->setRecvTimeout(0.0);
    Blocked receiver([&] { EXPECT_EQ(receive(*m_ends.second), bytesOf(*makeBuffer(9))); });
    EXPECT_TRUE(receiver.isBlocked());
    m_ends.first->send(makeBuffer(9));
    receiver.finish();
}

TEST_P(kyLinkConformance, wakesBothEndsWhenItIsShutDown)
{
    Blocked here([&] { receive(*m_ends.first); });
    Blocked there([&] { receive(*m_ends.second); });
    EXPECT_TRUE(here.isBlocked());
    EXPECT_TRUE(there.isBlocked());
    m_ends.first->shutdown();
    EXPECT_THROW(here.finish(), kyConnectionClosed);
    EXPECT_THROW(there.finish(), kyConnectionClosed);
    for (const auto& link : {m_ends.first, m_ends.second}) {
        EXPECT_THROW(link->checkAlive(), kyConnectionClosed);
        EXPECT_THROW(link->send(makeBuffer(1)), kyConnectionClosed);
        EXPECT_THROW(receive(*link), kyConnectionClosed);
        link->shutdown();
    }
}

TEST_P(kyLinkConformance, deliversWhatWasSentBeforeAnOrderlyEnd)
{
    m_ends.first->send(makeBuffer(100));
    m_ends.first->shutdown();
    EXPECT_EQ(receive(*m_ends.second), bytesOf(*makeBuffer(100)));
    EXPECT_THROW(receive(*m_ends.second), kyConnectionClosed);
}

TEST_P(kyLinkConformance, isPolledByItsHandle)
{
    const kyNetLinkPin pin(*m_ends.second);
    ASSERT_TRUE(pin.isPinned());
    EXPECT_EQ(pin.getHandle(), m_ends.second->getRecvHandle());
    kySockets::PollEntry entry{pin.getHandle(), kySockets::Readable, kySockets::None};
    EXPECT_EQ(kySockets::poll(&entry, 1, 0), 0);
    EXPECT_EQ(entry.ready, kySockets::None);
    m_ends.first->send(makeBuffer(1));
    EXPECT_EQ(kySockets::poll(&entry, 1, 10000), 1);
    EXPECT_EQ(entry.ready, kySockets::Readable);
}

TEST_P(kyLinkConformance, wakesAPollOfItsHandle)
{
    Blocked polling([&] {
        const kyNetLinkPin pin(*m_ends.second);
        kySockets::PollEntry entry{pin.getHandle(), kySockets::Readable, kySockets::None};
        EXPECT_EQ(kySockets::poll(&entry, 1, -1), 1);
        EXPECT_NE(entry.ready, kySockets::None);
    });
    EXPECT_TRUE(polling.isBlocked());
    m_ends.second->shutdown();
    polling.finish();
    EXPECT_FALSE(kyNetLinkPin(*m_ends.second).isPinned());
}

INSTANTIATE_TEST_SUITE_P(kinds, kyLinkConformance, testing::ValuesIn(makeKinds()),
                         [](const testing::TestParamInfo<Kind>& kind) { return kind.param.name; });
