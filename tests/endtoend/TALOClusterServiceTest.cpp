// The daemon of a node, as operators and clients meet it: a process of its own.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <QByteArray>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/buffers/kyNetOptions.h>
#include <NetBase/links/kyBoundSocketLink.h>
#include <NetBase/links/kySocketAddress.h>
#include <NetBase/links/kySocketLink.h>
#include <NetBase/serialization/kyNetStream.h>
#include <NetBase/service/kyNetServiceCommand.h>
#include <apps/common/ServiceClient.h>
#include <apps/common/SharedKey.h>
#include <tests/apps/kyTestFolder.h>
#include <tests/apps/kyTestKey.h>
#include <tests/support/kyTestChains.h>
#include <tests/support/kyTestChildSystem.h>
#include <tests/support/kyTestProgram.h>
#include <tests/support/kyTestSystem.h>
#include <tests/support/kyTestWait.h>

namespace {

using Key = std::shared_ptr<const SharedKey>;
using Links = std::vector<std::unique_ptr<kySocketLink>>;

std::string daemonPath()
{
    return kyTest::programPath("TALOClusterService");
}

std::string renderServer()
{
    return kyTest::childProgram("kyTestRenderServer");
}

/// A daemon on a port of its own.
class Daemon
{
public:
    explicit Daemon(std::vector<std::string> arguments = {})
        : m_program(daemonPath(), withDefaults(std::move(arguments)))
    {
        const std::string line = m_program.readLine();
        const std::string prefix = "listening on port ";
        EXPECT_EQ(line.substr(0, prefix.size()), prefix);
        m_port = std::stoi(line.substr(prefix.size()));
    }

    int port() const { return m_port; }
    std::string name() const { return "127.0.0.1:" + std::to_string(m_port); }
    ServiceClient client(const Key& key = nullptr) const
    {
        return ServiceClient(NodeAddress{"127.0.0.1", m_port}, std::nullopt, key);
    }
    bool isServing(const Key& key = nullptr) const { return client(key).status().getIsRunning(); }

    std::unique_ptr<kySocketLink> connect() const
    {
        auto link = std::make_unique<kySocketLink>(
            kySocketAddress("127.0.0.1", std::to_string(m_port)), 10.0);
        link->setRecvTimeout(30.0);
        return link;
    }

    std::unique_ptr<kySocketLink> greet() const
    {
        auto link = connect();
        link->signalHPCNetSocket();
        link->setRecvTimeout(30.0);
        return link;
    }

    kyTest::Program& program() { return m_program; }

private:
    static std::vector<std::string> withDefaults(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), {"--port", "0", "--server", renderServer()});
        return arguments;
    }

    kyTest::Program m_program;
    int m_port = 0;
};

/// A conversation with a render server.
class Talk
{
public:
    explicit Talk(const std::shared_ptr<kySocketLink>& link) : m_stream(link)
    {
        link->setRecvTimeout(30.0);
    }

    std::string ask(const std::string& question)
    {
        m_stream << question;
        m_stream.flush();
        std::string answer;
        m_stream >> answer;
        return answer;
    }

    /// Whether the server ends; waits for it.
    bool ends()
    {
        return kyTest::waitUntil([this] {
            try {
                ask("still there");
                return false;
            } catch (const kyConnectionClosed&) {
                return true;
            }
        });
    }

private:
    kyNetStream m_stream;
};

ServiceClient::ServerSettings behaving(const std::string& behaviour)
{
    ServiceClient::ServerSettings settings;
    settings.arguments = behaviour;
    return settings;
}

/// Whether the peer has ended the connection; waits for it.
bool isDropped(kySocketLink& link)
{
    try {
        for (;;) {
            char byte = 0;
            link.recv(&byte, 1);
        }
    } catch (const kyConnectionClosed&) {
        return true;
    } catch (const kyNetError&) {
        return false;
    }
}

std::string failureOf(const std::function<void()>& action)
{
    try {
        action();
        return "";
    } catch (const kyNetError& e) {
        return e.what();
    }
}

constexpr const char* s_stranger = "The other side does not hold this key";
constexpr const char* s_keyNeeded = "This connection needs a key, and none was offered";
constexpr const char* s_noKeyThere = "A key was offered to a side that has none";

/// The key of a cluster, and its file.
class ClusterKey
{
public:
    /// In a folder of its own below this one.
    explicit ClusterKey(
        const std::filesystem::path& parent = std::filesystem::temp_directory_path())
        : m_folder(parent)
    {
    }

    const std::string& file() const { return m_file; }
    const Key& get() const { return m_key; }

    /// What a daemon is started with.
    std::vector<std::string> arguments() const { return {"--key", m_file}; }

private:
    const kyTest::Folder m_folder;
    const std::string m_file = m_folder.writeSecret("key", kyTest::keyText("01") + "\n");
    const Key m_key = kyTest::makeKey(1);
};

ServiceClient throughRelay(const Daemon& far, const Daemon& relay, const Key& key)
{
    return ServiceClient(NodeAddress{"127.0.0.1", far.port()},
                         NodeAddress{"127.0.0.1", relay.port()}, key);
}

/// Ends the daemon and gives what it has logged.
std::string logOf(Daemon& daemon)
{
    daemon.program().terminate();
    const kyTest::ProgramResult result = daemon.program().wait();
    EXPECT_EQ(result.exitCode, 0);
    return result.errors;
}

/// How often a text holds another one.
int countOf(const std::string& text, const std::string& part)
{
    int count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

/// Says the first words of a client with a key.
void sendOffer(kySocketLink& link)
{
    link.send(kyTest::makeBuffer("taloKey1" + std::string(SharedKey::s_size, 'r')));
}

/// The buffers of one status request, as somebody on the way to the daemon sees them.
std::vector<kyTest::Buffer> recordStatus(const Daemon& daemon, const Key& key)
{
    const kyBoundSocketLink listener(0);
    const ServiceClient client(NodeAddress{"127.0.0.1", listener.getAddress().getPort()},
                               std::nullopt, key);
    auto asked = std::async(std::launch::async, [&] { return client.status().getVersion(); });
    kySocketLink near(listener);
    std::uint32_t word = 0;
    near.recv(&word, sizeof(word));
    near.send(&word, sizeof(word));

    const auto far = daemon.greet();
    std::vector<kyTest::Buffer> passed;
    const auto pass = [&passed](kySocketLink& from, kySocketLink& to) {
        passed.emplace_back();
        from.recv(passed.back());
        to.send(passed.back());
    };
    pass(near, *far); // offer
    pass(*far, near); // answer
    pass(near, *far); // proof
    pass(near, *far); // request
    pass(*far, near); // status
    EXPECT_EQ(asked.get(), "11.0");
    return passed;
}

} // namespace

// --- Serving ---

TEST(TALOClusterService, startsServersAndLeadsClientsToThem)
{
    const Daemon daemon;
    const auto started = daemon.client().startServer(behaving(""));
    EXPECT_EQ(started.id, 1U);
    EXPECT_EQ(started.serverCount, 1);
    Talk first(started.link);
    EXPECT_EQ(first.ask("hello"), "hello");

    Talk second(daemon.client().connectServer(started.id));
    EXPECT_EQ(second.ask("process id"), first.ask("process id"));

    daemon.client().stopServer(started.id);
    EXPECT_TRUE(first.ends());
    EXPECT_EQ(daemon.client().status().getNumberOfClusterServers(), 0);
}

TEST(TALOClusterService, stopsTheServersOfABooking)
{
    const Daemon daemon;
    ServiceClient::ServerSettings settings;
    settings.bookingId = "blue";
    Talk booked(daemon.client().startServer(settings).link);
    Talk other(daemon.client().startServer({}).link);
    EXPECT_THAT(daemon.client().status().getBookingIds(), testing::ElementsAre("blue"));
    daemon.client().stopByBooking("blue");
    EXPECT_TRUE(booked.ends());
    EXPECT_EQ(other.ask("here"), "here");
}

TEST(TALOClusterService, emptyBookingIdIsNotSent)
{
    const Daemon daemon;
    Talk talk(daemon.client().startServer({}).link);
    EXPECT_EQ(failureOf([&] { daemon.client().stopByBooking(""); }),
              "127.0.0.1:" + std::to_string(daemon.port()) + ": a booking id must not be empty");
    EXPECT_EQ(talk.ask("here"), "here");
}

TEST(TALOClusterService, clientThatAsksForNothingIsNotWorthALine)
{
    Daemon daemon;
    EXPECT_GE(daemon.client().ping(), 0.0);
    daemon.connect();
    EXPECT_TRUE(daemon.isServing());
    daemon.program().terminate();
    const kyTest::ProgramResult result = daemon.program().wait();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.errors, "");
}

TEST(TALOClusterService, outputOfServersIsLogged)
{
    Daemon daemon;
    Talk talk(daemon.client().startServer(behaving("print")).link);
    EXPECT_EQ(talk.ask("hello"), "hello");
    daemon.program().terminate();
    const kyTest::ProgramResult result = daemon.program().wait();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.errors, testing::HasSubstr("printed\n"));
}

TEST(TALOClusterService, relaysToAnotherDaemon)
{
    const Daemon relay;
    const Daemon far;
    const ServiceClient client(NodeAddress{"127.0.0.1", far.port()},
                               NodeAddress{"127.0.0.1", relay.port()});
    EXPECT_GE(client.ping(), 0.0);
    Talk talk(client.startServer({}).link);
    EXPECT_EQ(talk.ask("hello"), "hello");
    EXPECT_EQ(far.client().status().getNumberOfClusterServers(), 1);
    EXPECT_EQ(relay.client().status().getNumberOfClusterServers(), 0);
}

TEST(TALOClusterService, relayMayBeSilentForLong)
{
    // Longer than a client is waited for with its request.
    const Daemon relay;
    const Daemon far;
    const ServiceClient client(NodeAddress{"127.0.0.1", far.port()},
                               NodeAddress{"127.0.0.1", relay.port()});
    const auto link = client.startServer({}).link;
    Talk talk(link);
    EXPECT_EQ(talk.ask("first"), "first");
    EXPECT_FALSE(link->pollReadable(11.0));
    EXPECT_EQ(talk.ask("later"), "later");
}

TEST(TALOClusterService, startingServersServesOthersMeanwhile)
{
    Daemon daemon;
    auto starting = std::async(std::launch::async, [&] {
        return failureOf([&] { daemon.client().startServer(behaving("deaf")); });
    });
    EXPECT_TRUE(kyTest::waitUntil(
        [&] { return daemon.client().status().getNumberOfClusterServers() == 1; }));
    Talk talk(daemon.client().startServer({}).link);
    EXPECT_EQ(talk.ask("hello"), "hello");
    EXPECT_THROW(talk.ask("exit"), kyConnectionClosed);
    EXPECT_EQ(starting.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    daemon.program().terminate();
    EXPECT_NE(starting.get(), "");
}

TEST(TALOClusterService, newerClientIsRefused)
{
    const Daemon daemon;
    const std::shared_ptr<kySocketLink> link = daemon.greet();
    kyNetStream stream(link);
    stream << kyNetServiceCommand::StartServer << ""
           << "99.0"
           << "";
    stream.flush();
    EXPECT_EQ(failureOf([&] { stream.recvResult(); }),
              "Incompatible versions: TALOClusterService 11.0 request from 99.0");
    EXPECT_TRUE(daemon.isServing());
}

// --- Hostile clients, a good one beside each ---

TEST(TALOClusterService, silentClientKeepsNobodyWaitingAndIsDropped)
{
    const Daemon daemon;
    const auto silent = daemon.connect();
    EXPECT_TRUE(daemon.isServing());
    EXPECT_TRUE(isDropped(*silent));
}

TEST(TALOClusterService, clientSilentAfterItsHandshakeIsDropped)
{
    const Daemon daemon;
    const auto silent = daemon.greet();
    EXPECT_TRUE(daemon.isServing());
    EXPECT_TRUE(isDropped(*silent));
    EXPECT_TRUE(daemon.isServing());
}

TEST(TALOClusterService, tricklingClientIsDropped)
{
    const Daemon daemon;
    const auto trickling = daemon.greet();
    EXPECT_TRUE(daemon.isServing());
    const std::string request(1 << 20, '\0');
    std::size_t sent = 0;
    EXPECT_TRUE(kyTest::waitUntil([&] {
        try {
            // A byte each 50 milliseconds: never silent for long.
            trickling->send(&request[sent++], 1);
            return trickling->pollReadable(0.05) && isDropped(*trickling);
        } catch (const kyConnectionClosed&) {
            return true;
        }
    }));
    EXPECT_GT(sent, 20U);
    EXPECT_TRUE(daemon.isServing());
}

TEST(TALOClusterService, clientThatTakesNoAnswerKeepsNobodyWaiting)
{
    // The answer holds what the client sent, and is more than fits on the way.
    const Daemon daemon;
    const std::shared_ptr<kySocketLink> link = daemon.greet();
    kyNetStream stream(link);
    stream << kyNetServiceCommand::StartServer << "" << std::string(15 << 20, '9') << "";
    stream.flush();
    EXPECT_TRUE(daemon.isServing());
    daemon.client().stopService();
}

TEST(TALOClusterService, requestWithoutEndIsRefused)
{
    const Daemon daemon;
    kyNetStream stream(std::shared_ptr<kySocketLink>(daemon.greet()));
    try {
        stream << kyNetServiceCommand::StartServer << std::string(17 << 20, 'x');
        stream.flush();
    } catch (const kyConnectionClosed&) {
        // The daemon need not wait for the rest.
    }
    EXPECT_THAT(failureOf([&] { stream.recvResult(); }),
                testing::AnyOf("Request too large", "Connection closed"));
    EXPECT_TRUE(daemon.isServing());
}

TEST(TALOClusterService, moreSilentClientsThanPlacesKeepNobodyWaiting)
{
    const Daemon daemon;
    Links silent;
    for (int i = 0; i < 80; ++i) {
        silent.push_back(daemon.greet());
    }
    EXPECT_TRUE(daemon.isServing());
    Talk talk(daemon.client().startServer({}).link);
    EXPECT_EQ(talk.ask("hello"), "hello");
    EXPECT_TRUE(isDropped(*silent.front()));
}

TEST(TALOClusterService, moreClientsWithoutHandshakeThanPlacesKeepNobodyWaiting)
{
    const Daemon daemon;
    Links silent;
    for (int i = 0; i < 70; ++i) {
        silent.push_back(daemon.connect());
    }
    EXPECT_TRUE(daemon.isServing());
}

TEST(TALOClusterService, foreignProtocolIsDropped)
{
    const Daemon daemon;
    for (const std::string text :
         {"GET / HTTP/1.1\r\n\r\n", "SSH-2.0-x\r\n", "\xff\xff\xff\xff", "ab"}) {
        const auto link = daemon.connect();
        link->send(text.data(), text.size());
        EXPECT_TRUE(daemon.isServing());
        EXPECT_TRUE(isDropped(*link)) << text;
    }
}

TEST(TALOClusterService, portScanIsSurvived)
{
    const Daemon daemon;
    for (int i = 0; i < 200; ++i) {
        daemon.connect();
    }
    EXPECT_TRUE(daemon.isServing());
}

TEST(TALOClusterService, garbageAfterTheHandshakeIsAnsweredWithAnError)
{
    const Daemon daemon;
    const std::shared_ptr<kySocketLink> link = daemon.greet();
    const std::string garbage(100, '\xee');
    link->send(garbage.data(), garbage.size());
    kyNetStream stream(link);
    EXPECT_EQ(failureOf([&] { stream.recvResult(); }),
              "Received invalid buffer size. Possibly stream is out of sync.");
    EXPECT_TRUE(daemon.isServing());
}

TEST(TALOClusterService, halfARequestHarmsNobody)
{
    const Daemon daemon;
    const std::string header(20, '\0');
    for (const std::size_t size : {1U, 4U, 19U, 20U}) {
        const auto link = daemon.greet();
        link->send(header.data(), size);
        EXPECT_TRUE(daemon.isServing());
    }
    EXPECT_TRUE(daemon.isServing());
}

TEST(TALOClusterService, unknownCommandIsAnsweredWithAnError)
{
    const Daemon daemon;
    for (const std::uint32_t command : {0U, 8U, 0xffffffffU}) {
        kyNetStream stream(std::shared_ptr<kySocketLink>(daemon.greet()));
        stream << command;
        stream.flush();
        EXPECT_EQ(failureOf([&] { stream.recvResult(); }), "Unknown service command");
    }
    EXPECT_TRUE(daemon.isServing());
}

TEST(TALOClusterService, versionThatIsNoNumberStartsTheOwnServerOrNone)
{
    const Daemon daemon;
    const std::vector<std::string> versions{"new", "../../../bin", std::string(1 << 20, '[')};
    for (const std::string& version : versions) {
        kyNetStream stream(std::shared_ptr<kySocketLink>(daemon.greet()));
        stream << kyNetServiceCommand::StartServer << "" << version << "" << false << false
               << false;
        stream.flush();
        EXPECT_EQ(failureOf([&] { stream.recvResult(); }), "");
        std::uint32_t id = 0;
        std::uint64_t memory = 0;
        std::int32_t count = 0;
        stream >> id >> memory >> count;
        stream << "variable";
        stream.flush();
        std::string variable;
        stream >> variable;
        EXPECT_NE(variable, "");
    }
    EXPECT_TRUE(daemon.isServing());
}

TEST(TALOClusterService, megabyteOfBracketsAsRelayHostHarmsNobody)
{
    const Daemon daemon;
    kyNetStream stream(std::shared_ptr<kySocketLink>(daemon.greet()));
    stream << kyNetServiceCommand::ConnectService << std::string(1 << 20, '[')
           << std::uint32_t{8889};
    stream.flush();
    EXPECT_TRUE(daemon.isServing());
    bool isConnected = true;
    stream >> isConnected;
    EXPECT_FALSE(isConnected);
}

TEST(TALOClusterService, lackOfDescriptorsIsReportedAndWaitedOut)
{
    std::unique_ptr<Daemon> daemon;
    {
        const kyTest::DescriptorLimit limit(24); // the daemon's
        daemon = std::make_unique<Daemon>();
    }
    {
        // Sanitizers look at the type of an exception once, and need a descriptor for that.
        kyNetStream stream(std::shared_ptr<kySocketLink>(daemon->greet()));
        stream << std::uint32_t{0};
        stream.flush();
        EXPECT_NE(failureOf([&] { stream.recvResult(); }), "");
    }
    Links silent;
    for (int i = 0; i < 60; ++i) {
        silent.push_back(daemon->connect());
    }
    EXPECT_TRUE(daemon->isServing());
    silent.clear();
    daemon->program().terminate();
    const kyTest::ProgramResult result = daemon->program().wait();
    EXPECT_EQ(result.exitCode, 0);
    const std::string report = "Unable to accept incomming connection. ";
    EXPECT_THAT(result.errors, testing::HasSubstr(report));
    EXPECT_EQ(result.errors.find(report), result.errors.rfind(report));
}

// --- Who is served ---

TEST(TALOClusterService, clientFromElsewhereIsDroppedUnread)
{
    Daemon daemon({"--allow", "10.0.0.0/8", "--allow", "fd00::/8"});
    const auto link = daemon.connect();
    EXPECT_THROW(
        {
            link->signalHPCNetSocket();
            link->recv(nullptr, 1);
        },
        kyConnectionClosed);
    daemon.program().terminate();
    EXPECT_EQ(daemon.program().wait().exitCode, 0);
}

TEST(TALOClusterService, clientsOfEveryAllowedRangeAreServed)
{
    const Daemon daemon({"--allow", "10.0.0.0/8", "--allow", "127.0.0.1"});
    EXPECT_TRUE(daemon.isServing());
}

TEST(TALOClusterService, loopbackIsServedOverBothFamilies)
{
    const Daemon daemon;
    EXPECT_TRUE(daemon.isServing());
    try {
        const kyBoundSocketLink probe(0);
        const kySocketLink ipv6(
            kySocketAddress("::1", std::to_string(probe.getAddress().getPort())), 5.0);
    } catch (const kyNetError&) {
        GTEST_SKIP() << "This machine has no IPv6.";
    }
    EXPECT_TRUE(ServiceClient(NodeAddress{"::1", daemon.port()}).status().getIsRunning());
}

// --- The end ---

TEST(TALOClusterService, stopRequestEndsTheDaemonAndItsServers)
{
    Daemon daemon;
    Talk talk(daemon.client().startServer({}).link);
    daemon.client().stopService();
    EXPECT_EQ(daemon.program().wait().exitCode, 0);
    EXPECT_TRUE(talk.ends());
}

TEST(TALOClusterService, terminationLeavesNoServers)
{
    Daemon daemon;
    Talk first(daemon.client().startServer({}).link);
    Talk second(daemon.client().startServer({}).link);
    EXPECT_EQ(first.ask("hello"), "hello");
    daemon.program().terminate();
    const kyTest::ProgramResult result = daemon.program().wait();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_TRUE(first.ends());
    EXPECT_TRUE(second.ends());
}

TEST(TALOClusterService, interruptionEndsLikeTermination)
{
    Daemon daemon;
    Talk talk(daemon.client().startServer({}).link);
    daemon.program().interrupt();
    EXPECT_EQ(daemon.program().wait().exitCode, 0);
    EXPECT_TRUE(talk.ends());
}

TEST(TALOClusterService, terminationEndsServersThatIgnoreIt)
{
    Daemon daemon;
    Talk stubborn(daemon.client().startServer(behaving("stubborn")).link);
    EXPECT_EQ(stubborn.ask("hello"), "hello");
    daemon.program().terminate();
    EXPECT_EQ(daemon.program().wait().exitCode, 0);
    EXPECT_TRUE(stubborn.ends());
}

TEST(TALOClusterService, terminationEndsServersThatNeverTakeTheirClient)
{
    Daemon daemon;
    auto starting = std::async(std::launch::async, [&] {
        return failureOf([&] { daemon.client().startServer(behaving("deaf")); });
    });
    EXPECT_TRUE(kyTest::waitUntil(
        [&] { return daemon.client().status().getNumberOfClusterServers() == 1; }));
    daemon.program().terminate();
    EXPECT_EQ(daemon.program().wait().exitCode, 0);
    EXPECT_NE(starting.get(), "");
}

TEST(TALOClusterService, terminationEndsADaemonWithoutAFreePlace)
{
    // One server that takes nobody is enough to keep everybody who wants to be connected to it.
    Daemon daemon;
    auto starting = std::async(std::launch::async, [&] {
        return failureOf([&] { daemon.client().startServer(behaving("deaf")); });
    });
    EXPECT_TRUE(kyTest::waitUntil(
        [&] { return daemon.client().status().getNumberOfClusterServers() == 1; }));
    Links connecting;
    for (int i = 0; i < 63; ++i) {
        std::shared_ptr<kySocketLink> link = daemon.greet();
        kyNetStream stream(link);
        stream << kyNetServiceCommand::ConnectServer << std::uint32_t{1};
        stream.flush();
        connecting.push_back(std::make_unique<kySocketLink>(link->takeDescriptor()));
    }
    // Nobody is left to greet this one.
    Links waiting;
    waiting.push_back(daemon.connect());
    waiting.push_back(daemon.connect());
    daemon.program().terminate();
    EXPECT_EQ(daemon.program().wait().exitCode, 0);
    EXPECT_NE(starting.get(), "");
}

TEST(TALOClusterService, terminationDoesNotWaitForSilentClients)
{
    Daemon daemon;
    const auto silent = daemon.greet();
    const auto unknown = daemon.connect();
    daemon.program().terminate();
    EXPECT_EQ(daemon.program().wait().exitCode, 0);
    EXPECT_TRUE(isDropped(*silent));
}

// --- Keys ---

TEST(TALOClusterService, clientsThatHoldTheKeyAreServed)
{
    const ClusterKey key;
    Daemon daemon(key.arguments());
    EXPECT_GT(daemon.client(key.get()).ping(), 0.0);
    EXPECT_TRUE(daemon.isServing(key.get()));
    const auto started = daemon.client(key.get()).startServer(behaving(""));
    Talk first(started.link);
    EXPECT_EQ(first.ask("hello"), "hello");
    Talk second(daemon.client(key.get()).connectServer(started.id));
    EXPECT_EQ(second.ask("process id"), first.ask("process id"));
    EXPECT_EQ(failureOf([&] { daemon.client(key.get()).stopServer(77); }),
              daemon.name() + ": Unknown server:77");
    daemon.client(key.get()).stopServer(started.id);
    EXPECT_TRUE(first.ends());
    EXPECT_EQ(logOf(daemon), "");
}

TEST(TALOClusterService, clientWithAnotherKeyIsRefused)
{
    const ClusterKey key;
    Daemon daemon(key.arguments());
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(failureOf([&] { daemon.client(kyTest::makeKey(2)).stopService(); }),
                  daemon.name() + ": " + s_stranger);
    }
    EXPECT_TRUE(daemon.isServing(key.get()));
    // Once, however often it comes.
    EXPECT_EQ(countOf(logOf(daemon), std::string("Refused client 127.0.0.1: ") + s_stranger), 1);
}

TEST(TALOClusterService, clientWithoutKeyIsRefused)
{
    const ClusterKey key;
    Daemon daemon(key.arguments());
    const std::string failure = daemon.name() + ": " + s_keyNeeded;
    EXPECT_EQ(failureOf([&] { daemon.client().status(); }), failure);
    EXPECT_EQ(failureOf([&] { daemon.client().stopService(); }), failure);
    EXPECT_EQ(failureOf([&] { daemon.client().stopServer(1); }), failure);
    EXPECT_EQ(failureOf([&] { daemon.client().startServer(behaving("")); }), failure);
    EXPECT_EQ(daemon.client(key.get()).status().getNumberOfClusterServers(), 0);
    EXPECT_EQ(countOf(logOf(daemon), std::string("Refused client 127.0.0.1: ") + s_keyNeeded), 1);
}

TEST(TALOClusterService, serviceWithoutKeyTurnsAnOfferDown)
{
    Daemon daemon;
    EXPECT_EQ(failureOf([&] { daemon.client(kyTest::makeKey(1)).status(); }),
              daemon.name() + ": " + s_noKeyThere);
    EXPECT_TRUE(daemon.isServing());
    EXPECT_EQ(countOf(logOf(daemon), std::string("Refused client 127.0.0.1: ") + s_noKeyThere), 1);
}

TEST(TALOClusterService, relayAndNodeBothProveThemselves)
{
    const ClusterKey key;
    const Daemon relay(key.arguments());
    const Daemon far(key.arguments());
    const ServiceClient client = throughRelay(far, relay, key.get());
    EXPECT_GT(client.ping(), 0.0);
    Talk talk(client.startServer({}).link);
    EXPECT_EQ(talk.ask("hello"), "hello");
    EXPECT_EQ(client.status().getNumberOfClusterServers(), 1);
    EXPECT_EQ(relay.client(key.get()).status().getNumberOfClusterServers(), 0);
}

TEST(TALOClusterService, eitherEndOfARelayTellsWhatIsWrongWithTheKey)
{
    const ClusterKey key;
    const Daemon relay(key.arguments());
    const Daemon far(key.arguments());
    const Daemon open;
    const auto failureThrough = [](const Daemon& node, const Daemon& way, const Key& held) {
        const std::string failure = failureOf([&] { throughRelay(node, way, held).status(); });
        const std::string prefix = node.name() + " through " + way.name() + ": ";
        EXPECT_EQ(failure.substr(0, prefix.size()), prefix);
        return failure.substr(prefix.size());
    };
    EXPECT_EQ(failureThrough(far, relay, nullptr), s_keyNeeded);
    EXPECT_EQ(failureThrough(far, relay, kyTest::makeKey(2)), s_stranger);
    EXPECT_EQ(failureThrough(far, open, key.get()), s_noKeyThere);
    EXPECT_EQ(failureThrough(open, relay, key.get()), s_noKeyThere);
    EXPECT_EQ(failureThrough(far, open, nullptr), s_keyNeeded);
}

TEST(TALOClusterService, requestsAndAnswersAreHidden)
{
    const ClusterKey key;
    const Daemon daemon(key.arguments());
    const auto passed = recordStatus(daemon, key.get());
    EXPECT_EQ(kyTest::dataOf(*passed[4]).find("11.0"), std::string::npos);
    EXPECT_NE(kyTest::toHex(*passed[3]), "06 00 00 00");
}

TEST(TALOClusterService, recordedClientIsRefused)
{
    const ClusterKey key;
    Daemon daemon(key.arguments());
    const auto passed = recordStatus(daemon, key.get());
    const auto link = daemon.greet();
    link->send(passed[0]);
    kyTest::Buffer challenge;
    link->recv(challenge);
    EXPECT_NE(kyTest::dataOf(*challenge), kyTest::dataOf(*passed[1]));
    link->send(passed[2]);
    link->send(passed[3]);
    EXPECT_TRUE(isDropped(*link));
    EXPECT_EQ(countOf(logOf(daemon), s_stranger), 1);
}

TEST(TALOClusterService, proofOfTheServiceItselfIsRefused)
{
    const ClusterKey key;
    const Daemon daemon(key.arguments());
    const auto link = daemon.greet();
    sendOffer(*link);
    kyTest::Buffer challenge;
    link->recv(challenge);
    // Its result, its random bytes, its proof.
    link->send(kyTest::makeBuffer(kyTest::dataOf(*challenge).substr(33)));
    EXPECT_TRUE(isDropped(*link));
    EXPECT_TRUE(daemon.isServing(key.get()));
}

TEST(TALOClusterService, garbageInsteadOfAnOfferIsDropped)
{
    const ClusterKey key;
    const Daemon daemon(key.arguments());
    for (const std::size_t size : {20U, 100U, 1U << 20}) {
        const auto link = daemon.greet();
        const std::string garbage(size, '\xee');
        try {
            link->send(garbage.data(), garbage.size());
        } catch (const kyConnectionClosed&) {
            // It need not wait for the rest.
        }
        EXPECT_TRUE(daemon.isServing(key.get()));
        EXPECT_TRUE(isDropped(*link));
    }
}

TEST(TALOClusterService, clientsThatStopInTheirExchangeKeepNobodyWaiting)
{
    const ClusterKey key;
    const Daemon daemon(key.arguments());
    Links silent;
    for (int i = 0; i < 80; ++i) {
        silent.push_back(daemon.greet());
        sendOffer(*silent.back());
    }
    EXPECT_TRUE(daemon.isServing(key.get()));
    EXPECT_TRUE(isDropped(*silent.front()));
    EXPECT_TRUE(isDropped(*silent.back())); // after the time that a client is waited for
}

TEST(TALOClusterService, floodOfStrangersFillsNoLog)
{
    const ClusterKey key;
    Daemon daemon(key.arguments());
    for (int i = 0; i < 50; ++i) {
        daemon.greet()->send(kyTest::makeBuffer("request"));
    }
    EXPECT_TRUE(daemon.isServing(key.get()));
    EXPECT_LE(countOf(logOf(daemon), "Refused client"), 1);
}

TEST(TALOClusterService, terminationDoesNotWaitForAnExchange)
{
    const ClusterKey key;
    Daemon daemon(key.arguments());
    const auto silent = daemon.greet();
    sendOffer(*silent);
    kyTest::Buffer challenge;
    silent->recv(challenge);
    EXPECT_EQ(logOf(daemon), "");
    EXPECT_TRUE(isDropped(*silent));
}

TEST(TALOClusterService, serversLearnTheKeyFileWhereverTheyRun)
{
    // A path from here leads only to folders of the same drive.
    const ClusterKey key(std::filesystem::current_path());
    const std::string relative = std::filesystem::relative(key.file()).string();
    const Daemon daemon({"--key", relative});
    Talk talk(daemon.client(key.get()).startServer({}).link);
    const std::filesystem::path told = talk.ask("key file");
    EXPECT_TRUE(told.is_absolute()) << told;
    EXPECT_TRUE(std::filesystem::equivalent(told, key.file())) << told;
}

TEST(TALOClusterService, serversOfAServiceWithoutKeyLearnNone)
{
    qputenv(SharedKey::s_fileVariable, "/somebody/else's");
    const Daemon daemon;
    qunsetenv(SharedKey::s_fileVariable);
    Talk talk(daemon.client().startServer({}).link);
    EXPECT_EQ(talk.ask("key file"), "");
}

TEST(TALOClusterService, keyFileThatIsNoneIsAFailure)
{
    const kyTest::Folder folder;
    const std::string path = folder.writeSecret("key", "secret");
    const kyTest::ProgramResult result =
        kyTest::runProgram(daemonPath(), {"--port", "0", "--key", path});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.errors, testing::HasSubstr("TALOClusterService: Key file '" + path +
                                                  "' does not hold 64 hexadecimal digits\n"));
    EXPECT_EQ(kyTest::runProgram(daemonPath(), {"--port", "0", "--key", ""}).exitCode, 1);
    EXPECT_EQ(kyTest::runProgram(daemonPath(), {"--port", "0", "--key"}).exitCode, 2);
}

// --- The command line ---

TEST(TALOClusterService, takenPortIsAFailure)
{
    const Daemon daemon;
    const std::string port = std::to_string(daemon.port());
    const kyTest::ProgramResult result = kyTest::runProgram(daemonPath(), {"--port", port});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.errors, testing::HasSubstr("Unable to bind to port " + port + ". "));
}

TEST(TALOClusterService, wrongUsageIsToldByItsExitCode)
{
    const std::vector<std::vector<std::string>> wrong{
        {"--port", "70000"}, {"--port", "-1"},          {"--port", "x"},
        {"--port"},          {"--allow", "somewhere"},  {"--allow", "10.0.0.0/33"},
        {"--allow", ""},     {"--allow", "10.0.0.0/x"}, {"--no-such-option"},
        {"surplus"},
    };
    for (const auto& arguments : wrong) {
        const kyTest::ProgramResult result = kyTest::runProgram(daemonPath(), arguments);
        EXPECT_EQ(result.exitCode, 2) << arguments.front();
        EXPECT_NE(result.errors, "");
    }
}

TEST(TALOClusterService, helpAndVersionArePrinted)
{
    const kyTest::ProgramResult help = kyTest::runProgram(daemonPath(), {"--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_THAT(help.output, testing::HasSubstr("--allow"));
    const kyTest::ProgramResult version = kyTest::runProgram(daemonPath(), {"--version"});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.output, "11.0\n");
}

TEST(TALOClusterService, quietDaemonPrintsNothing)
{
    // Its port has to be known beforehand.
    int port = 0;
    {
        const kyBoundSocketLink free(0);
        port = free.getAddress().getPort();
    }
    kyTest::Program program(
        daemonPath(), {"--port", std::to_string(port), "--quiet", "--server", renderServer()});
    const ServiceClient client(NodeAddress{"127.0.0.1", port});
    EXPECT_TRUE(kyTest::waitUntil(
        [&] { return failureOf([&] { client.startServer(behaving("print")); }) == ""; }));
    program.terminate();
    const kyTest::ProgramResult result = program.wait();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "");
}
