#include <apps/TALOClusterServer/RenderServer.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetBufferPool.h>
#include <NetBase/senders/kyNetLinkSender.h>
#include <NetBase/serialization/kyNetStream.h>
#include <Utils/kyLog.h>
#include <apps/TALOClusterServer/OrderBook.h>
#include <apps/TALOClusterServer/PathTracer.h>
#include <tests/apps/kyTestKey.h>
#include <tests/apps/kyTestRenderServer.h>
#include <tests/apps/kyTestScene.h>
#include <tests/support/kyTestCompression.h>

using namespace render;
using kyTest::Channel;
using kyTest::TestApplication;
using kyTest::TestServer;

namespace {

/// A picture of which no tile is ever finished, and one of its tiles.
const Frame s_endlessFrame = kyTest::makeFrame(100, 100, 1'000'000);
const Tile s_endlessTile{0, 0, 100, 100};

class RenderServerTest : public testing::Test
{
protected:
    RenderServerTest()
    {
        kyLog::setSink([](kyLog::Severity, int, const std::string&) {});
    }
    ~RenderServerTest() override { kyLog::setSink({}); }

    // The server's, which are those of this process here, too.
    const kyTest::CompressionSetting m_compression{kyNetCompression::Standard,
                                                   kyNetCompression::None};
};

std::vector<Vector> renderHere(const Frame& frame, const Tile& tile)
{
    const std::atomic<bool> go{false};
    return PathTracer(kyTest::makeScene()).render(frame, tile, go);
}

/// What the server refuses a new connection with, which it closes.
std::string refusalOf(TestServer& server, const Hello& hello)
{
    Channel channel(server);
    const std::string answer = channel.introduce(hello);
    EXPECT_TRUE(channel.isClosed());
    return answer;
}

/// The last answer of a server, upon which the application hangs up and the server ends.
Answer recvLastAnswer(TestServer& server, TestApplication& application)
{
    const Answer answer = application.recvAnswer();
    EXPECT_EQ(answer.order, Order::None);
    application.stream.shutdown();
    EXPECT_TRUE(server.hasEnded());
    return answer;
}

} // namespace

TEST_F(RenderServerTest, saysNothingBeforeHello)
{
    TestServer server;
    Channel channel(server);
    EXPECT_FALSE(channel.link->pollReadable(0.3));
    EXPECT_EQ(channel.introduce(kyTest::makeHello()), "");
}

TEST_F(RenderServerTest, rendersTilesLikeATracerOfItsOwn)
{
    TestServer server;
    TestApplication application(server);
    application.setUp();
    application.loadScene(kyTest::makeScene());
    const Frame frame = kyTest::makeFrame(40, 30, 2);
    application.beginFrame(1, frame);
    for (const Tile& tile : {Tile{0, 0, 40, 30}, Tile{39, 29, 1, 1}, Tile{10, 5, 7, 9}}) {
        const Answer answer = application.renderTile(1, tile);
        EXPECT_EQ(answer.order, Order::RenderTile);
        EXPECT_EQ(answer.frame, 1);
        EXPECT_EQ(answer.tile, tile);
        EXPECT_EQ(answer.failure, "");
        EXPECT_GT(answer.seconds, 0.0);
        EXPECT_EQ(answer.pixels, renderHere(frame, tile));
    }
}

TEST_F(RenderServerTest, givesTheSamePixelsWhateverTheCompression)
{
    const Frame frame = kyTest::makeFrame(100, 100, 1);
    const Tile tile{0, 0, 100, 100};
    const std::vector<Vector> expected = renderHere(frame, tile);
    for (const auto method : {kyNetCompression::None, Lz4Compressor::s_method,
                              ZstdCompressor::s_method, kyNetCompression::LocalImage}) {
        TestServer server;
        TestApplication application(server);
        render::Setup setup;
        setup.imageCompression = method;
        kyNetOptions::setDataCompression(method);
        application.setUp(setup);
        application.loadScene(kyTest::makeScene());
        application.beginFrame(1, frame);
        EXPECT_EQ(application.renderTile(1, tile).pixels, expected);
    }
}

TEST_F(RenderServerTest, servesAnApplicationOfOneChannelOfEachType)
{
    TestServer server;
    Hello hello = kyTest::makeHello();
    hello.channels.setImageChannels(1);
    hello.channels.setLowLatencyChannels(1);
    TestApplication application(server, hello);
    application.setUp();
    application.loadScene(kyTest::makeScene());
    const Frame frame = kyTest::makeFrame(8, 8, 1);
    application.beginFrame(1, frame);
    EXPECT_EQ(application.renderTile(1, {0, 0, 8, 8}).pixels, renderHere(frame, {0, 0, 8, 8}));
}

TEST_F(RenderServerTest, answersEveryOrderOfMany)
{
    TestServer server;
    TestApplication application(server);
    application.setUp();
    application.loadScene(kyTest::makeScene());
    application.beginFrame(1, kyTest::makeFrame(100, 100, 1));
    constexpr std::uint32_t tiles = 100;
    for (std::uint32_t i = 0; i < tiles; ++i) {
        // Some of them small, so that answers take both kinds of channels.
        application.order(Order::RenderTile, 1, Tile{i, 0, 1, 1 + i % 2 * 99});
    }
    std::set<std::uint32_t> seen;
    for (std::uint32_t i = 0; i < tiles; ++i) {
        const Answer answer = application.recvAnswer();
        EXPECT_EQ(answer.failure, "");
        seen.insert(answer.tile.x);
    }
    EXPECT_EQ(seen.size(), tiles);
}

TEST_F(RenderServerTest, aNewSceneReplacesTheFormerOne)
{
    TestServer server;
    TestApplication application(server);
    application.setUp();
    Scene dark = kyTest::makeScene();
    dark.lights.clear();
    dark.sky = {};
    application.loadScene(dark);
    const Frame frame = kyTest::makeFrame(8, 8, 1);
    const Tile tile{0, 0, 8, 8};
    application.beginFrame(1, frame);
    EXPECT_EQ(application.renderTile(1, tile).pixels, std::vector<Vector>(64));
    application.loadScene(kyTest::makeScene());
    EXPECT_EQ(application.renderTile(1, tile).pixels, renderHere(frame, tile));
}

TEST_F(RenderServerTest, aSyncAnswersWhenItsFrameIsReached)
{
    TestServer server;
    TestApplication application(server);
    application.setUp();
    Channel sync(application.open(kyNodeConnectionType::Sync));
    sync.stream.sendSync(5);
    EXPECT_FALSE(sync.link->pollReadable(0.2));
    application.order(Order::BeginFrame, 5, kyTest::makeFrame(4, 4, 1));
    kyNetMessage message;
    sync.stream.recvMessage(message);
    EXPECT_EQ(message.getSource(), 2U);
    std::int32_t frame = 0;
    message >> frame;
    EXPECT_EQ(frame, 5);
}

TEST_F(RenderServerTest, aFrameBeginsWhileATileOfTheLastOneIsInWork)
{
    TestServer server;
    TestApplication application(server);
    application.setUp();
    application.loadScene(kyTest::makeScene());
    application.beginFrame(1, s_endlessFrame);
    application.order(Order::RenderTile, 1, s_endlessTile);
    application.beginFrame(2, kyTest::makeFrame(4, 4, 1));
}

TEST_F(RenderServerTest, knowsTheLastTwoFrames)
{
    TestServer server;
    TestApplication application(server);
    application.setUp();
    application.loadScene(kyTest::makeScene());
    const Tile tile{0, 0, 4, 4};
    EXPECT_EQ(application.renderTile(1, tile).failure, "Frame 1 is not in work");
    for (const std::int32_t number : {1, 2, 3}) {
        const auto edge = static_cast<std::uint32_t>(4 + number);
        application.beginFrame(number, kyTest::makeFrame(edge, edge, 1));
    }
    EXPECT_EQ(application.renderTile(1, tile).failure, "Frame 1 is not in work");
    EXPECT_EQ(application.renderTile(2, tile).pixels, renderHere(kyTest::makeFrame(6, 6, 1), tile));
    EXPECT_EQ(application.renderTile(3, tile).pixels, renderHere(kyTest::makeFrame(7, 7, 1), tile));
    EXPECT_EQ(application.renderTile(4, tile).failure, "Frame 4 is not in work");
}

TEST_F(RenderServerTest, ordersOutOfPlaceAreAnsweredAndTheNextOnesServed)
{
    TestServer server;
    TestApplication application(server);
    application.setUp();
    const Tile tile{0, 0, 4, 4};
    const Frame frame = kyTest::makeFrame(8, 8, 1);
    application.beginFrame(1, frame);
    EXPECT_EQ(application.renderTile(1, tile).failure, "There is no scene to render");
    application.loadScene(kyTest::makeScene());
    const Answer outside = application.renderTile(1, {7, 7, 2, 2});
    EXPECT_EQ(outside.order, Order::RenderTile);
    EXPECT_EQ(outside.frame, 1);
    EXPECT_EQ(outside.tile, (Tile{7, 7, 2, 2}));
    EXPECT_EQ(outside.failure, "Received an invalid tile: 2x2 pixels at 7,7");

    application.order(Order::BeginFrame, 2, kyTest::makeFrame(0x7FFFFFFF, 0x7FFFFFFF, 1));
    const Answer tooLarge = application.recvAnswer();
    EXPECT_EQ(tooLarge.order, Order::BeginFrame);
    EXPECT_EQ(tooLarge.frame, 2);
    EXPECT_EQ(tooLarge.failure,
              "Received an invalid frame: a picture of 2147483647x2147483647 pixels");
    EXPECT_EQ(application.renderTile(2, tile).failure, "Frame 2 is not in work");
    EXPECT_EQ(application.renderTile(1, tile).pixels, renderHere(frame, tile));
}

TEST_F(RenderServerTest, messagesThatAreNoOrderAreAnsweredAndTheNextOnesServed)
{
    TestServer server;
    TestApplication application(server);
    application.setUp();
    for (const auto& [order, failure] :
         std::vector<std::pair<std::uint32_t, std::string>>{{0, "Unknown order 0"},
                                                            {1, "Unknown order 1"},
                                                            {5, "Unknown order 5"},
                                                            {77, "Unknown order 77"}}) {
        application.order(order);
        const Answer answer = application.recvAnswer();
        EXPECT_EQ(answer.order, Order::None);
        EXPECT_EQ(answer.failure, failure);
    }
    application.order(std::uint8_t{2});
    EXPECT_EQ(application.recvAnswer().order, Order::None);
    application.order(Order::RenderTile, 1);
    EXPECT_NE(application.recvAnswer().failure, "");
    application.loadScene(kyTest::makeScene());
}

TEST_F(RenderServerTest, streamDataThatIsNoSceneEndsTheServerAfterAnAnswer)
{
    TestServer server;
    TestApplication application(server);
    application.setUp();
    application.stream << std::uint32_t{77};
    application.stream.flush();
    EXPECT_EQ(recvLastAnswer(server, application).failure, "Unknown order 77");
}

TEST_F(RenderServerTest, aSceneThatClaimsTooMuchEndsTheServerAfterAnAnswer)
{
    TestServer server;
    TestApplication application(server);
    application.setUp();
    application.stream << Order::LoadScene;
    application.stream.putValueSize(~std::uint64_t{0});
    application.stream.flush();
    EXPECT_EQ(recvLastAnswer(server, application).failure,
              "Received an invalid scene: 18446744073709551615 materials, at most 4096 are "
              "accepted");
}

TEST_F(RenderServerTest, aBufferOfAnotherKindEndsTheServerAfterAnAnswer)
{
    TestServer server;
    TestApplication application(server);
    application.setUp();
    AnswerMessage message;
    message.putAnswer({});
    application.stream.sendMessage(message, 2, kyNetBufferSendMode::Automatic);
    EXPECT_EQ(recvLastAnswer(server, application).failure, "Received a buffer that is no order");
}

TEST_F(RenderServerTest, anEmptyBufferOfStreamDataSaysNothing)
{
    TestServer server;
    TestApplication application(server);
    application.setUp();
    const auto sendEmpty = [&] {
        const auto buffer = kyNetBufferPool::pop();
        *buffer->getBuffer() = kyNetHeader{};
        buffer->setSource(s_applicationRank);
        buffer->setDestination(2);
        kyNetLinkSender::create(application.channels.image.front())->send(buffer);
    };
    sendEmpty();
    application.beginFrame(1, kyTest::makeFrame(4, 4, 1));
    application.loadScene(kyTest::makeScene());
    sendEmpty();
    EXPECT_EQ(application.renderTile(1, {0, 0, 4, 4}).failure, "");
}

TEST_F(RenderServerTest, whoOrdersWithoutEndIsCutOff)
{
    TestServer server;
    TestApplication application(server);
    application.setUp();
    application.loadScene(kyTest::makeScene());
    application.beginFrame(1, s_endlessFrame);
    for (std::size_t i = 0; i < OrderBook::s_limit + 2; ++i) {
        application.order(Order::RenderTile, 1, s_endlessTile);
    }
    EXPECT_EQ(recvLastAnswer(server, application).failure, "More than 1024 orders wait");
}

TEST_F(RenderServerTest, hangsUpItselfIfTheApplicationDoesNotAfterTheLastAnswer)
{
    TestServer server;
    TestApplication application(server);
    application.setUp();
    application.stream << std::uint32_t{77};
    application.stream.flush();
    EXPECT_EQ(application.recvAnswer().failure, "Unknown order 77");
    EXPECT_FALSE(server.hasEnded(std::chrono::seconds(2)));
    EXPECT_TRUE(server.hasEnded());
    EXPECT_EQ(kyTest::messageOf([&] { application.recvAnswer(); }), "Connection closed");
}

TEST_F(RenderServerTest, reportsWhatItHasSent)
{
    TestServer server;
    TestApplication application(server);
    render::Setup setup;
    setup.imageCompression = Lz4Compressor::s_method;
    application.setUp(setup);
    Scene dark = kyTest::makeScene();
    dark.lights.clear();
    dark.sky = {};
    application.loadScene(dark);
    application.beginFrame(1, kyTest::makeFrame(100, 100, 1));
    application.order(Order::ReportTraffic);
    const Answer before = application.recvAnswer();
    EXPECT_EQ(before.order, Order::ReportTraffic);
    EXPECT_EQ(before.failure, "");
    EXPECT_GT(before.sentBytes, 0U);
    EXPECT_EQ(before.compressedBytes, before.sentBytes) << "small answers are not compressed";

    EXPECT_EQ(application.renderTile(1, {0, 0, 100, 100}).failure, "");
    application.order(Order::ReportTraffic);
    const Answer after = application.recvAnswer();
    EXPECT_GT(after.sentBytes, before.sentBytes + 120'000);
    EXPECT_GT(after.compressedBytes, before.compressedBytes);
    EXPECT_LT(after.compressedBytes, before.compressedBytes + 12'000) << "a dark picture";
}

TEST_F(RenderServerTest, aWrongHelloIsToldWhyAndDisturbsNobody)
{
    TestServer server;
    TestApplication application(server);
    application.setUp();
    {
        Channel channel(server);
        channel.stream << std::uint32_t{99};
        channel.stream.flush();
        EXPECT_EQ(channel.answer(), "Unknown protocol version 99");
        EXPECT_TRUE(channel.isClosed());
    }
    EXPECT_EQ(refusalOf(server, kyTest::makeHello(3)), "This server has the rank 2, not 3");
    EXPECT_EQ(refusalOf(server, kyTest::makeHello()), "There are 3 low latency channels already");
    Hello other = kyTest::makeHello();
    other.session = 4712;
    EXPECT_EQ(refusalOf(server, other), "This server works for another application");
    application.loadScene(kyTest::makeScene());
}

TEST_F(RenderServerTest, garbageDisturbsNobody)
{
    TestServer server;
    TestApplication application(server);
    application.setUp();
    for (const std::string& garbage :
         {std::string(1000, '\xFF'), std::string(1000, '\0'), std::string("GET / HTTP/1.1\r\n\r\n"),
          std::string(3, 'x')}) {
        Channel channel(server);
        channel.link->send(garbage.data(), garbage.size());
        channel.link->shutdown();
    }
    const Channel silent(server);
    application.loadScene(kyTest::makeScene());
}

TEST_F(RenderServerTest, aSetupThatCannotBeDoneEndsTheServerAfterAnAnswer)
{
    const auto refusal = [](const std::function<void(render::Setup&)>& change) {
        TestServer server;
        TestApplication application(server);
        render::Setup setup;
        change(setup);
        const std::string answer = Channel(application.getFirst()).setUp(setup);
        EXPECT_TRUE(server.hasEnded());
        return answer;
    };
    EXPECT_EQ(refusal([](render::Setup& setup) { setup.relayTargets.resize(65); }),
              "65 servers are too many to relay to");
    EXPECT_EQ(refusal([](render::Setup& setup) { setup.imageCompression = kyNetCompression(1); }),
              "Unknown compression method 1");
    EXPECT_EQ(refusal([](render::Setup& setup) { setup.imageCompression = kyNetCompression(-1); }),
              "Unknown compression method -1");
}

TEST_F(RenderServerTest, anotherWordThanSetupEndsTheServerAfterAnAnswer)
{
    TestServer server;
    Channel first(server);
    ASSERT_EQ(first.introduce(kyTest::makeHello()), "");
    kyNetMessage message;
    message << 1;
    first.stream.sendMessage(message, 2, kyNetBufferSendMode::Automatic);
    EXPECT_EQ(first.answer(), "Stream out of sync. Stream expected at 2 from 1 to 2");
    EXPECT_TRUE(server.hasEnded());
}

TEST_F(RenderServerTest, withAKeyItServesWhoHoldsIt)
{
    const auto key = kyTest::makeKey(7);
    TestServer server(key);
    TestApplication application(server, kyTest::makeHello(), key);
    application.setUp();
    application.loadScene(kyTest::makeScene());
    const Frame frame = kyTest::makeFrame(100, 100, 1);
    application.beginFrame(1, frame);
    const Tile tile{0, 0, 100, 100};
    EXPECT_EQ(application.renderTile(1, tile).pixels, renderHere(frame, tile));
}

TEST_F(RenderServerTest, withAKeyItRefusesEverybodyElse)
{
    const auto key = kyTest::makeKey(7);
    TestServer server(key);
    TestApplication application(server, kyTest::makeHello(), key);
    application.setUp();
    {
        Channel without(server);
        EXPECT_EQ(without.introduce(kyTest::makeHello()),
                  "This connection needs a key, and none was offered");
        EXPECT_TRUE(without.isClosed());
    }
    {
        Channel other(server);
        EXPECT_EQ(kyTest::messageOf([&] { KeyExchange::offer(other.link, kyTest::makeKey(8)); }),
                  "The other side does not hold this key");
        EXPECT_TRUE(other.isClosed());
    }
    application.loadScene(kyTest::makeScene());
}

TEST_F(RenderServerTest, withoutAKeyItRefusesWhoOffersOne)
{
    TestServer server;
    Channel channel(server);
    EXPECT_EQ(kyTest::messageOf([&] { KeyExchange::offer(channel.link, kyTest::makeKey(7)); }),
              "A key was offered to a side that has none");
    EXPECT_TRUE(channel.isClosed());
    TestApplication application(server);
    application.setUp();
}

TEST_F(RenderServerTest, endsWhenTheServiceClosesThePipe)
{
    TestServer server;
    TestApplication application(server);
    application.setUp();
    server.stop();
    EXPECT_TRUE(server.hasEnded());
    EXPECT_EQ(kyTest::messageOf([&] { application.recvAnswer(); }), "Connection closed");
}

TEST_F(RenderServerTest, endsWhenTheServiceClosesThePipeBeforeAllChannelsAreOpen)
{
    TestServer server;
    Channel first(server);
    ASSERT_EQ(first.introduce(kyTest::makeHello()), "");
    Channel image(server);
    ASSERT_EQ(image.introduce(kyNodeConnectionType::Image), "");
    first.stream << render::Setup();
    first.stream.flush();
    EXPECT_FALSE(first.link->pollReadable(0.2));
    server.stop();
    EXPECT_TRUE(server.hasEnded(std::chrono::seconds(10)));
    EXPECT_TRUE(image.isClosed());
}

TEST_F(RenderServerTest, endsWhenAnyChannelOfTheChainsCloses)
{
    for (const bool isImage : {false, true}) {
        for (const std::size_t index : {0U, 1U}) {
            TestServer server;
            TestApplication application(server);
            application.setUp();
            application.loadScene(kyTest::makeScene());
            Channel sync(application.open(kyNodeConnectionType::Sync));
            const RenderChannels& channels = application.channels;
            (isImage ? channels.image : channels.lowLatency)[index]->shutdown();
            EXPECT_TRUE(server.hasEnded());
            EXPECT_TRUE(sync.isClosed());
        }
    }
}

TEST_F(RenderServerTest, endsWhenTheApplicationIsGoneBeforeItSetsUp)
{
    TestServer server;
    TestApplication application(server);
    application.channels.lowLatency.front()->shutdown();
    EXPECT_TRUE(server.hasEnded());
}

TEST_F(RenderServerTest, endsWhenTheApplicationIsGoneInTheMiddleOfTheScene)
{
    TestServer server;
    TestApplication application(server);
    application.setUp();
    application.stream << Order::LoadScene;
    application.stream.putValueSize(7);
    application.stream.flush();
    application.stream.shutdown();
    EXPECT_TRUE(server.hasEnded());
}

TEST_F(RenderServerTest, endsInTheMiddleOfATileThatWouldTakeHours)
{
    TestServer server;
    TestApplication application(server);
    application.setUp();
    application.loadScene(kyTest::makeScene());
    application.beginFrame(1, s_endlessFrame);
    application.order(Order::RenderTile, 1, s_endlessTile);
    application.stream.shutdown();
    EXPECT_TRUE(server.hasEnded(std::chrono::seconds(15)));
}

namespace {

/// An application that reads nothing, and a server that has more to send than all queues and
/// sockets between them hold.
class DeafApplication
{
public:
    DeafApplication() : m_application(server, makeSmallHello())
    {
        // Not through a chain: that reads ahead without a bound.
        EXPECT_EQ(Channel(m_application.getFirst()).setUp({}), "");
        kyNetStream stream(m_application.getFirst());
        stream << Order::LoadScene;
        putScene(stream, kyTest::makeScene());
        stream.flush();
        AnswerMessage answer;
        stream.recvMessage(answer);
        EXPECT_EQ(answer.getAnswer().failure, "");
        order(Order::BeginFrame, 1, kyTest::makeFrame(100, 100, 1));
        for (int i = 0; i < 1000; ++i) {
            order(Order::RenderTile, 1, Tile{0, 0, 100, 100});
        }
    }

    /// Whether all sockets and queues between the two are full.
    bool isStuck()
    {
        return kyTest::isStuck(dynamic_cast<kySocketLink&>(*m_application.channels.image.front()));
    }

    void close() { m_application.channels.image.front()->shutdown(); }

    TestServer server;

private:
    /// So that it is known where answers come.
    static Hello makeSmallHello()
    {
        Hello hello = kyTest::makeHello();
        hello.channels.setLowLatencyChannels(1);
        hello.channels.setImageChannels(1);
        return hello;
    }

    template <class... Values> void order(const Values&... values)
    {
        kyNetMessage message;
        (message << ... << values);
        kyNetStream stream(m_application.channels.lowLatency.front());
        stream.sendMessage(message, 2, kyNetBufferSendMode::Automatic);
    }

    TestApplication m_application;
};

} // namespace

TEST_F(RenderServerTest, endsWithTheServiceThoughTheApplicationReadsNothing)
{
    DeafApplication application;
    EXPECT_TRUE(application.isStuck());
    application.server.stop();
    EXPECT_TRUE(application.server.hasEnded(std::chrono::seconds(15)));
}

TEST_F(RenderServerTest, endsWithAChannelThoughTheApplicationReadsNothing)
{
    DeafApplication application;
    EXPECT_TRUE(application.isStuck());
    application.close();
    EXPECT_TRUE(application.server.hasEnded(std::chrono::seconds(15)));
}

TEST_F(RenderServerTest, endsWhenNobodyHasBeenConnectedForTenSeconds)
{
    TestServer server;
    {
        const Channel passerBy(server);
    }
    EXPECT_FALSE(server.hasEnded(std::chrono::seconds(5)));
    EXPECT_TRUE(server.hasEnded());
}

TEST_F(RenderServerTest, aConnectionThatSaysNothingKeepsItAlive)
{
    TestServer server;
    Channel silent(server);
    EXPECT_FALSE(server.hasEnded(std::chrono::seconds(12)));
    // Until it has been silent for half a minute.
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(silent.isClosed());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(25));
}

TEST_F(RenderServerTest, anApplicationThatOrdersNothingKeepsItAlive)
{
    TestServer server;
    TestApplication application(server);
    application.setUp();
    EXPECT_FALSE(server.hasEnded(std::chrono::seconds(12)));
    application.loadScene(kyTest::makeScene());
}
