#include <apps/TALOClusterServer/SceneRelay.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyNetError.h>
#include <NetBase/senders/kyNetSender.h>
#include <Utils/kyLog.h>
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

constexpr std::uint16_t s_port = 8889;
const Frame s_frame = kyTest::makeFrame(16, 16, 1);
const Tile s_tile{0, 0, 16, 16};

/// The ball with so many triangles that the scene fills several buffers.
Scene makeLargeScene()
{
    Scene scene = kyTest::makeScene();
    scene.meshes.front() = kyTest::makeBall(100);
    return scene;
}

std::vector<Vector> renderHere(const Scene& scene)
{
    const std::atomic<bool> go{false};
    return PathTracer(scene).render(s_frame, s_tile, go);
}

/// A node: its render servers by their ids, through which they reach each other.
class Node
{
public:
    explicit Node(std::shared_ptr<const SharedKey> key = nullptr) : m_key(std::move(key)) {}

    ~Node()
    {
        // All at once, since none ends for another one's sake.
        for (const auto& [id, server] : m_servers) {
            server->stop();
        }
    }

    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    /// Starts a server whose id is its rank.
    TestServer& start(std::int32_t rank)
    {
        auto server = std::make_unique<TestServer>(
            m_key, [this](std::uint16_t port, std::uint32_t id) { return open(port, id); });
        const std::lock_guard<std::mutex> guard(m_lock);
        return *(m_servers[static_cast<std::uint32_t>(rank)] = std::move(server));
    }

private:
    std::shared_ptr<kySocketLink> open(std::uint16_t port, std::uint32_t id)
    {
        if (port != s_port) {
            throw kyNetError("Nobody listens there");
        }
        TestServer* server = nullptr;
        {
            const std::lock_guard<std::mutex> guard(m_lock);
            const auto found = m_servers.find(id);
            server = found != m_servers.end() ? found->second.get() : nullptr;
        }
        if (server == nullptr) {
            throw kyNetError("There is no such server");
        }
        return server->connect();
    }

    std::shared_ptr<const SharedKey> m_key;
    std::mutex m_lock;
    std::map<std::uint32_t, std::unique_ptr<TestServer>> m_servers;
};

class SceneRelayTest : public testing::Test
{
protected:
    SceneRelayTest()
    {
        kyLog::setSink([](kyLog::Severity, int, const std::string&) {});
    }
    ~SceneRelayTest() override { kyLog::setSink({}); }

    const kyTest::CompressionSetting m_compression{kyNetCompression::Standard,
                                                   kyNetCompression::None};
};

/// A server of a node, and its application.
class Member
{
public:
    Member(Node& node, std::int32_t rank)
        : server(node.start(rank)), application(server, kyTest::makeHello(rank))
    {
    }

    void setUp(std::int32_t sceneSource, const std::vector<std::int32_t>& targets)
    {
        render::Setup setup;
        setup.sceneSource = sceneSource;
        setup.servicePort = s_port;
        for (const std::int32_t target : targets) {
            setup.relayTargets.push_back({target, static_cast<std::uint32_t>(target)});
        }
        application.setUp(setup);
    }

    /// What loading the scene ended with; "" for success.
    std::string recvSceneAnswer()
    {
        const Answer answer = application.recvAnswer();
        EXPECT_EQ(answer.order, Order::LoadScene);
        return answer.failure;
    }

    std::vector<Vector> render()
    {
        application.beginFrame(1, s_frame);
        return application.renderTile(1, s_tile).pixels;
    }

    TestServer& server;
    TestApplication application;
};

/// What a relaying server does at its target, as far as a test wants it to.
class FakeRelay
{
public:
    FakeRelay(TestServer& server, std::int32_t rank, std::int32_t source)
    {
        Hello hello = kyTest::makeHello(rank);
        hello.type = kyNodeConnectionType::Image;
        hello.source = source;
        for (int i = 0; i < hello.channels.getChannels(hello.type); ++i) {
            Channel channel(server);
            EXPECT_EQ(channel.introduce(hello), "");
            m_links.push_back(channel.link);
        }
        m_stream.setRank(s_applicationRank);
        m_stream.setSender(
            kyNetSender::createBundle(m_links, true, {static_cast<unsigned int>(rank)}));
    }

    ~FakeRelay() { m_stream.shutdown(); }

    FakeRelay(const FakeRelay&) = delete;
    FakeRelay& operator=(const FakeRelay&) = delete;

    kyNetStream& getStream() { return m_stream; }

private:
    std::vector<std::shared_ptr<kyNetLink>> m_links;
    kyNetStream m_stream;
};

/// Begins a scene that is far from complete.
void sendBeginning(kyNetStream& stream)
{
    stream << Order::LoadScene;
    stream.putValueSize(7);
    stream << Material();
    stream.flush();
    stream.waitAllDataTransfered();
}

} // namespace

TEST_F(SceneRelayTest, passesTheSceneOnThroughTwoLevels)
{
    const Scene scene = makeLargeScene();
    const std::vector<Vector> expected = renderHere(scene);
    for (const auto method : {kyNetCompression::None, kyNetCompression::Standard}) {
        kyNetOptions::setDataCompression(method);
        Node node;
        Member first(node, 2);
        Member second(node, 3);
        Member third(node, 4);
        first.setUp(s_applicationRank, {3});
        second.setUp(2, {4});
        third.setUp(3, {});
        first.application.sendScene(scene);
        for (Member* member : {&first, &second, &third}) {
            EXPECT_EQ(member->recvSceneAnswer(), "");
            EXPECT_EQ(member->render(), expected);
        }
    }
}

TEST_F(SceneRelayTest, passesTheSceneOnToSeveralServers)
{
    const Scene scene = makeLargeScene();
    Node node;
    Member first(node, 2);
    Member second(node, 3);
    Member third(node, 4);
    // Whoever waits for a relay may be set up first.
    third.setUp(2, {});
    second.setUp(2, {});
    first.setUp(s_applicationRank, {3, 4});
    first.application.sendScene(scene);
    for (Member* member : {&first, &second, &third}) {
        EXPECT_EQ(member->recvSceneAnswer(), "");
        EXPECT_EQ(member->render(), renderHere(scene));
    }
}

TEST_F(SceneRelayTest, aTargetThatIsNotThereIsLeftOut)
{
    Node node;
    Member first(node, 2);
    Member second(node, 3);
    first.setUp(s_applicationRank, {9, 3});
    second.setUp(2, {});
    first.application.sendScene(kyTest::makeScene());
    EXPECT_EQ(first.recvSceneAnswer(), "");
    EXPECT_EQ(second.recvSceneAnswer(), "");
}

TEST_F(SceneRelayTest, aTargetThatRefusesIsLeftOut)
{
    Node node;
    Member first(node, 2);
    TestServer& idle = node.start(3);
    first.setUp(s_applicationRank, {3});
    first.application.loadScene(kyTest::makeScene());
    EXPECT_FALSE(idle.hasEnded(std::chrono::seconds(0)));
}

TEST_F(SceneRelayTest, aTargetThatDiesConcernsNobodyElse)
{
    const Scene scene = makeLargeScene();
    Node node;
    Member first(node, 2);
    Member second(node, 3);
    Member third(node, 4);
    first.setUp(s_applicationRank, {3, 4});
    second.setUp(2, {});
    third.setUp(2, {});
    second.server.stop();
    EXPECT_TRUE(second.server.hasEnded());
    first.application.sendScene(scene);
    EXPECT_EQ(first.recvSceneAnswer(), "");
    EXPECT_EQ(third.recvSceneAnswer(), "");
    EXPECT_EQ(third.render(), renderHere(scene));
}

TEST_F(SceneRelayTest, aSourceThatDiesInTheMiddleLeavesItsTargetsToTheApplication)
{
    const Scene scene = makeLargeScene();
    Node node;
    Member second(node, 3);
    Member third(node, 4);
    Member fourth(node, 5);
    auto source = std::make_unique<FakeRelay>(second.server, 3, 2);
    second.setUp(2, {4});
    third.setUp(3, {5});
    fourth.setUp(4, {});
    sendBeginning(source->getStream());
    source.reset();
    for (Member* member : {&second, &third, &fourth}) {
        EXPECT_EQ(member->recvSceneAnswer(), "The scene was not relayed: Connection closed");
    }
    for (Member* member : {&second, &third, &fourth}) {
        member->application.sendScene(scene);
        EXPECT_EQ(member->recvSceneAnswer(), "");
        EXPECT_EQ(member->render(), renderHere(scene));
    }
}

TEST_F(SceneRelayTest, aSourceThatDiesAfterTheSceneMattersToNobody)
{
    Node node;
    Member second(node, 3);
    auto source = std::make_unique<FakeRelay>(second.server, 3, 2);
    second.setUp(2, {});
    source->getStream() << Order::LoadScene;
    putScene(source->getStream(), kyTest::makeScene());
    source->getStream().flush();
    EXPECT_EQ(second.recvSceneAnswer(), "");
    source.reset();
    EXPECT_EQ(second.render(), renderHere(kyTest::makeScene()));
}

TEST_F(SceneRelayTest, whatIsNoSceneIsRefusedAndTheSourceToldToStop)
{
    Node node;
    Member second(node, 3);
    FakeRelay source(second.server, 3, 2);
    second.setUp(2, {});
    source.getStream() << Order::LoadScene;
    source.getStream().putValueSize(4097);
    source.getStream().flush();
    EXPECT_EQ(second.recvSceneAnswer(), "The scene was not relayed: Received an invalid scene: "
                                        "4097 materials, at most 4096 are accepted");
    EXPECT_THROW(
        {
            for (;;) {
                source.getStream() << std::string(1000, 'x');
            }
        },
        kyNetError);
    second.application.loadScene(kyTest::makeScene());
}

TEST_F(SceneRelayTest, anotherSourceThanTheAnnouncedOneIsNotListenedTo)
{
    Node node;
    Member second(node, 3);
    const FakeRelay source(second.server, 3, 5);
    second.setUp(2, {});
    EXPECT_EQ(second.recvSceneAnswer(), "The scene was not relayed: Rank 5 relays instead of 2");
    second.application.loadScene(kyTest::makeScene());
}

TEST_F(SceneRelayTest, aServerThatNobodyRelaysToAsksItsApplicationSoon)
{
    Node node;
    Member second(node, 3);
    second.setUp(2, {});
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(second.recvSceneAnswer(),
              "The scene was not relayed: Only 0 of 2 image channels were opened");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
    second.application.loadScene(kyTest::makeScene());
    EXPECT_EQ(second.render(), renderHere(kyTest::makeScene()));
}

TEST_F(SceneRelayTest, aServerEndsWhileItWaitsForASource)
{
    Node node;
    Member second(node, 3);
    second.setUp(2, {});
    second.server.stop();
    EXPECT_TRUE(second.server.hasEnded(std::chrono::seconds(10)));
}

TEST_F(SceneRelayTest, aServerEndsInTheMiddleOfARelayedScene)
{
    Node node;
    Member second(node, 3);
    FakeRelay source(second.server, 3, 2);
    second.setUp(2, {});
    sendBeginning(source.getStream());
    second.application.stream.shutdown();
    EXPECT_TRUE(second.server.hasEnded());
}

namespace {

/// A target that reads nothing: the other end of every connection that a server opens to relay.
class DeafTarget
{
public:
    std::shared_ptr<kySocketLink> open()
    {
        const auto ends = kyTest::makeConnection();
        const auto near = std::make_shared<kySocketLink>(ends.first);
        const auto far = std::make_shared<kySocketLink>(ends.second);
        // Its answer is there before the question.
        Channel channel(far);
        channel.stream.sendSuccess().flush();
        m_links.push_back(far);
        return near;
    }

    /// Whether all sockets and queues before it are full.
    bool isStuck() { return kyTest::isStuck(*m_links.front()); }

private:
    std::vector<std::shared_ptr<kySocketLink>> m_links;
};

} // namespace

TEST_F(SceneRelayTest, aTargetThatReadsNothingHoldsNothingUp)
{
    DeafTarget target;
    TestServer server(nullptr, [&](std::uint16_t, std::uint32_t) { return target.open(); });
    TestApplication application(server);
    kyNetOptions::setDataCompression(kyNetCompression::None);
    render::Setup setup;
    setup.relayTargets = {{3, 3}};
    application.setUp(setup);
    // More than the sockets and the usual queues of a chain hold.
    Scene scene = kyTest::makeScene();
    scene.meshes.front().positions.resize(3'500'000);
    scene.meshes.front().normals.resize(3'500'000);
    application.loadScene(scene);
    EXPECT_TRUE(target.isStuck());
    application.stream.shutdown();
    EXPECT_TRUE(server.hasEnded(std::chrono::seconds(15)));
}

TEST_F(SceneRelayTest, withAKeyTheRelayIsEncryptedToo)
{
    const auto key = kyTest::makeKey(7);
    TestServer second(key);
    TestServer first(key, [&](std::uint16_t, std::uint32_t) { return second.connect(); });
    TestApplication toFirst(first, kyTest::makeHello(2), key);
    TestApplication toSecond(second, kyTest::makeHello(3), key);
    render::Setup setup;
    setup.relayTargets = {{3, 3}};
    toFirst.setUp(setup);
    setup.relayTargets.clear();
    setup.sceneSource = 2;
    toSecond.setUp(setup);
    toFirst.sendScene(kyTest::makeScene());
    EXPECT_EQ(toFirst.recvAnswer().failure, "");
    EXPECT_EQ(toSecond.recvAnswer().failure, "");
}
