#include <apps/TALOClusterServer/RenderServer.h>

#include <functional>
#include <future>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/links/kySocketLink.h>
#include <NetBase/serialization/kyNetStream.h>
#include <Utils/kyLog.h>
#include <apps/TALOClusterServer/OrderBook.h>
#include <apps/TALOClusterServer/PathTracer.h>
#include <apps/common/SceneWire.h>
#include <tests/apps/kyTestFolder.h>
#include <tests/apps/kyTestScene.h>
#include <tests/support/kyTestSocket.h>
#include <tests/support/kyTestWait.h>

using namespace render;

namespace {

constexpr std::uint64_t s_session = 4711;

/// The client's end of a connection to the server.
class Channel
{
public:
    explicit Channel(std::shared_ptr<kySocketLink> channelLink)
        : link(std::move(channelLink)), stream(link)
    {
        link->setRecvTimeout(std::chrono::duration<double>(kyTest::s_patience).count());
        stream.setRank(1);
    }

    void sendHello(kyNodeConnectionType type, std::uint64_t session = s_session, int rank = 2)
    {
        Hello hello;
        hello.type = type;
        hello.session = session;
        hello.rank = rank;
        stream << hello;
        stream.flush();
    }

    /// What the server answers; "" for success.
    std::string answer()
    {
        return kyTest::messageOf([&] { stream.recvResult(); });
    }

    /// Orders something and returns the answer; its seconds are read too.
    template <class... Values> std::string order(const Values&... values)
    {
        (stream << ... << values);
        stream.flush();
        const std::string result = answer();
        if (result.empty()) {
            stream >> seconds;
        }
        return result;
    }

    void loadScene(const Scene& scene)
    {
        stream << Order::LoadScene;
        putScene(stream, scene);
        stream.flush();
        ASSERT_EQ(answer(), "");
        stream >> seconds;
    }

    /// Returns when the server can send no tile any more, as nobody reads them.
    void orderMoreThanSocketsBuffer()
    {
        loadScene(kyTest::makeScene());
        order(Order::BeginFrame, std::int32_t{1}, kyTest::makeFrame(100, 100, 1));
        // 60 MB of tiles: more than any socket buffers.
        for (int i = 0; i < 500; ++i) {
            stream << Order::RenderTile << Tile{0, 0, 100, 100};
        }
        stream.flush();
        while (link->pollReadable(2.0)) {
            ASSERT_EQ(answer(), "");
            stream >> seconds;
        }
    }

    /// Whether the server has closed the connection; waits for it.
    bool isClosed()
    {
        try {
            std::uint8_t byte = 0;
            stream >> byte;
            return false;
        } catch (const kyConnectionClosed&) {
            return true;
        } catch (const kyNetError&) {
            // A reset is an end too.
            return true;
        }
    }

    std::shared_ptr<kySocketLink> link;
    kyNetStream stream;
    double seconds = -1.0;
};

/// A render server on a thread, and the service's end of its pipe.
class RenderServerTest : public testing::Test
{
protected:
    RenderServerTest()
    {
        kyLog::setSink([](kyLog::Severity, int, const std::string&) {});
        m_run =
            std::async(std::launch::async, [name = m_pipe.getName()] { RenderServer(name).run(); });
    }

    ~RenderServerTest() override
    {
        m_pipe.shutdown();
        EXPECT_TRUE(hasEnded());
        kyLog::setSink({});
    }

    /// A connection that the service hands over.
    Channel connect()
    {
        const auto ends = kyTest::makeConnection();
        kySocketLink serverEnd(ends.second);
        serverEnd.sendDescriptor(m_pipe, 30.0);
        return Channel(std::make_shared<kySocketLink>(ends.first));
    }

    Channel connect(kyNodeConnectionType type)
    {
        Channel channel = connect();
        channel.sendHello(type);
        EXPECT_EQ(channel.answer(), "");
        return channel;
    }

    bool hasEnded(std::chrono::seconds limit = kyTest::s_patience)
    {
        return m_run.wait_for(limit) == std::future_status::ready;
    }

    kySocketPipe m_pipe{false};
    std::future<void> m_run;
};

std::vector<Vector> recvTile(Channel& channel, Tile& tile)
{
    TileMessage message;
    channel.stream.recvMessage(message);
    return message.getTile(tile);
}

} // namespace

TEST_F(RenderServerTest, saysNothingBeforeHello)
{
    Channel channel = connect();
    EXPECT_FALSE(channel.link->pollReadable(0.3));
    channel.sendHello(kyNodeConnectionType::LowLatency);
    EXPECT_EQ(channel.answer(), "");
}

TEST_F(RenderServerTest, rendersTilesLikeATracerOfItsOwn)
{
    Channel orders = connect(kyNodeConnectionType::LowLatency);
    Channel image = connect(kyNodeConnectionType::Image);
    orders.loadScene(kyTest::makeScene());
    const Frame frame = kyTest::makeFrame(40, 30, 2);
    EXPECT_EQ(orders.order(Order::BeginFrame, std::int32_t{1}, frame), "");
    const PathTracer tracer(kyTest::makeScene());
    const std::atomic<bool> go{false};
    for (const Tile& tile : {Tile{0, 0, 40, 30}, Tile{39, 29, 1, 1}, Tile{10, 5, 7, 9}}) {
        EXPECT_EQ(orders.order(Order::RenderTile, tile), "");
        EXPECT_GT(orders.seconds, 0.0);
        Tile received;
        EXPECT_EQ(recvTile(image, received), tracer.render(frame, tile, go));
        EXPECT_EQ(received, tile);
    }
}

TEST_F(RenderServerTest, tilesTakeTheImageChannelsInTurn)
{
    Channel orders = connect(kyNodeConnectionType::LowLatency);
    Channel one = connect(kyNodeConnectionType::Image);
    Channel other = connect(kyNodeConnectionType::Image);
    orders.loadScene(kyTest::makeScene());
    orders.order(Order::BeginFrame, std::int32_t{1}, kyTest::makeFrame(40, 30, 1));
    for (std::uint32_t i = 0; i < 4; ++i) {
        EXPECT_EQ(orders.order(Order::RenderTile, Tile{i, 0, 1, 1}), "");
    }
    std::vector<std::uint32_t> seen;
    for (Channel* channel : {&one, &other, &one, &other}) {
        Tile tile;
        recvTile(*channel, tile);
        seen.push_back(tile.x);
    }
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, (std::vector<std::uint32_t>{0, 1, 2, 3}));
}

TEST_F(RenderServerTest, aSyncAnswersWhenItsFrameIsReached)
{
    Channel orders = connect(kyNodeConnectionType::LowLatency);
    Channel sync = connect(kyNodeConnectionType::Sync);
    sync.stream.sendSync(5);
    EXPECT_FALSE(sync.link->pollReadable(0.2));
    EXPECT_EQ(orders.order(Order::BeginFrame, std::int32_t{5}, kyTest::makeFrame(4, 4, 1)), "");
    kyNetMessage message;
    sync.stream.recvMessage(message);
    EXPECT_EQ(message.getSource(), 2U);
    std::int32_t frame = 0;
    message >> frame;
    EXPECT_EQ(frame, 5);
}

TEST_F(RenderServerTest, ordersOutOfPlaceAreAnsweredAndTheNextOnesServed)
{
    Channel orders = connect(kyNodeConnectionType::LowLatency);
    const Tile tile{0, 0, 4, 4};
    EXPECT_EQ(orders.order(Order::RenderTile, tile), "There is no scene to render");
    orders.loadScene(kyTest::makeScene());
    EXPECT_EQ(orders.order(Order::RenderTile, tile), "Received an invalid tile: 4x4 pixels at 0,0");
    EXPECT_EQ(orders.order(Order::BeginFrame, std::int32_t{1}, kyTest::makeFrame(8, 8, 1)), "");
    EXPECT_EQ(orders.order(Order::RenderTile, Tile{7, 7, 2, 2}),
              "Received an invalid tile: 2x2 pixels at 7,7");
    EXPECT_EQ(orders.order(Order::RenderTile, tile), "Connection closed");
    Channel image = connect(kyNodeConnectionType::Image);
    EXPECT_EQ(orders.order(Order::RenderTile, tile), "");
}

TEST_F(RenderServerTest, hostileOrdersEndTheServerAfterAnAnswer)
{
    const auto hostile = [&](const std::function<void(kyNetStream&)>& words) {
        Channel orders = connect(kyNodeConnectionType::LowLatency);
        words(orders.stream);
        orders.stream.flush();
        const std::string answer = orders.answer();
        EXPECT_TRUE(orders.isClosed());
        return answer;
    };
    EXPECT_EQ(hostile([](kyNetStream& stream) { stream << std::uint32_t{77}; }),
              "Unknown order 77");
    EXPECT_TRUE(hasEnded());
}

TEST_F(RenderServerTest, aSceneThatClaimsTooMuchEndsTheServerAfterAnAnswer)
{
    Channel orders = connect(kyNodeConnectionType::LowLatency);
    orders.stream << Order::LoadScene;
    orders.stream.putValueSize(~std::uint64_t{0});
    orders.stream.flush();
    EXPECT_EQ(orders.answer(), "Received an invalid scene: 18446744073709551615 materials, at most "
                               "4096 are accepted");
    EXPECT_TRUE(hasEnded());
}

TEST_F(RenderServerTest, aFrameThatIsTooLargeEndsTheServerAfterAnAnswer)
{
    Channel orders = connect(kyNodeConnectionType::LowLatency);
    EXPECT_EQ(orders.order(Order::BeginFrame, std::int32_t{1},
                           kyTest::makeFrame(0x7FFFFFFF, 0x7FFFFFFF, 1)),
              "Received an invalid frame: a picture of 2147483647x2147483647 pixels");
    EXPECT_TRUE(hasEnded());
}

TEST_F(RenderServerTest, whoOrdersWithoutEndIsCutOff)
{
    Channel orders = connect(kyNodeConnectionType::LowLatency);
    Channel image = connect(kyNodeConnectionType::Image);
    orders.loadScene(kyTest::makeScene());
    orders.order(Order::BeginFrame, std::int32_t{1}, kyTest::makeFrame(100, 100, 1'000'000));
    for (std::size_t i = 0; i < OrderBook::s_limit + 2; ++i) {
        orders.stream << Order::RenderTile << Tile{0, 0, 100, 100};
    }
    orders.stream.flush();
    EXPECT_EQ(orders.answer(), "More than 1024 orders wait");
    EXPECT_TRUE(hasEnded());
}

TEST_F(RenderServerTest, aWrongHelloIsToldWhyAndDisturbsNobody)
{
    Channel orders = connect(kyNodeConnectionType::LowLatency);
    const auto refusal = [&](const std::function<void(Channel&)>& hello) {
        Channel channel = connect();
        hello(channel);
        const std::string answer = channel.answer();
        EXPECT_TRUE(channel.isClosed());
        return answer;
    };
    EXPECT_EQ(refusal([](Channel& c) {
                  c.stream << std::uint32_t{99};
                  c.stream.flush();
              }),
              "Unknown protocol version 99");
    EXPECT_EQ(refusal([](Channel& c) { c.sendHello(kyNodeConnectionType(9)); }),
              "Unknown connection type 9");
    EXPECT_EQ(refusal([](Channel& c) { c.sendHello(kyNodeConnectionType::Sync, s_session, 1); }),
              "A server cannot have the rank 1");
    EXPECT_EQ(refusal([](Channel& c) { c.sendHello(kyNodeConnectionType::LowLatency); }),
              "This server works for an application already");
    for (const auto type : {kyNodeConnectionType::Image, kyNodeConnectionType::Sync}) {
        EXPECT_EQ(refusal([&](Channel& c) { c.sendHello(type, s_session + 1); }),
                  "This server does not work for this application");
        EXPECT_EQ(refusal([&](Channel& c) { c.sendHello(type, s_session, 3); }),
                  "This server does not work for this application");
    }
    orders.loadScene(kyTest::makeScene());
}

TEST_F(RenderServerTest, garbageDisturbsNobody)
{
    Channel orders = connect(kyNodeConnectionType::LowLatency);
    for (const std::string& garbage :
         {std::string(1000, '\xFF'), std::string(1000, '\0'), std::string("GET / HTTP/1.1\r\n\r\n"),
          std::string(3, 'x')}) {
        Channel channel = connect();
        channel.link->send(garbage.data(), garbage.size());
        channel.link->shutdown();
    }
    Channel silent = connect();
    orders.loadScene(kyTest::makeScene());
}

TEST_F(RenderServerTest, channelsWithoutAnApplicationAreRefused)
{
    Channel channel = connect();
    channel.sendHello(kyNodeConnectionType::Image);
    EXPECT_EQ(channel.answer(), "This server does not work for this application");
}

TEST_F(RenderServerTest, hasALimitOfImageChannels)
{
    Channel orders = connect(kyNodeConnectionType::LowLatency);
    std::vector<Channel> channels;
    for (int i = 0; i < 64; ++i) {
        channels.push_back(connect(kyNodeConnectionType::Image));
    }
    Channel surplus = connect();
    surplus.sendHello(kyNodeConnectionType::Image);
    EXPECT_EQ(surplus.answer(), "There are 64 image channels already");
}

TEST_F(RenderServerTest, endsWhenTheServiceClosesThePipe)
{
    Channel orders = connect(kyNodeConnectionType::LowLatency);
    m_pipe.shutdown();
    EXPECT_TRUE(hasEnded());
    EXPECT_TRUE(orders.isClosed());
}

TEST_F(RenderServerTest, endsWhenTheApplicationIsGone)
{
    Channel orders = connect(kyNodeConnectionType::LowLatency);
    Channel image = connect(kyNodeConnectionType::Image);
    Channel sync = connect(kyNodeConnectionType::Sync);
    orders.link->shutdown();
    EXPECT_TRUE(hasEnded());
    EXPECT_TRUE(image.isClosed());
    EXPECT_TRUE(sync.isClosed());
}

TEST_F(RenderServerTest, endsInTheMiddleOfATileThatWouldTakeHours)
{
    Channel orders = connect(kyNodeConnectionType::LowLatency);
    Channel image = connect(kyNodeConnectionType::Image);
    orders.loadScene(kyTest::makeScene());
    orders.order(Order::BeginFrame, std::int32_t{1}, kyTest::makeFrame(100, 100, 1'000'000));
    orders.stream << Order::RenderTile << Tile{0, 0, 100, 100};
    orders.stream.flush();
    orders.link->shutdown();
    EXPECT_TRUE(hasEnded(std::chrono::seconds(15)));
}

TEST_F(RenderServerTest, endsWithTheServiceThoughTheApplicationReadsNoTiles)
{
    Channel orders = connect(kyNodeConnectionType::LowLatency);
    Channel image = connect(kyNodeConnectionType::Image);
    orders.orderMoreThanSocketsBuffer();
    m_pipe.shutdown();
    EXPECT_TRUE(hasEnded());
}

TEST_F(RenderServerTest, endsWithTheOrdersThoughTheApplicationReadsNoTiles)
{
    Channel orders = connect(kyNodeConnectionType::LowLatency);
    Channel image = connect(kyNodeConnectionType::Image);
    orders.orderMoreThanSocketsBuffer();
    orders.link->shutdown();
    EXPECT_TRUE(hasEnded());
}

TEST_F(RenderServerTest, endsWhenNobodyHasBeenConnectedForTenSeconds)
{
    {
        const Channel passerBy = connect();
    }
    EXPECT_FALSE(hasEnded(std::chrono::seconds(5)));
    EXPECT_TRUE(hasEnded());
}

TEST_F(RenderServerTest, aConnectionThatSaysNothingKeepsItAlive)
{
    const Channel silent = connect();
    EXPECT_FALSE(hasEnded(std::chrono::seconds(12)));
}
