#include <apps/TALOClusterServer/ChannelLobby.h>

#include <gtest/gtest.h>

#include <tests/support/kyTestBlocked.h>
#include <tests/support/kyTestChains.h>
#include <tests/support/kyTestMessage.h>

using namespace render;

namespace {

constexpr double s_atOnce = 0.0;
constexpr double s_long = 30.0;

/// The words of an application with two channels of each type.
Hello makeHello(kyNodeConnectionType type, std::int32_t source = s_applicationRank)
{
    Hello hello;
    hello.type = type;
    hello.rank = 4;
    hello.source = source;
    hello.session = 4711;
    hello.channels.setImageChannels(2);
    hello.channels.setLowLatencyChannels(2);
    return hello;
}

const Hello s_image = makeHello(kyNodeConnectionType::Image);
const Hello s_lowLatency = makeHello(kyNodeConnectionType::LowLatency);
const Hello s_sync = makeHello(kyNodeConnectionType::Sync);
const Hello s_inlet = makeHello(kyNodeConnectionType::Image, 3);

std::string refusalOf(ChannelLobby& lobby, const Hello& hello)
{
    return kyTest::messageOf([&] { lobby.admit(hello); });
}

std::shared_ptr<kyTest::KeepingLink> enter(ChannelLobby& lobby, const Hello& hello)
{
    auto link = std::make_shared<kyTest::KeepingLink>();
    lobby.admit(hello);
    lobby.keep(hello, link);
    return link;
}

} // namespace

TEST(ChannelLobby, theFirstLowLatencyChannelMakesItsApplicationTheServers)
{
    ChannelLobby lobby;
    for (const Hello& hello : {s_image, s_sync, s_inlet}) {
        EXPECT_EQ(refusalOf(lobby, hello), "This server works for no application yet");
    }
    Hello relaying = s_lowLatency;
    relaying.source = 3;
    EXPECT_EQ(refusalOf(lobby, relaying), "This server works for no application yet");
    EXPECT_TRUE(lobby.admit(s_lowLatency));
    EXPECT_FALSE(lobby.admit(s_lowLatency));
    EXPECT_FALSE(lobby.admit(s_image));
    EXPECT_FALSE(lobby.admit(s_sync));
}

TEST(ChannelLobby, refusesWhatIsNoProperHello)
{
    ChannelLobby lobby;
    for (const std::int32_t type : {0, 4, -1}) {
        EXPECT_EQ(refusalOf(lobby, makeHello(static_cast<kyNodeConnectionType>(type))),
                  "Unknown connection type " + std::to_string(type));
    }
    for (const std::int32_t rank : {1, 0, -1}) {
        Hello hello = s_lowLatency;
        hello.rank = rank;
        EXPECT_EQ(refusalOf(lobby, hello), "A server cannot have the rank " + std::to_string(rank));
    }
    EXPECT_TRUE(lobby.admit(s_lowLatency)) << "none of them was taken for the application";
}

TEST(ChannelLobby, refusesOtherSessionsAndRanks)
{
    ChannelLobby lobby;
    lobby.admit(s_lowLatency);
    for (Hello hello : {s_image, s_lowLatency, s_sync, s_inlet}) {
        hello.session = 4712;
        EXPECT_EQ(refusalOf(lobby, hello), "This server works for another application");
        hello.session = 4711;
        hello.rank = 5;
        EXPECT_EQ(refusalOf(lobby, hello), "This server has the rank 4, not 5");
    }
}

TEST(ChannelLobby, takes64ChannelsOfATypeAtMost)
{
    for (const bool isImage : {false, true}) {
        for (const int count : {64, 65}) {
            ChannelLobby lobby;
            Hello hello = s_lowLatency;
            isImage ? hello.channels.setImageChannels(count)
                    : hello.channels.setLowLatencyChannels(count);
            EXPECT_EQ(refusalOf(lobby, hello),
                      count == 64 ? "" : "A server takes at most 64 channels of one type, not 65");
        }
    }
}

TEST(ChannelLobby, takesNoMoreChannelsThanAnnounced)
{
    ChannelLobby lobby;
    lobby.admit(s_lowLatency);
    lobby.admit(s_lowLatency);
    EXPECT_EQ(refusalOf(lobby, s_lowLatency), "There are 2 low latency channels already");
    lobby.admit(s_image);
    lobby.admit(s_image);
    EXPECT_EQ(refusalOf(lobby, s_image), "There are 2 image channels already");
    lobby.admit(s_inlet);
    lobby.admit(s_inlet);
    EXPECT_EQ(refusalOf(lobby, s_inlet), "There are 2 channels to relay over already");
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(refusalOf(lobby, s_sync), "") << "they are remade when a server is lost";
    }
}

TEST(ChannelLobby, whatALaterHelloAnnouncesCountsForNothing)
{
    ChannelLobby lobby;
    lobby.admit(s_lowLatency);
    Hello greedy = s_image;
    greedy.channels.setImageChannels(50);
    lobby.admit(greedy);
    lobby.admit(greedy);
    EXPECT_EQ(refusalOf(lobby, greedy), "There are 2 image channels already");
}

TEST(ChannelLobby, onlyOneOtherServerRelays)
{
    ChannelLobby lobby;
    lobby.admit(s_lowLatency);
    for (const std::int32_t source : {4, 0, -1}) {
        EXPECT_EQ(refusalOf(lobby, makeHello(kyNodeConnectionType::Image, source)),
                  "Rank " + std::to_string(source) + " cannot relay to this server");
    }
    for (const auto type : {kyNodeConnectionType::Sync, kyNodeConnectionType::LowLatency}) {
        EXPECT_EQ(refusalOf(lobby, makeHello(type, 3)), "Rank 3 cannot relay to this server");
    }
    lobby.admit(s_inlet);
    EXPECT_EQ(refusalOf(lobby, makeHello(kyNodeConnectionType::Image, 2)),
              "Rank 3 relays to this server already");
    EXPECT_EQ(refusalOf(lobby, s_inlet), "");
}

TEST(ChannelLobby, givesTheChannelsOnceAllAreHere)
{
    ChannelLobby lobby;
    enter(lobby, s_lowLatency);
    enter(lobby, s_image);
    const auto inlet = enter(lobby, s_inlet);
    enter(lobby, s_image);
    EXPECT_EQ(kyTest::messageOf([&] { lobby.waitForChannels(s_atOnce); }),
              "Only 1 of 2 low latency channels were opened");
    kyTest::Blocked waiting([&] {
        const RenderChannels channels = lobby.waitForChannels(s_long);
        EXPECT_EQ(channels.image.size(), 2U);
        EXPECT_EQ(channels.lowLatency.size(), 2U);
    });
    EXPECT_TRUE(waiting.isBlocked());
    enter(lobby, s_lowLatency);
    waiting.finish();

    EXPECT_EQ(kyTest::messageOf([&] { lobby.waitForInlets(3, s_atOnce); }),
              "Only 1 of 2 image channels were opened");
    const auto other = enter(lobby, s_inlet);
    EXPECT_EQ(lobby.waitForInlets(3, s_atOnce), (ChannelLobby::Links{inlet, other}));
    EXPECT_EQ(kyTest::messageOf([&] { lobby.waitForInlets(2, s_atOnce); }),
              "Rank 3 relays instead of 2");
}

TEST(ChannelLobby, aChannelThatWasAdmittedOnlyIsNotHere)
{
    ChannelLobby lobby;
    enter(lobby, s_lowLatency);
    enter(lobby, s_lowLatency);
    enter(lobby, s_image);
    lobby.admit(s_image);
    EXPECT_EQ(kyTest::messageOf([&] { lobby.waitForChannels(s_atOnce); }),
              "Only 1 of 2 image channels were opened");
}

TEST(ChannelLobby, closingEndsEveryChannelAndEveryWait)
{
    ChannelLobby lobby;
    const auto first = enter(lobby, s_lowLatency);
    const auto image = enter(lobby, s_image);
    const auto inlet = enter(lobby, s_inlet);
    kyTest::Blocked channels(
        [&] { EXPECT_THROW(lobby.waitForChannels(s_long), kyConnectionClosed); });
    kyTest::Blocked inlets(
        [&] { EXPECT_THROW(lobby.waitForInlets(3, s_long), kyConnectionClosed); });
    EXPECT_TRUE(channels.isBlocked());
    EXPECT_TRUE(inlets.isBlocked());
    lobby.close();
    channels.finish();
    inlets.finish();
    for (const auto& link : {first, image, inlet}) {
        EXPECT_TRUE(link->isShutDown);
    }
    EXPECT_TRUE(enter(lobby, s_image)->isShutDown);
    EXPECT_TRUE(enter(lobby, s_inlet)->isShutDown);
}

TEST(ChannelLobby, closingTheInletsLeavesTheApplicationsChannels)
{
    ChannelLobby lobby;
    const auto first = enter(lobby, s_lowLatency);
    const auto inlet = enter(lobby, s_inlet);
    lobby.closeInlets();
    EXPECT_TRUE(inlet->isShutDown);
    EXPECT_TRUE(enter(lobby, s_inlet)->isShutDown);
    EXPECT_FALSE(first->isShutDown);
    EXPECT_FALSE(enter(lobby, s_image)->isShutDown);
}
