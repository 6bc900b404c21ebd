// A client of this system, and services of the other one. scripts/interop.sh starts the services
// and says in the environment where they listen.

#include <cstdlib>
#include <iterator>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <QString>
#include <QSysInfo>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <NetBase/links/kySocketLink.h>
#include <NetBase/senders/kyNetSender.h>
#include <NetBase/serialization/kyNetStdIStream.h>
#include <NetBase/serialization/kyNetStdOStream.h>
#include <apps/common/KeyExchange.h>
#include <apps/common/MethodCompressor.h>
#include <apps/common/RenderChannels.h>
#include <apps/common/ServiceClient.h>
#include <apps/common/SharedKey.h>
#include <tests/interop/kyInteropEnvironment.h>
#include <tests/interop/kyInteropPeer.h>
#include <tests/support/kyTestCompression.h>
#include <tests/support/kyTestMessage.h>
#include <tests/support/kyTestTraffic.h>
#include <tests/support/kyTestWait.h>

namespace {

constexpr int s_rank = 1;
constexpr int s_serverRank = 2;

/// What a server says about itself.
struct About
{
    std::string argument;
    std::string processId;
    std::string system;
};

/// A connection to a server, with the cipher if there is a key, and what it is for said.
struct Talk
{
    Talk(std::shared_ptr<kySocketLink> connection, const std::shared_ptr<const SharedKey>& key,
         const std::string& purpose)
        : link(std::move(connection)), stream(link)
    {
        link->setRecvTimeout(std::chrono::duration<double>(kyTest::s_patience).count());
        KeyExchange::offer(link, key);
        stream.setRank(s_rank);
        stream << purpose << kyNetStream::flush;
    }

    About about()
    {
        About about;
        stream >> about.argument >> about.processId >> about.system;
        return about;
    }

    /// Whether the server ends the connection; waits for it.
    bool ends()
    {
        char byte = 0;
        return kyTest::messageOf([&] { stream >> byte; }) == "Connection closed";
    }

    std::shared_ptr<kySocketLink> link;
    kyNetStream stream;
};

/// A server of a service of the other system. It ends with the test.
class Server
{
public:
    explicit Server(ServiceClient client, const ServiceClient::ServerSettings& settings = {})
        : m_client(std::move(client)), m_started(m_client.startServer(settings))
    {
    }

    ~Server()
    {
        try {
            m_client.stopServer(m_started.id);
        } catch (const std::exception&) {
            // The test has stopped it.
        }
    }

    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    const ServiceClient::StartedServer& getStarted() const { return m_started; }

    /// Talks over the connection that the server was started with. Once.
    Talk talkFirst(const std::string& purpose) const { return {m_started.link, key(), purpose}; }

    /// Talks over a connection of its own.
    Talk talk(const std::string& purpose) const
    {
        return {m_client.connectServer(m_started.id), key(), purpose};
    }

    /// Channels, which have been introduced.
    std::vector<std::shared_ptr<kyNetLink>> open(const std::string& purpose,
                                                 std::size_t count) const
    {
        std::vector<std::shared_ptr<kyNetLink>> links(count);
        for (auto& link : links) {
            Talk opening = talk(purpose);
            opening.stream.recvResult();
            opening.link->setRecvTimeout(0.0);
            link = opening.link;
        }
        return links;
    }

private:
    const std::shared_ptr<const SharedKey>& key() const { return m_client.getKey(); }

    const ServiceClient m_client;
    const ServiceClient::StartedServer m_started;
};

/// Everything goes to two services: one without a key, one with.
class Interop : public testing::TestWithParam<bool>
{
protected:
    ServiceClient client() const { return ServiceClient(node("FAR"), std::nullopt, m_key); }
    ServiceClient clientThroughFarRelay() const
    {
        return ServiceClient(node("NEAR"), node("FAR"), m_key);
    }

    const std::shared_ptr<const SharedKey> m_key =
        GetParam() ? SharedKey::read(kyTest::interopVariable("KEY")) : nullptr;

private:
    static NodeAddress node(const std::string& side)
    {
        return kyTest::interopNode(side + (GetParam() ? "_WITH_KEY" : ""));
    }
};

std::string nameOf(const testing::TestParamInfo<bool>& info)
{
    return info.param ? "withKey" : "withoutKey";
}

INSTANTIATE_TEST_SUITE_P(Services, Interop, testing::Bool(), nameOf);

} // namespace

// --- The seven requests ---

TEST_P(Interop, statusIsThatOfAServiceOfThisVersion)
{
    const kyNetServiceStatus status = client().status();
    EXPECT_TRUE(status.getIsRunning());
    EXPECT_EQ(status.getVersion(), "11.0");
    EXPECT_GT(status.getFreeMemory(), 1'000'000U);
    EXPECT_EQ(status.getNumberOfClusterServers(), 0);
    EXPECT_THAT(status.getBookingIds(), testing::IsEmpty());
}

TEST_P(Interop, startLeadsToAServerOfTheOtherSystem)
{
    ServiceClient::ServerSettings settings;
    settings.arguments = "say \"hi\" to C:\\dir\\ and 100% of it";
    settings.bookingId = "night 7";
    const Server server(client(), settings);
    EXPECT_GT(server.getStarted().id, 0U);
    EXPECT_GT(server.getStarted().freeMemory, 1'000'000U);
    EXPECT_EQ(server.getStarted().serverCount, 1);
    const About about = server.talkFirst("about").about();
    EXPECT_NE(about.system, QSysInfo::kernelType().toStdString());
    EXPECT_EQ(about.argument, settings.arguments);
    const kyNetServiceStatus status = client().status();
    EXPECT_EQ(status.getNumberOfClusterServers(), 1);
    EXPECT_THAT(status.getBookingIds(), testing::ElementsAre("night 7"));
}

TEST_P(Interop, connectLeadsToTheSameServer)
{
    const Server server(client());
    const Server other(client());
    const std::string process = server.talkFirst("about").about().processId;
    EXPECT_EQ(server.talk("about").about().processId, process);
    EXPECT_NE(other.talk("about").about().processId, process);
}

TEST_P(Interop, stopEndsTheServerOfThatId)
{
    const Server server(client());
    const Server other(client());
    Talk talk = server.talkFirst("sync");
    client().stopServer(server.getStarted().id);
    EXPECT_TRUE(talk.ends());
    EXPECT_EQ(other.talk("about").about().argument, "");
    const std::string id = std::to_string(server.getStarted().id);
    EXPECT_THAT(kyTest::messageOf([&] { server.talk("about"); }), testing::HasSubstr(id));
}

TEST_P(Interop, stopByBookingEndsItsServers)
{
    ServiceClient::ServerSettings settings;
    settings.bookingId = "blue";
    const Server booked(client(), settings);
    const Server alsoBooked(client(), settings);
    const Server other(client());
    Talk talk = booked.talkFirst("sync");
    Talk alsoTalk = alsoBooked.talkFirst("sync");
    client().stopByBooking("blue");
    EXPECT_TRUE(talk.ends());
    EXPECT_TRUE(alsoTalk.ends());
    EXPECT_EQ(other.talk("about").about().argument, "");
}

TEST_P(Interop, relayLeadsThroughTheOtherSystemAndBack)
{
    EXPECT_GE(clientThroughFarRelay().ping(), 0.0);
    const Server server(clientThroughFarRelay());
    EXPECT_EQ(server.talkFirst("about").about().system, QSysInfo::kernelType().toStdString());
    Talk talk = server.talk("values");
    kyTest::putInteropValues(talk.stream, kyTest::interopValues());
    talk.stream.flush();
    bool isRight = false;
    talk.stream >> isRight;
    EXPECT_TRUE(isRight);
}

TEST(InteropService, stopEndsTheServiceAndItsServers)
{
    const ServiceClient client(kyTest::interopNode("FAR_TO_STOP"));
    const auto started = client.startServer({});
    Talk talk(started.link, nullptr, "sync");
    client.stopService();
    EXPECT_TRUE(talk.ends());
    EXPECT_TRUE(
        kyTest::waitUntil([&] { return kyTest::messageOf([&] { client.status(); }) != ""; }));
}

TEST(InteropService, eitherSideTellsTheOtherWhatIsWrongWithTheKey)
{
    const auto complaint = [](const char* side, const std::shared_ptr<const SharedKey>& key) {
        const ServiceClient client(kyTest::interopNode(side), std::nullopt, key);
        return kyTest::messageOf([&] { client.status(); })
            .substr(client.getNode().toString().size());
    };
    const auto wrong = std::make_shared<SharedKey>(SharedKey::Bytes{1, 2, 3});
    EXPECT_EQ(complaint("FAR_WITH_KEY", nullptr),
              ": This connection needs a key, and none was offered");
    EXPECT_EQ(complaint("FAR_WITH_KEY", wrong), ": The other side does not hold this key");
    EXPECT_EQ(complaint("FAR", wrong), ": A key was offered to a side that has none");
}

// --- What goes over a connection ---

TEST_P(Interop, valuesOfEveryTypeAreTheSameThereAndBack)
{
    const Server server(client());
    Talk talk = server.talkFirst("values");
    kyTest::putInteropValues(talk.stream, kyTest::interopValues());
    talk.stream.flush();
    bool isRight = false;
    talk.stream >> isRight;
    EXPECT_TRUE(isRight);
    decltype(kyTest::interopValues()) values;
    kyTest::getInteropValues(talk.stream, values);
    EXPECT_TRUE(values == kyTest::interopValues());
}

TEST_P(Interop, textOfAStandardStreamComesBackByteByByte)
{
    std::string text = "first\r\nsecond\n\x1a\xff";
    for (int i = 0; i < 100'000; ++i) {
        text += static_cast<char>(i % 251);
    }
    const Server server(client());
    Talk talk = server.talkFirst("text");
    kyNetStdOStream out(talk.stream);
    out << text;
    out.close();
    talk.stream.flush();
    kyNetStdIStream in(talk.stream);
    in.exceptions(std::ios::badbit);
    EXPECT_TRUE(std::string(std::istreambuf_iterator<char>(in), {}) == text);
}

TEST_P(Interop, synchronisationGoesBothWays)
{
    const Server server(client());
    Talk talk = server.talkFirst("sync");
    talk.stream.setSender(kyNetSender::createBundle({talk.link}, false, {s_serverRank}));
    for (const int frame : {1, -2, 1'000'000}) {
        talk.stream.sendSync(frame);
        EXPECT_EQ(talk.stream.waitSync(), frame + 1);
    }
}

TEST_P(Interop, resultsAreSuccessesAndFailuresWithTheirTexts)
{
    const Server server(client());
    Talk talk = server.talkFirst("results");
    for (const std::string text : {"no light", "", "gr\xc3\xbc\xc3\x9f"}) {
        talk.stream << text << kyNetStream::flush;
        std::string answer;
        talk.stream.recvResult() >> answer;
        EXPECT_EQ(answer, text);
        try {
            talk.stream.recvResult();
            ADD_FAILURE() << "no failure for " << text;
        } catch (const kyNetError& e) {
            EXPECT_EQ(std::string(e.what()), text);
        }
    }
}

TEST_P(Interop, messagesOfEverySizeComeBack)
{
    const Server server(client());
    Talk talk = server.talkFirst("messages");
    for (const std::uint32_t number : {0U, 1U, 500U, 10006U}) {
        const std::string content = kyTest::contentOf(number);
        kyTest::sendInteropMessage(talk.stream, content, s_serverRank);
        EXPECT_TRUE(kyTest::recvInteropMessage(talk.stream) == content) << number;
    }
}

TEST_P(Interop, bundlesAreTakenApartAndMade)
{
    const Server server(client());
    const Talk talk = server.talkFirst("bundles");
    for (const int count : {2, 100}) {
        std::vector<kyTest::Buffer> entries;
        for (int i = 0; i < count; ++i) {
            entries.push_back(kyTest::makeBuffer("entry " + std::to_string(i), s_rank, s_serverRank,
                                                 kyNetMessageType::Message));
            entries.back()->setSequence(65535 - i);
        }
        kyTest::sendInteropBundle(*talk.link, entries);
        const std::vector<kyTest::Buffer> answer = kyTest::recvInteropBundle(*talk.link);
        ASSERT_EQ(answer.size(), entries.size());
        for (std::size_t i = 0; i < answer.size(); ++i) {
            const kyNetBuffer& sent = *entries[entries.size() - 1 - i];
            EXPECT_EQ(kyTest::toHex(answer[i]->getBuffer(), kyNetBuffer::getHeaderSize()),
                      kyTest::toHex(sent.getBuffer(), kyNetBuffer::getHeaderSize()));
            EXPECT_EQ(kyTest::dataOf(*answer[i]), kyTest::dataOf(sent));
        }
    }
}

TEST_P(Interop, channelsCarryEverythingWhateverTheCompression)
{
    for (const auto method :
         {kyNetCompression::None, Lz4Compressor::s_method, ZstdCompressor::s_method}) {
        const kyTest::CompressionSetting setting(method, kyNetCompression::None);
        const Server server(client());
        Talk talk = server.talkFirst("channels");
        talk.stream << std::uint32_t{2} << std::uint32_t{3} << method << kyNetStream::flush;
        render::RenderChannels channels;
        channels.image = server.open("image", 2);
        channels.lowLatency = server.open("low latency", 3);
        talk.stream.recvResult();

        const auto compressor = std::make_shared<MethodCompressor>();
        kyNetStream stream;
        stream.setRank(s_rank);
        stream.setSender(channels.makeSender(compressor, s_serverRank, 1000));
        stream.setReceiver(channels.makeReceiver(compressor));
        kyTest::sendInteropNumbers(stream);
        EXPECT_TRUE(kyTest::recvInteropNumbers(stream) == kyTest::interopNumbers());
        stream.waitAllDataTransfered();
        if (method == kyNetCompression::None) {
            EXPECT_EQ(stream.getCompressedBytes(), stream.getSentBytes());
        } else {
            EXPECT_LT(stream.getCompressedBytes(), stream.getSentBytes() / 2);
        }

        // They overtake each other.
        std::multiset<std::string> sent;
        std::multiset<std::string> received;
        for (std::uint32_t number = 0; number < 2000; ++number) {
            sent.insert(kyTest::contentOf(number));
            kyTest::sendInteropMessage(stream, kyTest::contentOf(number), s_serverRank);
        }
        for (std::size_t i = 0; i < sent.size(); ++i) {
            received.insert(kyTest::recvInteropMessage(stream));
        }
        EXPECT_TRUE(received == sent);
        stream.shutdown();
    }
}
