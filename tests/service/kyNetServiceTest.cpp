#include <NetBase/service/kyNetService.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/buffers/kyNetHeader.h>
#include <NetBase/buffers/kyNetOptions.h>
#include <NetBase/links/kyBoundSocketLink.h>
#include <NetBase/links/kySocketAddress.h>
#include <NetBase/links/kySocketLink.h>
#include <NetBase/links/kySocketPipe.h>
#include <NetBase/serialization/kyNetStream.h>
#include <NetBase/service/kyNetServerProcess.h>
#include <NetBase/service/kyNetServiceCommand.h>
#include <NetBase/service/kyNetServiceStatus.h>
#include <QtProcess/exProcess.h>
#include <VersionInfo/kyVersionInfo.h>
#include <tests/links/kyLinkFixtures.h>
#include <tests/support/kyTestChains.h>
#include <tests/support/kyTestChildSystem.h>
#include <tests/support/kyTestLog.h>
#include <tests/support/kyTestRawPipe.h>
#include <tests/support/kyTestSystem.h>
#include <tests/support/kyTestWait.h>

namespace {

using Command = kyNetServiceCommand;
using kyTest::LogCapture;

std::string renderServer()
{
    return kyTest::childProgram("kyTestRenderServer");
}

/// A service that runs on a port of its own.
class Host
{
public:
    explicit Host(const std::string& serverPath = renderServer()) : service(0, serverPath)
    {
        service.listen();
        m_runner = std::thread([this] {
            service.run();
            m_isOver = true;
        });
    }

    ~Host()
    {
        service.shutdown();
        m_runner.join();
    }

    bool isOver() const { return m_isOver; }
    int port() const { return service.getPort(); }

    kyNetService service;

private:
    std::atomic<bool> m_isOver{false};
    std::thread m_runner;
};

kySocketAddress localAddress(int port)
{
    return kySocketAddress("127.0.0.1", std::to_string(port));
}

/// A client of a service, its handshake done.
struct Client
{
    explicit Client(int port)
        : link(std::make_shared<kySocketLink>(localAddress(port), 5.0)), stream(link)
    {
        link->signalHPCNetSocket();
        link->setRecvTimeout(30.0);
    }

    /// The text that the render server behind the connection answers with.
    std::string ask(const std::string& question)
    {
        stream << question;
        stream.flush();
        std::string answer;
        stream >> answer;
        return answer;
    }

    /// Sends what was written and waits for the service to say that it succeeded.
    void await()
    {
        stream.flush();
        stream.recvResult();
    }

    std::shared_ptr<kySocketLink> link;
    kyNetStream stream;
};

/// Whether the render server behind the connection ends; waits for it.
bool losesItsServer(Client& client)
{
    return kyTest::waitUntil([&] {
        try {
            client.ask("still there");
            return false;
        } catch (const kyConnectionClosed&) {
            return true;
        }
    });
}

/// What a start request holds, in the form of the version it names.
struct Start
{
    std::string arguments = "";
    std::string version = "11.0";
    bool hasDisplay = false;
    bool flagZ = false;
    bool flagT = false;
    bool flagTA = false;
    std::string bookingId = "";
    bool isStereo = false;
};

enum class Fields
{
    UpTo8,
    Display,
    Booking,
    Stereo
};

void writeStart(kyNetStream& stream, const Start& start, Fields fields = Fields::Stereo)
{
    stream << Command::StartServer << start.arguments << start.version << "not used";
    if (fields >= Fields::Display) {
        stream << start.hasDisplay;
    }
    stream << start.flagZ << start.flagT << start.flagTA;
    if (fields >= Fields::Booking) {
        stream << start.bookingId;
    }
    if (fields >= Fields::Stereo) {
        stream << start.isStereo;
    }
}

struct Started
{
    std::uint32_t id = 0;
    std::uint64_t freeMemory = 0;
    std::int32_t serverCount = 0;
};

Started awaitStarted(Client& client)
{
    client.await();
    Started started;
    client.stream >> started.id >> started.freeMemory >> started.serverCount;
    return started;
}

Started start(Client& client, const Start& request = {}, Fields fields = Fields::Stereo)
{
    writeStart(client.stream, request, fields);
    return awaitStarted(client);
}

/// Sends a start request to which the server behaves so that there is no answer yet.
void beginStart(Client& client, const std::string& behaviour)
{
    Start request;
    request.arguments = behaviour;
    writeStart(client.stream, request);
    client.stream.flush();
}

/// The text of the exception that ends the action, "" if none does.
std::string failureOf(const std::function<void()>& action)
{
    try {
        action();
        return "";
    } catch (const kyNetError& e) {
        return e.what();
    }
}

void stopServer(int port, std::uint32_t id)
{
    Client client(port);
    client.stream << Command::StopServer << id;
    client.await();
}

void stopBooking(int port, const std::string& bookingId)
{
    Client client(port);
    client.stream << Command::StopServersByBookingId << bookingId;
    client.await();
}

kyNetServiceStatus statusOf(int port)
{
    Client client(port);
    client.stream << Command::GetStatus;
    client.await();
    kyNetServiceStatus status;
    client.stream >> status;
    return status;
}

bool isServed(int port)
{
    return statusOf(port).getIsRunning();
}

/// Connects a client to the service behind a relay.
bool relayTo(Client& client, const std::string& host, std::uint32_t port)
{
    client.stream << Command::ConnectService << host << port;
    client.stream.flush();
    bool isConnected = false;
    client.stream >> isConnected;
    return isConnected;
}

/// Accepts a connection and answers its handshake, as a service that then does nothing.
std::shared_ptr<kySocketLink> acceptClient(const kyBoundSocketLink& listener)
{
    auto link = std::make_shared<kySocketLink>(listener);
    std::uint32_t word = 0;
    link->recv(&word, sizeof(word));
    link->send(&word, sizeof(word));
    link->setRecvTimeout(30.0);
    return link;
}

} // namespace

// --- The loop ---

TEST(kyNetService, portIsTheOneBoundAfterListen)
{
    kyNetService service(0, "");
    EXPECT_EQ(service.getPort(), 0);
    service.listen();
    EXPECT_GT(service.getPort(), 0);
}

TEST(kyNetService, runListensByItself)
{
    kyNetService service(0, "");
    std::thread runner([&] { service.run(); });
    EXPECT_TRUE(kyTest::waitUntil([&] { return service.getPort() != 0; }));
    EXPECT_TRUE(isServed(service.getPort()));
    service.shutdown();
    runner.join();
}

TEST(kyNetService, runOnATakenPortIsLoggedAndReturns)
{
    kyNetService first(0, "");
    first.listen();
    const LogCapture log;
    kyNetService second(first.getPort(), "");
    second.run();
    ASSERT_EQ(log.texts().size(), 1U);
    EXPECT_THAT(log.texts()[0], testing::StartsWith("Unable to bind to port " +
                                                    std::to_string(first.getPort()) + ". "));
}

TEST(kyNetService, everyHandshakeWordIsEchoed)
{
    Host host;
    kySocketLink link(localAddress(host.port()), 5.0);
    link.setRecvTimeout(30.0);
    const std::uint32_t word = 0xdeadbeef;
    link.send(&word, sizeof(word));
    std::uint32_t echo = 0;
    link.recv(&echo, sizeof(echo));
    EXPECT_EQ(echo, word);
}

TEST(kyNetService, handshakeInPiecesIsEchoed)
{
    Host host;
    kySocketLink link(localAddress(host.port()), 5.0);
    link.setRecvTimeout(30.0);
    const std::string word = "abcd";
    for (const char& byte : word) {
        link.send(&byte, 1);
    }
    std::string echo(4, ' ');
    link.recv(echo.data(), echo.size());
    EXPECT_EQ(echo, word);
}

// The accept and the echo are not guarded as requests are; this is intended.
TEST(kyNetService, clientThatLeavesBeforeItsHandshakeEndsRunSilently)
{
    const LogCapture log;
    Host host;
    {
        kySocketLink link(localAddress(host.port()), 5.0);
        link.send("ab", 2);
    }
    EXPECT_TRUE(kyTest::waitUntil([&] { return host.isOver(); }));
    EXPECT_THAT(log.texts(), testing::IsEmpty());
}

TEST(kyNetService, failingAcceptEndsRunWithALogLine)
{
    const LogCapture log;
    kyNetService service(0, "");
    service.listen();
    // Sanitizers look at each type once, and need a descriptor for that: so the whole road is gone
    // before.
    kySocketLink(localAddress(service.getPort()), 5.0).shutdown();
    service.run();
    kyNetService(service.getPort(), "").run();

    const kySocketLink client(localAddress(service.getPort()), 5.0);
    {
        const kyTest::DescriptorLimit limit(kyTest::nextDescriptor());
        service.run();
    }
    ASSERT_EQ(log.texts().size(), 2U);
    EXPECT_THAT(log.texts()[1],
                testing::StartsWith("Unable to accept incomming connection. " +
                                    std::to_string(kyTest::getNoDescriptorCode()) + ":"));
}

TEST(kyNetService, stopRequestIsAnsweredAndEndsRun)
{
    Host host;
    Client client(host.port());
    client.stream << Command::StopService;
    client.await();
    EXPECT_TRUE(kyTest::waitUntil([&] { return host.isOver(); }));
    EXPECT_THROW(Client(host.port()), kyNetError);
}

TEST(kyNetService, serversOutliveAStopRequest)
{
    Host host;
    Client client(host.port());
    start(client);
    Client other(host.port());
    other.stream << Command::StopService;
    other.await();
    EXPECT_TRUE(kyTest::waitUntil([&] { return host.isOver(); }));
    EXPECT_EQ(host.service.serverCount(), 1);
    EXPECT_EQ(client.ask("still there"), "still there");
}

TEST(kyNetService, shutdownEndsRunAndAsksServersToEnd)
{
    Host host;
    Client client(host.port());
    start(client);
    host.service.shutdown();
    EXPECT_EQ(host.service.serverCount(), 0);
    EXPECT_TRUE(kyTest::waitUntil([&] { return host.isOver(); }));
    EXPECT_TRUE(losesItsServer(client));
}

TEST(kyNetService, shutdownBeforeListeningDoesNothing)
{
    kyNetService service(0, "");
    service.shutdown();
    EXPECT_EQ(service.serverCount(), 0);
}

TEST(kyNetService, runAgainAfterShutdownListensNoMore)
{
    kyNetService service(0, "");
    service.listen();
    service.shutdown();
    service.run(); // returns
    EXPECT_THROW(Client(service.getPort()), kyNetError);
}

TEST(kyNetService, runAfterShutdownReturnsThoughItNeverListened)
{
    // Else a shutdown that comes just before run() would be lost.
    const LogCapture log;
    kyNetService service(0, "");
    service.shutdown();
    auto running = std::async(std::launch::async, [&] { service.run(); });
    EXPECT_EQ(running.wait_for(kyTest::s_patience), std::future_status::ready);
    EXPECT_THAT(log.texts(), testing::IsEmpty());
    if (running.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
        service.shutdown();
    }
}

// --- Starting servers ---

TEST(kyNetService, startAnswersIdMemoryAndCountAndLeadsToTheServer)
{
    Host host;
    Client client(host.port());
    const Started started = start(client);
    EXPECT_EQ(started.id, 1U);
    EXPECT_GT(started.freeMemory, 0U);
    EXPECT_EQ(started.serverCount, 1);
    EXPECT_EQ(client.ask("hello"), "hello");
}

TEST(kyNetService, serverGetsTheClientsSwitches)
{
    Host host;
    Client client(host.port());
    Start request;
    request.arguments = "scene one";
    request.hasDisplay = true;
    request.isStereo = true;
    request.flagZ = true;
    request.flagT = true;
    request.flagTA = true;
    start(client, request);
    EXPECT_EQ(client.ask("command line"),
              "[-Z][-s][-ta][-socketpipe=" + client.ask("pipe") + "][scene one]");
    EXPECT_TRUE(kyNetService::inProcessHasDisplay());
    EXPECT_TRUE(kyNetService::inProcessIsStereo());
}

TEST(kyNetService, versionsBefore9CarryNeitherDisplayBookingNorStereo)
{
    Host host;
    for (const char* version : {"8.5", "8.9", "8.9998", "SR1", "SR1.SP2", "SR13", "", "new"}) {
        Client client(host.port());
        Start request;
        request.version = version;
        request.flagT = true;
        start(client, request, Fields::UpTo8);
        // Versions before 9 find their pipe in the environment.
        EXPECT_EQ(client.ask("command line"), "[-P][-t][]") << version;
        EXPECT_NE(client.ask("variable"), "") << version;
        EXPECT_FALSE(kyNetService::inProcessHasDisplay());
        EXPECT_FALSE(kyNetService::inProcessIsStereo());
    }
    EXPECT_THAT(host.service.bookingIds(), testing::IsEmpty());
}

TEST(kyNetService, versionsFrom9CarryDisplayOnly)
{
    Host host;
    for (const char* version : {"8.99995", "9.0", "9.1", "9.1998"}) {
        Client client(host.port());
        Start request;
        request.version = version;
        request.hasDisplay = true;
        request.flagZ = true;
        start(client, request, Fields::Display);
        EXPECT_EQ(client.ask("command line").substr(0, 4), "[-Z]") << version;
        EXPECT_EQ(client.ask("command line").find("[-P]"), std::string::npos) << version;
        EXPECT_TRUE(kyNetService::inProcessHasDisplay());
        EXPECT_FALSE(kyNetService::inProcessIsStereo());
    }
    EXPECT_THAT(host.service.bookingIds(), testing::IsEmpty());
}

TEST(kyNetService, versionsFrom92CarryTheBookingIdButNoStereo)
{
    Host host;
    std::vector<std::shared_ptr<Client>> clients;
    for (const char* version : {"9.2", "9.5", "9.9998"}) {
        clients.push_back(std::make_shared<Client>(host.port()));
        Start request;
        request.version = version;
        request.hasDisplay = true;
        request.bookingId = version;
        start(*clients.back(), request, Fields::Booking);
        EXPECT_EQ(clients.back()->ask("command line").find("[-s]"), std::string::npos);
        EXPECT_FALSE(kyNetService::inProcessIsStereo());
    }
    EXPECT_THAT(host.service.bookingIds(), testing::ElementsAre("9.2", "9.5", "9.9998"));
}

TEST(kyNetService, versionsFrom10CarryEverything)
{
    Host host;
    for (const char* version : {"9.99995", "10.0", "10.5", "11.0"}) {
        Client client(host.port());
        Start request;
        request.version = version;
        request.hasDisplay = true;
        request.isStereo = true;
        start(client, request, Fields::Stereo);
        EXPECT_EQ(client.ask("command line").substr(0, 4), "[-s]") << version;
        EXPECT_TRUE(kyNetService::inProcessIsStereo());
    }
}

TEST(kyNetService, newerClientIsRefusedAndNoServerStarts)
{
    Host host;
    Client client(host.port());
    Start request;
    request.version = "11.1";
    EXPECT_EQ(failureOf([&] { start(client, request); }),
              "Incompatible versions: TALOClusterService 11.0 request from 11.1");
    EXPECT_EQ(host.service.serverCount(), 0);
    Client next(host.port());
    EXPECT_EQ(start(next).id, 1U);
}

TEST(kyNetService, megabyteOfDigitsAsVersionIsAnErrorForThatClientOnly)
{
    Host host;
    Client client(host.port());
    Start request;
    request.version = std::string(1 << 20, '9');
    EXPECT_EQ(failureOf([&] { start(client, request); }),
              "Incompatible versions: TALOClusterService 11.0 request from " + request.version);
    EXPECT_TRUE(isServed(host.port()));
}

TEST(kyNetService, pathAsVersionStartsNoForeignProgram)
{
    // No explicit server and no executable beside the test: the version alone could lead to one.
    Host host("");
    for (const std::string version :
         {"1.5/../../children", "../..", "/usr/bin", "8.5\n", "SR1/../SP2"}) {
        Client client(host.port());
        Start request;
        request.version = version;
        EXPECT_THAT(failureOf([&] { start(client, request, Fields::UpTo8); }),
                    testing::AllOf(testing::StartsWith("Error starting process '"),
                                   testing::Not(testing::HasSubstr(version))));
    }
    EXPECT_TRUE(isServed(host.port()));
    EXPECT_EQ(host.service.serverCount(), 0);
}

TEST(kyNetService, missingExecutableIsLoggedAndToldToTheClient)
{
    const LogCapture log;
    Host host("");
    Client client(host.port());
    const std::string failure = failureOf([&] { start(client); });
    EXPECT_THAT(failure, testing::AllOf(testing::StartsWith("Error starting process '"),
                                        testing::EndsWith("'. File not found or insufficient "
                                                          "permission to start.")));
    EXPECT_THAT(log.texts(), testing::ElementsAre("Failed to start server: " + failure + "\n"));
}

TEST(kyNetService, serverThatEndsAtOnceIsAnErrorAtOnceAndLeavesNoEntry)
{
    const LogCapture log;
    Host host;
    const auto begin = std::chrono::steady_clock::now();
    Client client(host.port());
    Start request;
    request.arguments = "leave";
    EXPECT_EQ(failureOf([&] { start(client, request); }), "Failed to connect started server");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(8));
    EXPECT_THAT(log.texts(),
                testing::ElementsAre("Failed to start server: Failed to connect started server\n"));

    Client other(host.port());
    other.stream << Command::StopServer << std::uint32_t{1};
    EXPECT_EQ(failureOf([&] { other.await(); }), "Unknown server:1");
}

TEST(kyNetService, serverThatDiesInTheHandOverIsAnErrorAndLeavesNoEntry)
{
    Host host(kyTest::childProgram());
    const std::vector<std::pair<std::string, std::string>> deaths{
        {"die-before-process-id", "Unable to read process id"},
        {"die-in-process-id", "Unable to read process id"},
        {"die-before-acknowledgement", "Error on socket transfer to server"}};
    const LogCapture log;
    for (const auto& [death, message] : deaths) {
        Client client(host.port());
        Start request;
        request.arguments = death;
        EXPECT_EQ(failureOf([&] { start(client, request); }), message);
    }
    EXPECT_EQ(host.service.serverCount(), 0);
}

TEST(kyNetService, idsCountFrom1AndAreNeverReused)
{
    Host host;
    {
        Client first(host.port());
        EXPECT_EQ(start(first).id, 1U);
        Client second(host.port());
        EXPECT_EQ(start(second).id, 2U);
    }
    stopServer(host.port(), 2);
    {
        const LogCapture log;
        Client failing(host.port());
        Start request;
        request.arguments = "leave";
        EXPECT_NE(failureOf([&] { start(failing, request); }), "");
    }
    Client next(host.port());
    const Started started = start(next);
    EXPECT_EQ(started.id, 4U);
    EXPECT_EQ(started.serverCount, 2);
}

TEST(kyNetService, finishedServersAreRemovedByTheNextStart)
{
    Host host;
    Client client(host.port());
    start(client);
    EXPECT_THROW(client.ask("exit"), kyConnectionClosed);
    EXPECT_TRUE(kyTest::waitUntil([&] { return host.service.serverCount() == 0; }));
    Client next(host.port());
    EXPECT_EQ(start(next).serverCount, 1);
    Client other(host.port());
    other.stream << Command::ConnectServer << std::uint32_t{1};
    EXPECT_EQ(failureOf([&] { other.await(); }), "Unknown server:1");
}

TEST(kyNetService, stopRequestedWhileAServerStartsIsAnError)
{
    // The server never opens its pipe, so the start goes on until somebody stops it.
    const LogCapture log;
    Host host(kyTest::childProgram());
    Client client(host.port());
    beginStart(client, "wait");
    EXPECT_TRUE(kyTest::waitUntil([&] { return host.service.serverCount() == 1; }));
    host.service.shutdown();
    EXPECT_NE(failureOf([&] { awaitStarted(client); }), "");
}

TEST(kyNetService, noServerStartsAfterShutdown)
{
    kyNetService service(0, renderServer());
    const kyBoundSocketLink listener(0);
    service.shutdown();
    kySocketLink link(localAddress(kySocketAddress(listener.getAddress()).getPort()), 5.0);
    const auto served = std::make_shared<kySocketLink>(listener);
    kyNetStream stream(std::make_shared<kySocketLink>(link.takeDescriptor()));
    writeStart(stream, {});
    stream.flush();
    service.handleExternalRequest(served.get());
    EXPECT_EQ(failureOf([&] { stream.recvResult(); }), "Service is shutting down");
}

namespace {

/// Waits for the word of a deaf server, which has been handed its client then.
bool isHandedOver(const LogCapture& log)
{
    return kyTest::waitUntil([&] {
        const auto texts = log.texts();
        return std::find(texts.begin(), texts.end(), "deaf\n") != texts.end();
    });
}

} // namespace

TEST(kyNetService, outputOfServersIsLoggedUnlessSwitchedOff)
{
    const LogCapture log;
    Host host;
    Client client(host.port());
    beginStart(client, "deaf"); // says so
    EXPECT_TRUE(isHandedOver(log));
    host.service.killServers();
    EXPECT_EQ(failureOf([&] { awaitStarted(client); }), "Error on socket transfer to server");
}

TEST(kyNetService, outputOfServersIsDroppedWithoutConsole)
{
    const LogCapture log;
    {
        Host host(kyTest::childProgram());
        host.service.setConsole(false);
        Client client(host.port());
        Start request;
        request.arguments = "print:hello";
        EXPECT_NE(failureOf([&] { start(client, request); }), "");
    }
    EXPECT_THAT(log.texts(),
                testing::ElementsAre("Failed to start server: Failed to connect started server\n"));
}

TEST(kyNetService, killServersFreesAHandOverThatNeverEnds)
{
    const LogCapture log;
    Host host;
    Client client(host.port());
    beginStart(client, "deaf");
    EXPECT_TRUE(isHandedOver(log));
    host.service.killServers();
    EXPECT_EQ(failureOf([&] { awaitStarted(client); }), "Error on socket transfer to server");
}

// --- Connecting to servers ---

TEST(kyNetService, furtherClientsAreConnectedToARunningServer)
{
    Host host;
    Client first(host.port());
    const std::uint32_t id = start(first).id;
    Client second(host.port());
    second.stream << Command::ConnectServer << id;
    second.await();
    Client third(host.port());
    third.stream << Command::ConnectServer << id;
    third.await();
    EXPECT_EQ(second.ask("process id"), first.ask("process id"));
    EXPECT_EQ(third.ask("process id"), first.ask("process id"));
}

TEST(kyNetService, unknownServerIsNamed)
{
    Host host;
    for (const std::uint32_t id : {0U, 1U, std::numeric_limits<std::uint32_t>::max()}) {
        Client connecting(host.port());
        connecting.stream << Command::ConnectServer << id;
        EXPECT_EQ(failureOf([&] { connecting.await(); }), "Unknown server:" + std::to_string(id));
        Client stopping(host.port());
        stopping.stream << Command::StopServer << id;
        EXPECT_EQ(failureOf([&] { stopping.await(); }), "Unknown server:" + std::to_string(id));
    }
}

TEST(kyNetService, connectionToADeadServerIsAnError)
{
    Host host;
    Client client(host.port());
    const std::uint32_t id = start(client).id;
    EXPECT_THROW(client.ask("exit"), kyConnectionClosed);
    Client other(host.port());
    other.stream << Command::ConnectServer << id;
    EXPECT_NE(failureOf([&] { other.await(); }), "");
    EXPECT_TRUE(isServed(host.port()));
}

// --- Stopping servers ---

TEST(kyNetService, stoppedServerEndsAndIsForgotten)
{
    Host host;
    Client client(host.port());
    const std::uint32_t id = start(client).id;
    stopServer(host.port(), id);
    EXPECT_TRUE(losesItsServer(client));
    EXPECT_EQ(host.service.serverCount(), 0);

    Client again(host.port());
    again.stream << Command::StopServer << id;
    EXPECT_EQ(failureOf([&] { again.await(); }), "Unknown server:1");
}

TEST(kyNetService, stopByBookingStopsExactlyItsServers)
{
    Host host;
    std::vector<std::shared_ptr<Client>> clients;
    for (const char* booking : {"blue", "green", "blue", "blue sky", ""}) {
        clients.push_back(std::make_shared<Client>(host.port()));
        Start request;
        request.bookingId = booking;
        start(*clients.back(), request);
    }
    EXPECT_THAT(host.service.bookingIds(),
                testing::ElementsAre("blue", "green", "blue", "blue sky"));
    stopBooking(host.port(), "blue");
    EXPECT_THAT(host.service.bookingIds(), testing::ElementsAre("green", "blue sky"));
    EXPECT_EQ(host.service.serverCount(), 3);
    EXPECT_TRUE(losesItsServer(*clients[0]));
    EXPECT_EQ(clients[1]->ask("here"), "here");
    EXPECT_TRUE(losesItsServer(*clients[2]));
    EXPECT_EQ(clients[3]->ask("here"), "here");
    EXPECT_EQ(clients[4]->ask("here"), "here");
}

TEST(kyNetService, stopByABookingThatNobodyHasSucceeds)
{
    Host host;
    Client client(host.port());
    start(client);
    stopBooking(host.port(), "nobody's");
    EXPECT_EQ(host.service.serverCount(), 1);
}

TEST(kyNetService, emptyBookingIdStopsEveryServerWithoutOne)
{
    Host host;
    Client booked(host.port());
    Start request;
    request.bookingId = "blue";
    start(booked, request);
    Client free(host.port());
    start(free);
    stopBooking(host.port(), "");
    EXPECT_EQ(host.service.serverCount(), 1);
    EXPECT_EQ(booked.ask("here"), "here");
}

// --- Status ---

TEST(kyNetService, statusTellsServersMemoryVersionAndBookings)
{
    Host host;
    Client client(host.port());
    Start request;
    request.bookingId = "blue";
    start(client, request);

    const kyNetServiceStatus status = statusOf(host.port());
    EXPECT_TRUE(status.getIsRunning());
    EXPECT_EQ(status.getNumberOfClusterServers(), 1);
    EXPECT_GT(status.getFreeMemory(), 0U);
    EXPECT_EQ(status.getVersion(), kyVersionInfo::the().getVersionString());
    EXPECT_EQ(status.getCPUUsage(), 0.0F);
    EXPECT_THAT(status.getBookingIds(), testing::ElementsAre("blue"));
}

TEST(kyNetService, statusLeavesOutServersThatAreEndingOrDead)
{
    Host host;
    Client stopped(host.port());
    Start request;
    request.bookingId = "blue";
    start(stopped, request);
    request.bookingId = "green";
    Client dead(host.port());
    start(dead, request);
    EXPECT_THROW(dead.ask("exit"), kyConnectionClosed);
    stopBooking(host.port(), "blue");
    EXPECT_TRUE(
        kyTest::waitUntil([&] { return statusOf(host.port()).getNumberOfClusterServers() == 0; }));
    EXPECT_THAT(statusOf(host.port()).getBookingIds(), testing::IsEmpty());
}

// --- Relay ---

TEST(kyNetService, relayLeadsToAnotherServiceAndItsServers)
{
    Host relay;
    Host far;
    Client client(relay.port());
    ASSERT_TRUE(relayTo(client, "127.0.0.1", static_cast<std::uint32_t>(far.port())));
    EXPECT_EQ(start(client).id, 1U);
    EXPECT_EQ(far.service.serverCount(), 1);
    EXPECT_EQ(relay.service.serverCount(), 0);
    const std::string large(1 << 20, 'x');
    EXPECT_EQ(client.ask(large), large);
}

TEST(kyNetService, relayLeavesBuffersAsTheyAreOnceTheRequestIsAnswered)
{
    Host far;
    kyNetService relay(0, "");
    const auto [client, served] = kyTest::makeLinks();
    client->setRecvTimeout(30.0);
    client->setCipher(std::make_shared<kyTest::XorCipher>());
    served->setCipher(std::make_shared<kyTest::XorCipher>());
    kyNetStream stream(client);
    stream << Command::ConnectService << "127.0.0.1" << static_cast<std::uint32_t>(far.port());
    stream.flush();
    relay.handleExternalRequest(served.get());
    bool isConnected = false;
    stream >> isConnected;
    ASSERT_TRUE(isConnected);

    // The far service has no cipher, so neither has this client now.
    client->setCipher(nullptr);
    stream << Command::GetStatus;
    stream.flush();
    kyNetServiceStatus status;
    stream.recvResult() >> status;
    EXPECT_TRUE(status.getIsRunning());
}

TEST(kyNetService, relayOverTwoServices)
{
    Host first;
    Host second;
    Host third;
    Client client(first.port());
    ASSERT_TRUE(relayTo(client, "127.0.0.1", static_cast<std::uint32_t>(second.port())));
    ASSERT_TRUE(relayTo(client, "127.0.0.1", static_cast<std::uint32_t>(third.port())));
    client.stream << Command::GetStatus;
    client.await();
    kyNetServiceStatus status;
    client.stream >> status;
    EXPECT_TRUE(status.getIsRunning());
}

TEST(kyNetService, relayAnswersBeforeTheOtherServiceSpeaks)
{
    Host relay;
    kyBoundSocketLink far(0);
    const auto port = static_cast<std::uint32_t>(far.getAddress().getPort());
    auto speaking = std::async(std::launch::async, [&] {
        const auto link = acceptClient(far);
        kyNetStream stream(link);
        stream << "at once";
        stream.flush();
        std::string answer;
        stream >> answer;
        return answer;
    });
    Client client(relay.port());
    ASSERT_TRUE(relayTo(client, "127.0.0.1", port));
    std::string text;
    client.stream >> text;
    EXPECT_EQ(text, "at once");
    client.stream << "and back";
    client.stream.flush();
    EXPECT_EQ(speaking.get(), "and back");
}

TEST(kyNetService, relayEndsWhenTheClientLeaves)
{
    Host relay;
    kyBoundSocketLink far(0);
    const auto port = static_cast<std::uint32_t>(far.getAddress().getPort());
    auto accepted = std::async(std::launch::async, [&] { return acceptClient(far); });
    {
        Client client(relay.port());
        ASSERT_TRUE(relayTo(client, "127.0.0.1", port));
    }
    const auto link = accepted.get();
    char byte = 0;
    EXPECT_THROW(link->recv(&byte, 1), kyConnectionClosed);
}

TEST(kyNetService, relayEndsWhenTheOtherServiceLeaves)
{
    Host relay;
    kyBoundSocketLink far(0);
    const auto port = static_cast<std::uint32_t>(far.getAddress().getPort());
    auto accepted = std::async(std::launch::async, [&] { return acceptClient(far); });
    Client client(relay.port());
    ASSERT_TRUE(relayTo(client, "127.0.0.1", port));
    accepted.get().reset();
    std::string text;
    EXPECT_THROW(client.stream >> text, kyConnectionClosed);
}

TEST(kyNetService, relayOutlivesItsService)
{
    auto relay = std::make_unique<Host>();
    Host far;
    Client client(relay->port());
    ASSERT_TRUE(relayTo(client, "127.0.0.1", static_cast<std::uint32_t>(far.port())));
    relay.reset();
    EXPECT_EQ(start(client).id, 1U);
    EXPECT_EQ(client.ask("still there"), "still there");
}

TEST(kyNetService, relayThatReachesNobodyAnswersFalse)
{
    Host relay;
    std::uint32_t deadPort = 0;
    {
        kyBoundSocketLink closed(0);
        deadPort = static_cast<std::uint32_t>(closed.getAddress().getPort());
    }
    for (const std::string host : {"127.0.0.1", "", "no such host", "256.1.1.1"}) {
        Client client(relay.port());
        EXPECT_FALSE(relayTo(client, host, deadPort)) << host;
    }
    for (const std::uint32_t port : {0U, 70000U, std::numeric_limits<std::uint32_t>::max()}) {
        Client client(relay.port());
        EXPECT_FALSE(relayTo(client, "127.0.0.1", port)) << port;
    }
    EXPECT_TRUE(isServed(relay.port()));
}

TEST(kyNetService, relayToSomebodyWhoIsNoServiceAnswersFalse)
{
    Host relay;
    kyBoundSocketLink far(0);
    auto answering = std::async(std::launch::async, [&] {
        kySocketLink link(far);
        std::uint32_t word = 0;
        link.recv(&word, sizeof(word));
        link.send("HTTP", 4);
    });
    Client client(relay.port());
    EXPECT_FALSE(
        relayTo(client, "127.0.0.1", static_cast<std::uint32_t>(far.getAddress().getPort())));
    answering.get();
}

TEST(kyNetService, megabyteOfBracketsAsRelayHostIsAnErrorForThatClientOnly)
{
    Host relay;
    for (const char c : {'[', ']', ':', 'a', ' '}) {
        Client client(relay.port());
        EXPECT_FALSE(relayTo(client, std::string(1 << 20, c), 8889)) << c;
    }
    Client client(relay.port());
    EXPECT_FALSE(relayTo(client, "node:" + std::string(1 << 20, '9'), 8889));
    EXPECT_TRUE(isServed(relay.port()));
}

// --- Hostile clients ---

TEST(kyNetService, unknownCommandIsAnsweredAndTheServiceGoesOn)
{
    Host host;
    for (const std::uint32_t command :
         {0U, 8U, 9U, 256U, std::numeric_limits<std::uint32_t>::max()}) {
        Client client(host.port());
        client.stream << command;
        EXPECT_EQ(failureOf([&] { client.await(); }), "Unknown service command");
    }
    EXPECT_TRUE(isServed(host.port()));
}

TEST(kyNetService, oversizedBufferIsRefusedAndTheServiceGoesOn)
{
    Host host;
    Client client(host.port());
    const std::uint32_t size = static_cast<std::uint32_t>(kyNetOptions::getBufferSize()) + 1;
    std::string header(20, '\xff');
    header.replace(0, 4, std::string(reinterpret_cast<const char*>(&size), 4));
    client.link->send(header.data(), header.size());
    EXPECT_EQ(failureOf([&] { client.stream.recvResult(); }),
              "Received invalid buffer size. Possibly stream is out of sync.");
    EXPECT_TRUE(isServed(host.port()));
}

TEST(kyNetService, garbageIsRefusedAndTheServiceGoesOn)
{
    Host host;
    Client client(host.port());
    const std::string garbage = "GET / HTTP/1.1\r\nHost: node7\r\n\r\n";
    client.link->send(garbage.data(), garbage.size());
    EXPECT_EQ(failureOf([&] { client.stream.recvResult(); }),
              "Received invalid buffer size. Possibly stream is out of sync.");
    EXPECT_TRUE(isServed(host.port()));
}

TEST(kyNetService, messageInPlaceOfARequestIsRefused)
{
    Host host;
    Client client(host.port());
    client.stream.sendSync(1);
    EXPECT_EQ(failureOf([&] { client.stream.recvResult(); }),
              "Stream out of sync. Stream expected at 0 from 0 to 1");
    EXPECT_TRUE(isServed(host.port()));
}

TEST(kyNetService, clientThatLeavesInsideItsRequestIsLoggedAndTheServiceGoesOn)
{
    const LogCapture log;
    Host host;
    const std::string header(20, '\0');
    for (const std::size_t size : {0U, 1U, 4U, 19U, 20U}) {
        Client client(host.port());
        client.link->send(header.data(), size);
    }
    {
        Client client(host.port());
        client.stream << Command::StartServer << "half of a request";
        client.stream.flush();
    }
    EXPECT_TRUE(isServed(host.port()));
    EXPECT_THAT(log.texts(), testing::SizeIs(6));
    EXPECT_THAT(log.texts(), testing::Each("Connection closed\n"));
    EXPECT_EQ(host.service.serverCount(), 0);
}

TEST(kyNetService, claimedTextLengthCostsNothing)
{
    Host host;
    {
        Client client(host.port());
        client.stream << Command::StartServer << std::uint32_t{0xffffffff};
        client.stream.flush();
    }
    EXPECT_TRUE(isServed(host.port()));
}

// --- Links that others accept ---

namespace {

/// Accepts connections like a program with a loop of its own: each is served on its own thread.
class OwnLoop
{
public:
    explicit OwnLoop(kyNetService& service) : m_service(service), m_listener(service.listen())
    {
        m_acceptor = std::thread([this] { accept(); });
    }

    ~OwnLoop()
    {
        m_service.shutdown();
        m_acceptor.join();
        for (std::thread& server : m_servers) {
            server.join();
        }
    }

    bool isOver() const { return m_isOver; }

private:
    void accept()
    {
        try {
            for (;;) {
                m_servers.emplace_back([this, link = acceptClient(*m_listener)] {
                    link->setRecvTimeout(0.0);
                    m_service.handleExternalRequest(link.get());
                });
            }
        } catch (const kyConnectionClosed&) {
            m_isOver = true;
        }
    }

    kyNetService& m_service;
    std::shared_ptr<kyBoundSocketLink> m_listener;
    std::vector<std::thread> m_servers;
    std::atomic<bool> m_isOver{false};
    std::thread m_acceptor;
};

} // namespace

TEST(kyNetService, externalRequestsAreServedAtOnceOnTheirThreads)
{
    kyNetService service(0, renderServer());
    const OwnLoop loop(service);
    Client silent(service.getPort());
    Client client(service.getPort());
    EXPECT_EQ(start(client).id, 1U);
    EXPECT_EQ(client.ask("served"), "served");
    EXPECT_TRUE(isServed(service.getPort()));
    silent.link->shutdown();
}

TEST(kyNetService, stopRequestOfAnExternalClientEndsTheLoopThatListens)
{
    kyNetService service(0, "");
    const OwnLoop loop(service);
    Client client(service.getPort());
    client.stream << Command::StopService;
    client.await();
    EXPECT_TRUE(kyTest::waitUntil([&] { return loop.isOver(); }));
}

TEST(kyNetService, failureToAnswerAnExternalClientIsLogged)
{
    const LogCapture log;
    kyNetService service(0, "");
    {
        const OwnLoop loop(service);
        const Client client(service.getPort());
    }
    EXPECT_THAT(log.texts(), testing::ElementsAre("Request error Connection closed\n"));
}

TEST(kyNetService, manyClientsAtOnceGetServersOfTheirOwn)
{
    kyNetService service(0, renderServer());
    const OwnLoop loop(service);
    const int port = service.getPort();
    std::vector<std::future<std::uint32_t>> answers;
    for (int i = 0; i < 6; ++i) {
        answers.push_back(std::async(std::launch::async, [port, i] {
            Client client(port);
            Start request;
            request.bookingId = std::to_string(i % 2);
            const std::uint32_t id = start(client, request).id;
            statusOf(port);
            EXPECT_EQ(client.ask("hello"), "hello");
            if (i % 3 == 0) {
                stopServer(port, id);
            }
            return id;
        }));
    }
    std::vector<std::uint32_t> ids;
    for (auto& answer : answers) {
        ids.push_back(answer.get());
    }
    EXPECT_THAT(ids, testing::UnorderedElementsAre(1U, 2U, 3U, 4U, 5U, 6U));
    EXPECT_EQ(service.serverCount(), 4);
    stopBooking(port, "0");
    stopBooking(port, "1");
    EXPECT_EQ(service.serverCount(), 0);
}

TEST(kyNetService, serverThatIsStartingIsNotTakenForFinished)
{
    // While the first server keeps its start waiting, another start cleans up.
    kyNetService service(0, kyTest::childProgram());
    const LogCapture log;
    const OwnLoop loop(service);
    Client slow(service.getPort());
    beginStart(slow, "wait");
    EXPECT_TRUE(kyTest::waitUntil([&] { return service.serverCount() == 1; }));
    Client quick(service.getPort());
    Start request;
    request.arguments = "exit:0";
    EXPECT_NE(failureOf([&] { start(quick, request); }), "");
    EXPECT_EQ(service.serverCount(), 1);
    stopServer(service.getPort(), 1);
    EXPECT_NE(failureOf([&] { awaitStarted(slow); }), "");
}

TEST(kyNetService, connectionToAServerThatIsStartingEndsWithIt)
{
    kyNetService service(0, kyTest::childProgram());
    const LogCapture log;
    const OwnLoop loop(service);
    Client starting(service.getPort());
    beginStart(starting, "wait");
    EXPECT_TRUE(kyTest::waitUntil([&] { return service.serverCount() == 1; }));
    Client connecting(service.getPort());
    connecting.stream << Command::ConnectServer << std::uint32_t{1};
    connecting.stream.flush();
    service.killServers();
    EXPECT_EQ(failureOf([&] { awaitStarted(starting); }), "Failed to connect started server");
    EXPECT_NE(failureOf([&] { connecting.stream.recvResult(); }), "");
}

// --- In-process servers ---

namespace {

/// Servers are threads of this process while it lives.
class InProcess
{
public:
    explicit InProcess(std::function<void(std::string)> server)
    {
        kyNetServerProcess::setInProcess(true, std::move(server));
    }
    ~InProcess() { kyNetServerProcess::setInProcess(false, {}); }

    InProcess(const InProcess&) = delete;
    InProcess& operator=(const InProcess&) = delete;
};

} // namespace

TEST(kyNetService, inProcessServersTakeTheirClientsFromThePipe)
{
    const InProcess mode([](const std::string& name) {
        kySocketPipe pipe(name);
        try {
            for (;;) {
                kyNetStream stream(std::make_shared<kySocketLink>(pipe, -1.0));
                std::string question;
                stream >> question;
                stream << "in process: " + question;
                stream.flush();
            }
        } catch (const kyConnectionClosed&) {
        }
    });
    Host host;
    Client client(host.port());
    Start request;
    request.hasDisplay = true;
    EXPECT_EQ(start(client, request).id, 1U);
    EXPECT_EQ(client.ask("hello"), "in process: hello");
    EXPECT_TRUE(kyNetService::inProcessHasDisplay());
    EXPECT_FALSE(kyNetService::inProcessIsStereo());
    client.link->shutdown();
    stopServer(host.port(), 1);
}

TEST(kyNetService, inProcessServerThatReturnsAtOnceIsAnError)
{
    const LogCapture log;
    const InProcess mode([](const std::string&) {});
    Host host;
    Client client(host.port());
    EXPECT_EQ(failureOf([&] { start(client); }), "Failed to connect started server");
}

TEST(kyNetService, processThatHostsItsServerIsToldThatThePortIsTaken)
{
    const InProcess mode({});
    const int port = kyNetOptions::getDefaultServicePort();
    std::unique_ptr<kyBoundSocketLink> taken;
    // Whoever else runs these tests may have it for a while.
    ASSERT_TRUE(kyTest::waitUntil([&] {
        return failureOf([&] { taken = std::make_unique<kyBoundSocketLink>(port); }).empty();
    }));
    EXPECT_THAT(failureOf([] { kyNetService::runInProcess(); }),
                testing::StartsWith("Unable to bind to port 8889. "));
}

TEST(kyNetService, processThatHostsItsServerGetsThePipeOfTheFirstStart)
{
    // The port is a fixed one, and whoever else runs these tests may have it for a while.
    const int port = kyNetOptions::getDefaultServicePort();
    exProcess host;
    host.addArgument(QString::fromStdString(renderServer()));
    host.addArgument("host");
    std::shared_ptr<Client> client;
    EXPECT_TRUE(kyTest::waitUntil([&] {
        try {
            if (!host.isRunning()) {
                host.start();
            }
            client = std::make_shared<Client>(port);
            Start request;
            request.hasDisplay = true;
            start(*client, request);
            return client->ask("process id") == std::to_string(host.processId());
        } catch (const kyNetError&) {
            return false;
        }
    }));
    Client second(port);
    second.stream << Command::ConnectServer << std::uint32_t{1};
    second.await();
    EXPECT_EQ(second.ask("process id"), std::to_string(host.processId()));
    host.kill();
}
