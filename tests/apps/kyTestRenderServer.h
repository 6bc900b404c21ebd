#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/buffers/kyNetOptions.h>
#include <NetBase/links/kySocketLink.h>
#include <NetBase/links/kySocketPipe.h>
#include <NetBase/serialization/kyNetStream.h>
#include <apps/TALOClusterServer/RenderServer.h>
#include <apps/common/KeyExchange.h>
#include <apps/common/MethodCompressor.h>
#include <apps/common/RenderChannels.h>
#include <apps/common/RenderProtocol.h>
#include <apps/common/SceneWire.h>
#include <tests/support/kyTestMessage.h>
#include <tests/support/kyTestSocket.h>
#include <tests/support/kyTestWait.h>

/// Render servers within the test's process, and the application's side of the conversation.
namespace kyTest {

/// What all tests' applications say first.
inline render::Hello makeHello(std::int32_t rank = render::s_firstServerRank)
{
    render::Hello hello;
    hello.type = kyNodeConnectionType::LowLatency;
    hello.rank = rank;
    hello.session = 4711;
    hello.channels.setImageChannels(2);
    hello.channels.setLowLatencyChannels(3);
    return hello;
}

/// Whether whoever sends on this link waits for somebody to read; waits until it does.
inline bool isStuck(kySocketLink& link)
{
    const auto countWaiting = [&] {
        std::vector<char> bytes(8 << 20);
        return link.peekAvailable(bytes.data(), bytes.size());
    };
    return waitUntil([&] {
        const std::uint64_t before = countWaiting();
        const auto hasGrown = [&] { return countWaiting() > before; };
        return before > 100'000 && !waitUntil(hasGrown, std::chrono::milliseconds(500));
    });
}

/// A render server on a thread, and the service's end of its pipe.
class TestServer
{
public:
    using Key = std::shared_ptr<const SharedKey>;

    explicit TestServer(const Key& key = nullptr, render::SceneRelay::Opener opener = {})
    {
        m_run = std::async(std::launch::async, [name = m_pipe.getName(), key, opener] {
            render::RenderServer(name, key, opener).run();
        });
    }

    ~TestServer()
    {
        stop();
        EXPECT_TRUE(hasEnded());
    }

    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    /// A connection that the service hands over.
    std::shared_ptr<kySocketLink> connect()
    {
        const auto ends = makeConnection();
        kySocketLink serverEnd(ends.second);
        serverEnd.sendDescriptor(m_pipe, 30.0);
        auto link = std::make_shared<kySocketLink>(ends.first);
        link->setRecvTimeout(std::chrono::duration<double>(s_patience).count());
        return link;
    }

    /// What the service does to stop it.
    void stop() { m_pipe.shutdown(); }

    bool hasEnded(std::chrono::seconds limit = s_patience)
    {
        return m_run.wait_for(limit) == std::future_status::ready;
    }

private:
    kySocketPipe m_pipe{false};
    std::future<void> m_run;
};

/// One connection to a server before it is part of a chain.
class Channel
{
public:
    explicit Channel(std::shared_ptr<kySocketLink> channelLink)
        : link(std::move(channelLink)), stream(link)
    {
        stream.setRank(render::s_applicationRank);
    }

    explicit Channel(TestServer& server) : Channel(server.connect()) {}

    /// Says Hello and answers what the server does; "" for success.
    std::string introduce(const render::Hello& hello)
    {
        stream << hello;
        stream.flush();
        return answer();
    }

    std::string introduce(kyNodeConnectionType type)
    {
        render::Hello hello = makeHello();
        hello.type = type;
        return introduce(hello);
    }

    std::string setUp(const render::Setup& setup)
    {
        stream << setup;
        stream.flush();
        return answer();
    }

    /// The result that the server sends; "" for success.
    std::string answer()
    {
        return messageOf([this] { stream.recvResult(); });
    }

    /// Whether the server closes the connection; waits for it.
    bool isClosed()
    {
        try {
            std::uint8_t byte = 0;
            stream >> byte;
            return false;
        } catch (const kyNetError&) {
            // A reset is an end too.
            return true;
        }
    }

    std::shared_ptr<kySocketLink> link;
    kyNetStream stream;
};

/// An application with one server: all channels but the sync ones, and the chains over them.
class TestApplication
{
public:
    using Key = std::shared_ptr<const SharedKey>;

    /// Opens the channels. Does not set up.
    explicit TestApplication(TestServer& server, const render::Hello& hello = makeHello(),
                             const Key& key = nullptr)
        : m_server(server), m_hello(hello), m_key(key)
    {
        const auto lowLatency = kyNodeConnectionType::LowLatency;
        for (int i = 0; i < m_hello.channels.getChannels(lowLatency); ++i) {
            channels.lowLatency.push_back(open(lowLatency));
        }
        for (int i = 0; i < m_hello.channels.getChannels(kyNodeConnectionType::Image); ++i) {
            channels.image.push_back(open(kyNodeConnectionType::Image));
        }
    }

    ~TestApplication() { stream.shutdown(); }

    TestApplication(const TestApplication&) = delete;
    TestApplication& operator=(const TestApplication&) = delete;

    /// Opens and introduces one more channel.
    std::shared_ptr<kySocketLink> open(kyNodeConnectionType type)
    {
        Channel channel(m_server);
        KeyExchange::offer(channel.link, m_key);
        render::Hello hello = m_hello;
        hello.type = type;
        EXPECT_EQ(channel.introduce(hello), "");
        channel.link->setRecvTimeout(0.0);
        return channel.link;
    }

    /// The first channel, for words before the chains are made.
    std::shared_ptr<kySocketLink> getFirst() const
    {
        return std::dynamic_pointer_cast<kySocketLink>(channels.lowLatency.front());
    }

    /// Sets up and makes the chains.
    void setUp(const render::Setup& setup = {})
    {
        ASSERT_EQ(Channel(getFirst()).setUp(setup), "");
        const auto compressor = std::make_shared<MethodCompressor>();
        stream.setRank(render::s_applicationRank);
        stream.setSender(channels.makeSender(compressor, static_cast<unsigned int>(m_hello.rank),
                                             kyNetOptions::getLowLatencyClientThreshold()));
        stream.setReceiver(channels.makeReceiver(compressor));
    }

    void sendScene(const render::Scene& scene)
    {
        stream << render::Order::LoadScene;
        render::putScene(stream, scene);
        stream.flush();
    }

    /// Sends an order with these operands.
    template <class... Values> void order(const Values&... values)
    {
        kyNetMessage message;
        (message << ... << values);
        stream.sendMessage(message, m_hello.rank, kyNetBufferSendMode::Automatic);
    }

    /// The next answer of the server.
    render::Answer recvAnswer()
    {
        render::AnswerMessage message;
        stream.recvMessage(message);
        return message.getAnswer();
    }

    void loadScene(const render::Scene& scene)
    {
        sendScene(scene);
        const render::Answer answer = recvAnswer();
        ASSERT_EQ(answer.order, render::Order::LoadScene);
        ASSERT_EQ(answer.failure, "");
    }

    /// Begins a frame, and waits on a sync channel until the server has.
    void beginFrame(std::int32_t number, const render::Frame& frame)
    {
        order(render::Order::BeginFrame, number, frame);
        kyNetStream sync(open(kyNodeConnectionType::Sync));
        sync.setRank(render::s_applicationRank);
        sync.sendSync(number);
        kyNetMessage message;
        sync.recvMessage(message);
        std::int32_t reached = 0;
        message >> reached;
        ASSERT_EQ(reached, number);
    }

    render::Answer renderTile(std::int32_t frame, const render::Tile& tile)
    {
        order(render::Order::RenderTile, frame, tile);
        return recvAnswer();
    }

    render::RenderChannels channels;
    kyNetStream stream;

private:
    TestServer& m_server;
    render::Hello m_hello;
    Key m_key;
};

} // namespace kyTest
