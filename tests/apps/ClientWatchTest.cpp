#include <apps/TALOClusterService/ClientWatch.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetBufferPool.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/links/kyBoundSocketLink.h>
#include <NetBase/links/kySocketAddress.h>
#include <tests/support/kyTestWait.h>

namespace {

using namespace std::chrono_literals;

constexpr std::uint64_t s_maxReceived = 100;

/// A connection of which the service's end is a ClientLink.
struct Connection
{
    explicit Connection(const kyBoundSocketLink& listener)
        : peer(kySocketAddress("127.0.0.1", std::to_string(port(listener))), 10.0)
    {
        kySocketLink accepted(listener);
        client = std::make_shared<ClientLink>(accepted.takeDescriptor(), s_maxReceived);
    }

    static int port(const kyBoundSocketLink& listener) { return listener.getAddress().getPort(); }

    /// Waits for a buffer of the peer as a request's handler does; true if it came, false if the
    /// connection was ended.
    std::future<bool> receive()
    {
        return std::async(std::launch::async, [link = client] {
            try {
                std::shared_ptr<kyNetBuffer> buffer;
                link->recv(buffer);
                return true;
            } catch (const kyConnectionClosed&) {
                return false;
            }
        });
    }

    void sendBuffer(std::uint32_t size = 0)
    {
        const std::shared_ptr<kyNetBuffer> buffer = kyNetBufferPool::pop();
        buffer->setDataSize(size);
        peer.send(buffer);
    }

    kySocketLink peer;
    std::shared_ptr<ClientLink> client;
};

bool isWaitedFor(const ClientLink& client)
{
    return client.getWait() > ClientLink::Clock::duration::zero();
}

} // namespace

TEST(ClientLink, waitIsTheTimeSpentInTransfers)
{
    const kyBoundSocketLink listener(0);
    Connection connection(listener);
    EXPECT_FALSE(isWaitedFor(*connection.client));
    for (const auto waited : {0ms, 300ms}) {
        auto received = connection.receive();
        EXPECT_TRUE(kyTest::waitUntil([&] { return isWaitedFor(*connection.client); }));
        // The second time counts from where the first one stopped.
        EXPECT_GT(connection.client->getWait(), waited);
        EXPECT_TRUE(
            kyTest::waitUntil([&] { return connection.client->getWait() > waited + 300ms; }));
        connection.sendBuffer();
        EXPECT_TRUE(received.get());
        EXPECT_FALSE(isWaitedFor(*connection.client));
    }
}

TEST(ClientLink, isDroppedOnlyWhileItIsWaitedFor)
{
    const kyBoundSocketLink listener(0);
    Connection connection(listener);
    connection.client->dropIfWaiting();
    EXPECT_NO_THROW(connection.client->checkAlive());

    auto received = connection.receive();
    EXPECT_TRUE(kyTest::waitUntil([&] { return isWaitedFor(*connection.client); }));
    connection.client->dropIfWaiting();
    EXPECT_FALSE(received.get());
}

TEST(ClientLink, speaksWhenAByteIsThereAndLeavesItUnread)
{
    const kyBoundSocketLink listener(0);
    Connection connection(listener);
    EXPECT_FALSE(connection.client->speaks(0.0));
    connection.peer.send("x", 1);
    EXPECT_TRUE(connection.client->speaks(10.0));
    EXPECT_TRUE(connection.client->speaks(10.0));
    char byte = 0;
    connection.client->kySocketLink::recv(&byte, 1);
    EXPECT_EQ(byte, 'x');
}

TEST(ClientLink, doesNotSpeakWhenThePeerHasGone)
{
    const kyBoundSocketLink listener(0);
    Connection connection(listener);
    connection.peer.shutdown();
    EXPECT_FALSE(connection.client->speaks(60.0));
}

TEST(ClientLink, isDroppedWhileItHasNotSpoken)
{
    const kyBoundSocketLink listener(0);
    Connection connection(listener);
    auto spoken = std::async(std::launch::async, [&] { return connection.client->speaks(3600.0); });
    EXPECT_TRUE(kyTest::waitUntil([&] { return isWaitedFor(*connection.client); }));
    connection.client->dropIfWaiting();
    EXPECT_THROW(spoken.get(), kyConnectionClosed);
}

TEST(ClientLink, isNotDroppedWhenTheWatchHasEnded)
{
    const kyBoundSocketLink listener(0);
    Connection connection(listener);
    auto received = connection.receive();
    EXPECT_TRUE(kyTest::waitUntil([&] { return isWaitedFor(*connection.client); }));
    connection.client->endWatch();
    EXPECT_FALSE(isWaitedFor(*connection.client));
    connection.client->dropIfWaiting();
    connection.sendBuffer();
    EXPECT_TRUE(received.get());
}

TEST(ClientLink, isWaitedForWhileItTakesNothing)
{
    const kyBoundSocketLink listener(0);
    const std::shared_ptr<kyNetBuffer> buffer = kyNetBufferPool::pop();
    buffer->setDataSize(static_cast<std::uint32_t>(kyNetBuffer::getCapacity()));
    for (const bool sendsMany : {false, true}) {
        Connection connection(listener);
        auto sent = std::async(std::launch::async, [&] {
            try {
                for (;;) {
                    sendsMany ? connection.client->sendMany({buffer, buffer})
                              : connection.client->send(buffer);
                }
            } catch (const kyConnectionClosed&) {
                return true;
            }
        });
        EXPECT_TRUE(kyTest::waitUntil([&] {
            connection.client->dropIfWaiting();
            return sent.wait_for(0ms) == std::future_status::ready;
        }));
        EXPECT_TRUE(sent.get());
    }
}

TEST(ClientLink, moreBytesThanARequestMayHaveAreRefused)
{
    const kyBoundSocketLink listener(0);
    Connection connection(listener);
    std::shared_ptr<kyNetBuffer> buffer;
    connection.sendBuffer(60); // with the header 80
    connection.sendBuffer(0);
    connection.sendBuffer(0);
    connection.client->recv(buffer);
    connection.client->recv(buffer);
    try {
        connection.client->recv(buffer);
        ADD_FAILURE();
    } catch (const kyNetError& e) {
        EXPECT_STREQ(e.what(), "Request too large");
    }
    connection.client->endWatch();
    connection.sendBuffer(1000);
    EXPECT_NO_THROW(connection.client->recv(buffer));
}

TEST(ClientWatch, dropsWhoIsWaitedForTooLong)
{
    const kyBoundSocketLink listener(0);
    ClientWatch watch(100ms, 10);
    Connection silent(listener);
    Connection idle(listener);
    const ClientWatch::Entry silentEntry(watch, silent.client);
    const ClientWatch::Entry idleEntry(watch, idle.client);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(silent.receive().get());
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 100ms);
    // Nobody waits for this one.
    EXPECT_NO_THROW(idle.client->checkAlive());
}

TEST(ClientWatch, dropsWhoTricklesInsideABuffer)
{
    const kyBoundSocketLink listener(0);
    ClientWatch watch(200ms, 10);
    Connection trickling(listener);
    const ClientWatch::Entry entry(watch, trickling.client);
    auto received = trickling.receive();
    const std::string bytes(1 << 20, '\0');
    std::size_t sent = 0;
    EXPECT_TRUE(kyTest::waitUntil([&] {
        try {
            if (sent < 19) {
                trickling.peer.send(&bytes[sent++], 1);
            }
        } catch (const kyConnectionClosed&) {
            sent = 19; // A slow machine is dropped before it has sent them all.
        }
        return received.wait_for(0ms) == std::future_status::ready;
    }));
    EXPECT_FALSE(received.get());
}

TEST(ClientWatch, dropsWhoWaitsLongestWhenTooManyWait)
{
    const kyBoundSocketLink listener(0);
    ClientWatch watch(1h, 2);
    std::vector<std::unique_ptr<Connection>> connections;
    std::vector<std::unique_ptr<ClientWatch::Entry>> entries;
    std::vector<std::future<bool>> received;
    for (int i = 0; i < 3; ++i) {
        connections.push_back(std::make_unique<Connection>(listener));
        entries.push_back(std::make_unique<ClientWatch::Entry>(watch, connections.back()->client));
        received.push_back(connections.back()->receive());
        EXPECT_TRUE(
            kyTest::waitUntil([&] { return isWaitedFor(*connections.back()->client) || i == 2; }));
    }
    EXPECT_FALSE(received[0].get());
    for (int i : {1, 2}) {
        connections[static_cast<std::size_t>(i)]->sendBuffer();
        EXPECT_TRUE(received[static_cast<std::size_t>(i)].get());
    }
}

TEST(ClientWatch, closedWatchDropsEveryWaitingClient)
{
    const kyBoundSocketLink listener(0);
    ClientWatch watch(1h, 10);
    Connection early(listener);
    const ClientWatch::Entry earlyEntry(watch, early.client);
    auto earlyReceived = early.receive();
    EXPECT_TRUE(kyTest::waitUntil([&] { return isWaitedFor(*early.client); }));
    watch.close();
    EXPECT_FALSE(earlyReceived.get());

    Connection late(listener);
    const ClientWatch::Entry lateEntry(watch, late.client);
    EXPECT_FALSE(late.receive().get());
}

TEST(ClientWatch, leavesAloneWhoIsRemoved)
{
    const kyBoundSocketLink listener(0);
    ClientWatch watch(100ms, 10);
    Connection relayed(listener);
    {
        const ClientWatch::Entry entry(watch, relayed.client);
    }
    Connection silent(listener);
    const ClientWatch::Entry silentEntry(watch, silent.client);
    auto received = relayed.receive();
    EXPECT_FALSE(silent.receive().get()); // a client's whole limit has passed
    relayed.sendBuffer();
    EXPECT_TRUE(received.get());
}
