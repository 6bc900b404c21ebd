#include <NetBase/links/kyBoundSocketLink.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyNetError.h>
#include <tests/links/kyLinkFixtures.h>

namespace {

using kyTest::Blocked;
using kyTest::describeCode;
using kyTest::failureOf;
using kyTest::failureWithin;
using kyTest::getSocketOptions;
using kyTest::nextDescriptor;
using kyTest::OpenLink;
using kyTest::RawSocket;
using kyTest::SocketOptions;

int portOf(const kySocketLink& link)
{
    return link.getAddress().getPort();
}

} // namespace

TEST(kyBoundSocketLink, listensOnAPortOfTheSystemsChoice)
{
    kyBoundSocketLink listening(0);
    EXPECT_GT(portOf(listening), 0);
    RawSocket client = RawSocket::connectIPv4(portOf(listening));
    OpenLink accepted(listening);
    client.send("x");
    char byte = 0;
    accepted.recv(&byte, 1);
    EXPECT_EQ(byte, 'x');
}

TEST(kyBoundSocketLink, listensOnTheGivenPort)
{
    int port = 0;
    {
        const kyTest::ClosedPort closed;
        port = closed.getPort();
    }
    kyBoundSocketLink listening(port);
    EXPECT_EQ(portOf(listening), port);
}

TEST(kyBoundSocketLink, acceptsIPv4AndIPv6ByTheSameSocket)
{
    if (!kyTest::hasIPv6()) {
        GTEST_SKIP() << "no IPv6 here";
    }
    kyBoundSocketLink listening(0);
    const SocketOptions options = getSocketOptions(listening.getDescriptor());
    EXPECT_TRUE(options.isIPv6);
    EXPECT_FALSE(options.isIPv6Only);
    EXPECT_EQ(listening.getAddress().getName(), "::");

    const RawSocket four = RawSocket::connectIPv4(portOf(listening));
    EXPECT_EQ(OpenLink(listening).getLinkName(), "127.0.0.1->127.0.0.1");
    const RawSocket six = RawSocket::connectIPv6(portOf(listening));
    EXPECT_EQ(OpenLink(listening).getLinkName(), "::1->::1");
}

TEST(kyBoundSocketLink, listensOnIPv4WhereThereIsNoIPv6)
{
    kyTest::runWithoutIPv6([] {
        ASSERT_FALSE(kyTest::hasIPv6());
        kyBoundSocketLink listening(0);
        EXPECT_FALSE(getSocketOptions(listening.getDescriptor()).isIPv6);
        EXPECT_EQ(listening.getAddress().getName(), "0.0.0.0");
        const RawSocket client = RawSocket::connectIPv4(portOf(listening));
        EXPECT_EQ(OpenLink(listening).getLinkName(), "127.0.0.1->127.0.0.1");
    });
}

TEST(kyBoundSocketLink, mayReuseAPortAndIsNotInherited)
{
    kyBoundSocketLink listening(0);
    const SocketOptions options = getSocketOptions(listening.getDescriptor());
    EXPECT_TRUE(options.reusesAddress);
    EXPECT_FALSE(options.isInherited);
}

TEST(kyBoundSocketLink, listensAgainOnAPortOfOldConnections)
{
    auto listening = std::make_unique<kyBoundSocketLink>(0);
    const int port = portOf(*listening);
    RawSocket client = RawSocket::connectIPv4(port);
    auto accepted = std::make_unique<OpenLink>(*listening);
    accepted->shutdown(); // This end closes first, so its port is the one that is kept for a while.
    client.close();
    listening->shutdown();
    EXPECT_EQ(portOf(kyBoundSocketLink(port)), port);
}

TEST(kyBoundSocketLink, givesBlockingConnectionsWithoutDelay)
{
    kyBoundSocketLink listening(0);
    const RawSocket client = RawSocket::connectIPv4(portOf(listening));
    OpenLink accepted(listening);
    kyTest::expectPrepared(accepted.getDescriptor());
}

TEST(kyBoundSocketLink, saysThatAPortIsTaken)
{
    kyTest::RawListener listener; // Does not let others use its port.
    const int port = listener.getPort();
    EXPECT_EQ(failureOf<kyNetError>([&] { kyBoundSocketLink second(port); }),
              "Unable to bind to port " + std::to_string(port) + ". " +
                  describeCode(kyTest::getPortTakenCode()));
    // The first goes on.
    const RawSocket client = RawSocket::connectIPv4(port);
    listener.accept();
}

TEST(kyBoundSocketLink, cannotBindToPortsOutside16Bits)
{
    for (const int port : {70000, 65536, -1}) {
        EXPECT_EQ(failureOf<kyNetError>([&] { kyBoundSocketLink link(port); }),
                  "Unable to bind to port " + std::to_string(port) + ". " +
                      describeCode(kyTest::getInvalidCode()));
    }
}

TEST(kyBoundSocketLink, saysThatItCannotListen)
{
    kyTest::runWithFailingListen(kyTest::getPortTakenCode(), [] {
        EXPECT_EQ(failureOf<kyNetError>([] { kyBoundSocketLink link(0); }),
                  "Unable to listen for incoming connections. " +
                      describeCode(kyTest::getPortTakenCode()));
    });
}

TEST(kyBoundSocketLink, saysThatNoDescriptorIsLeft)
{
    kyBoundSocketLink(0).checkAlive(); // Sanitizers need descriptors to learn a type.
    // Whether it is the socket that there is no room for, or what wakes those who wait for clients.
    for (std::size_t room = 0; room < 2; ++room) {
        EXPECT_EQ(
            failureWithin<kyNetError>(nextDescriptor() + room, [] { kyBoundSocketLink link(0); }),
            "Unable to create socket. " + describeCode(kyTest::getNoDescriptorCode()))
            << room;
    }
}

TEST(kyBoundSocketLink, acceptsAgainOnceADescriptorIsFree)
{
    kyBoundSocketLink listening(0);
    RawSocket client = RawSocket::connectIPv4(portOf(listening));
    EXPECT_EQ(failureWithin<kyNetError>(nextDescriptor(), [&] { OpenLink link(listening); }),
              "Unable to accept incomming connection. " +
                  describeCode(kyTest::getNoDescriptorCode()));

    OpenLink accepted(listening);
    client.send("x");
    char byte = 0;
    accepted.recv(&byte, 1);
    EXPECT_EQ(byte, 'x');
}

TEST(kyBoundSocketLink, letsTenClientsWait)
{
    kyBoundSocketLink listening(0);
    std::vector<RawSocket> clients;
    for (int i = 0; i < 10; ++i) {
        clients.push_back(RawSocket::connectIPv4(portOf(listening)));
    }
    for (int i = 0; i < 10; ++i) {
        OpenLink(listening).checkAlive();
    }
}

TEST(kyBoundSocketLink, waitsForAClient)
{
    kyBoundSocketLink listening(0);
    Blocked accepting([&] { OpenLink(listening).checkAlive(); });
    EXPECT_TRUE(accepting.isBlocked());
    const RawSocket client = RawSocket::connectIPv4(portOf(listening));
    accepting.finish();
}

TEST(kyBoundSocketLink, waitsForAClientThoughSignalsInterrupt)
{
    kyBoundSocketLink listening(0);
    Blocked accepting([&] { OpenLink(listening).checkAlive(); });
    const kyTest::ThreadInterruptions interruptions(accepting.getId());
    EXPECT_TRUE(kyTest::waitUntil([] { return kyTest::ThreadInterruptions::count() > 3; }));
    const RawSocket client = RawSocket::connectIPv4(portOf(listening));
    accepting.finish();
}

TEST(kyBoundSocketLink, acceptsAClientThatIsGoneAlready)
{
    kyBoundSocketLink listening(0);
    RawSocket::connectIPv4(portOf(listening)).reset();
    RawSocket::connectIPv4(portOf(listening)).close();
    RawSocket client = RawSocket::connectIPv4(portOf(listening));
    // Whichever of the three the system still hands out: the living one is among them.
    client.send("x");
    for (int i = 0; i < 3; ++i) {
        OpenLink accepted(listening);
        char byte = 0;
        try {
            accepted.recv(&byte, 1);
        } catch (const kyNetError&) {
            continue;
        }
        EXPECT_EQ(byte, 'x');
        return;
    }
    FAIL() << "the living client was not accepted";
}

TEST(kyBoundSocketLink, wakesABlockedAccept)
{
    kyBoundSocketLink listening(0);
    const kySocketHandle handle = listening.getDescriptor();
    Blocked accepting([&] { OpenLink link(listening); });
    EXPECT_TRUE(accepting.isBlocked());
    listening.shutdown();
    EXPECT_THROW(accepting.finish(), kyConnectionClosed);
    EXPECT_FALSE(kyTest::isOpen(handle));
}

TEST(kyBoundSocketLink, acceptsNothingAfterAShutdown)
{
    kyBoundSocketLink listening(0);
    const int port = portOf(listening);
    const RawSocket waiting = RawSocket::connectIPv4(port);
    listening.shutdown();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(failureOf<kyConnectionClosed>([&] { OpenLink link(listening); }),
                  "Connection closed");
    }
    EXPECT_THROW(listening.checkAlive(), kyConnectionClosed);
    listening.shutdown();
    EXPECT_THROW(RawSocket::connectIPv4(port), std::exception);
}

TEST(kyBoundSocketLink, wakesEveryBlockedAccept)
{
    for (int round = 0; round < 20; ++round) {
        kyBoundSocketLink listening(0);
        std::vector<std::unique_ptr<Blocked>> accepting;
        for (int i = 0; i < 4; ++i) {
            accepting.push_back(std::make_unique<Blocked>([&] { OpenLink link(listening); }));
        }
        if (round == 0) {
            for (const auto& each : accepting) {
                EXPECT_TRUE(each->isBlocked());
            }
        }
        listening.shutdown();
        for (const auto& each : accepting) {
            EXPECT_THROW(each->finish(), kyConnectionClosed);
        }
    }
}

TEST(kyBoundSocketLink, givesEachConnectionToOneOfSeveralThreads)
{
    kyBoundSocketLink listening(0);
    std::vector<std::unique_ptr<Blocked>> accepting;
    for (int i = 0; i < 4; ++i) {
        accepting.push_back(std::make_unique<Blocked>([&] {
            for (int j = 0; j < 10; ++j) {
                OpenLink(listening).send("x", 1);
            }
        }));
    }
    for (int i = 0; i < 40; ++i) {
        EXPECT_EQ(RawSocket::connectIPv4(portOf(listening)).receive(1), "x");
    }
    for (const auto& each : accepting) {
        each->finish();
    }
}

// The base's accepting constructor would take a listening socket too, and wait for a client.
TEST(kyBoundSocketLink, copiesTheSameListeningSocket)
{
    kyBoundSocketLink listening(0);
    const kyBoundSocketLink copy(listening);
    EXPECT_EQ(copy.getDescriptor(), listening.getDescriptor());
    const RawSocket client = RawSocket::connectIPv4(portOf(listening));
    OpenLink accepted(copy);
    accepted.checkAlive();
    EXPECT_NE(accepted.getDescriptor(), copy.getDescriptor());
}

TEST(kyBoundSocketLink, endsTheAcceptOfItsCopies)
{
    kyBoundSocketLink listening(0);
    kyBoundSocketLink assigned(0);
    assigned = listening;
    EXPECT_EQ(assigned.getDescriptor(), listening.getDescriptor());
    const kySocketHandle handle = listening.getDescriptor();
    Blocked accepting([&] { OpenLink link(assigned); });
    EXPECT_TRUE(accepting.isBlocked());
    listening.shutdown();
    EXPECT_THROW(accepting.finish(), kyConnectionClosed);
    EXPECT_FALSE(kyTest::isOpen(handle));
}

TEST(kyBoundSocketLink, endsTheAcceptOfItsCopiesWhenItIsDestroyed)
{
    auto listening = std::make_unique<kyBoundSocketLink>(0);
    const kyBoundSocketLink copy(*listening);
    const kySocketHandle handle = listening->getDescriptor();
    Blocked accepting([&] { OpenLink link(copy); });
    EXPECT_TRUE(accepting.isBlocked());
    listening.reset();
    EXPECT_THROW(accepting.finish(), kyConnectionClosed);
    EXPECT_FALSE(kyTest::isOpen(handle));
}

// Who gave its socket away has nothing to end.
TEST(kyBoundSocketLink, leavesItsCopiesListeningWhenItsSocketWasTaken)
{
    auto listening = std::make_unique<kyBoundSocketLink>(0);
    const kyBoundSocketLink copy(*listening);
    const int port = portOf(copy);
    listening->takeDescriptor();
    listening.reset();
    const RawSocket client = RawSocket::connectIPv4(port);
    OpenLink(copy).checkAlive();
}

TEST(kyBoundSocketLink, isShutDownWhileClientsConnect)
{
    for (int round = 0; round < 30; ++round) {
        kyBoundSocketLink listening(0);
        const int port = portOf(listening);
        Blocked accepting([&] {
            while (true) {
                OpenLink link(listening);
            }
        });
        Blocked connecting([&] {
            while (true) {
                RawSocket::connectIPv4(port).reset();
            }
        });
        Blocked stopping([&] { listening.shutdown(); });
        stopping.finish();
        EXPECT_THROW(accepting.finish(), kyConnectionClosed);
        EXPECT_THROW(connecting.finish(), std::exception); // Refused from now on.
    }
}
