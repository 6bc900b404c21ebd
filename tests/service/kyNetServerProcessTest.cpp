#include <NetBase/service/kyNetServerProcess.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <QByteArray>
#include <QCoreApplication>
#include <QDir>
#include <QMetaObject>
#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyConnectionTimeout.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/links/kySocketLink.h>
#include <NetBase/links/kySocketPipe.h>
#include <Utils/kyLog.h>
#include <Utils/kyPlatform.h>
#include <VersionInfo/kyVersionInfo.h>
#include <tests/support/kyTestChildSystem.h>
#include <tests/support/kyTestRawPipe.h>
#include <tests/support/kyTestSystem.h>
#include <tests/support/kyTestThreads.h>
#include <tests/support/kyTestWait.h>

using kyTest::receiveText;
using kyTest::SocketPair;
using kyTest::waitUntil;

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

/// What a server is made of; the child of the tests takes the client's arguments for its task.
struct Order
{
    std::string arguments = "wait";
    std::uint32_t serverId = 1;
    std::string serverPath = kyTest::childProgram();
    std::string version = "11.0";
    bool hasDisplay = false;
    bool isStereo = false;
    bool flagZ = false;
    bool flagT = false;
    bool flagTA = false;
    std::string bookingId;
};

std::shared_ptr<kyNetServerProcess> create(const Order& order)
{
    return kyNetServerProcess::create(order.arguments, order.serverId, order.serverPath,
                                      order.version, order.hasDisplay, order.isStereo, order.flagZ,
                                      order.flagT, order.flagTA, order.bookingId);
}

std::shared_ptr<kyNetServerProcess> create(const std::string& arguments,
                                           const std::string& version = "11.0")
{
    Order order;
    order.arguments = arguments;
    order.version = version;
    return create(order);
}

/// Collects what is logged while it lives.
class Log
{
public:
    Log()
    {
        kyLog::setSink([this](kyLog::Severity severity, int level, const std::string& text) {
            const std::lock_guard<std::mutex> guard(m_mutex);
            (severity == kyLog::Severity::Error ? m_error : m_info) += text;
            m_level = level;
        });
    }
    ~Log() { kyLog::setSink(nullptr); }

    std::string info() { return get(m_info); }
    std::string error() { return get(m_error); }
    int level()
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_level;
    }
    bool hasInfo(const std::string& text)
    {
        return waitUntil([&] { return info().find(text) != std::string::npos; });
    }

private:
    std::string get(const std::string& text)
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return text;
    }

    std::mutex m_mutex;
    std::string m_info;
    std::string m_error;
    int m_level = -1;
};

/// Servers are threads of this process while it lives.
class InProcess
{
public:
    explicit InProcess(std::function<void(std::string)> callback)
    {
        kyNetServerProcess::setInProcess(true, std::move(callback));
    }
    ~InProcess() { kyNetServerProcess::setInProcess(false, nullptr); }

    InProcess(const InProcess&) = delete;
    InProcess& operator=(const InProcess&) = delete;
};

std::string startFailure(kyNetServerProcess& server)
{
    try {
        server.start(true);
    } catch (const kyNetError& error) {
        return error.what();
    }
    return "";
}

std::string startError(const std::string& path)
{
    return "Error starting process '" + path +
           "'. File not found or insufficient permission to start.";
}

std::string ownProgram()
{
    return kyPlatform::getBinDir() + QString(QDir::separator()).toStdString() +
           "TALOClusterServer" + kyPlatform::getProgramSuffix();
}

} // namespace

TEST(kyNetServerProcess, answersWhatItWasMadeWith)
{
    Order order;
    order.serverId = 4000000000u;
    order.bookingId = "booking 7";
    const auto server = create(order);
    EXPECT_EQ(server->getServerId(), 4000000000u);
    EXPECT_EQ(server->bookingId(), "booking 7");
    EXPECT_EQ(server->socketPipeName().rfind("\\\\.\\pipe\\taloService-{", 0), 0u);
    EXPECT_NE(server->socketPipeName(), create(order)->socketPipeName());
}

TEST(kyNetServerProcess, isNotRunningBeforeItsStart)
{
    const auto server = create("wait");
    EXPECT_FALSE(server->isRunning());
    EXPECT_FALSE(server->isStopRequested());
    EXPECT_EQ(server->getProcessId(), 0u);
    EXPECT_TRUE(server->wait(0));
    server->tryKill();
}

TEST(kyNetServerProcess, everyCombinationOfFlagsHasItsCommandLine)
{
    for (int flags = 0; flags < 32; ++flags) {
        Log log;
        Order order;
        order.arguments = "what the client said";
        order.hasDisplay = (flags & 1) != 0;
        order.isStereo = (flags & 2) != 0;
        order.flagZ = (flags & 4) != 0;
        order.flagT = (flags & 8) != 0;
        order.flagTA = (flags & 16) != 0;
        const auto server = create(order);

        std::string expected = "[" + kyTest::childProgram() + "]\n";
        expected += order.flagZ ? "[-Z]\n" : "";
        expected += !order.hasDisplay ? "[-P]\n" : "";
        expected += order.hasDisplay && order.isStereo ? "[-s]\n" : "";
        expected += order.flagT && order.flagTA ? "[-ta]\n" : "";
        expected += order.flagT && !order.flagTA ? "[-t]\n" : "";
        expected += "[-socketpipe=" + server->socketPipeName() + "]\n";
        expected += "[what the client said]\n";

        server->start(true);
        EXPECT_TRUE(server->wait(30.0));
        EXPECT_TRUE(waitUntil([&] { return log.info() == expected; })) << flags << '\n'
                                                                       << log.info();
    }
}

TEST(kyNetServerProcess, clientsArgumentsAreOneArgumentAlsoWhenEmpty)
{
    for (const std::string arguments : {"", "-Z -P \"x\" 'y' $HOME", "-", "%1 %2"}) {
        Log log;
        const auto server = create(arguments);
        server->start(true);
        EXPECT_TRUE(server->wait(30.0));
        const std::string expected = "[" + kyTest::childProgram() +
                                     "]\n[-P]\n[-socketpipe=" + server->socketPipeName() + "]\n[" +
                                     arguments + "]\n";
        EXPECT_TRUE(waitUntil([&] { return log.info() == expected; })) << log.info();
    }
}

TEST(kyNetServerProcess, versionsFromNineGetThePipeAsAnArgument)
{
    for (const std::string version :
         {"9", "9.0", "8.99995", "9.2", "11.0", "inf", "0x9", " 9.0", "9.0abc", "10,5"}) {
        qunsetenv("TALO_LOCAL_SERVICE");
        Log log;
        const auto server = create("arguments", version);
        server->start(true);
        EXPECT_TRUE(log.hasInfo("[arguments]\n"));
        EXPECT_EQ(log.info(), "[" + kyTest::childProgram() + "]\n[-P]\n[-socketpipe=" +
                                  server->socketPipeName() + "]\n[arguments]\n")
            << version;
        EXPECT_FALSE(qEnvironmentVariableIsSet("TALO_LOCAL_SERVICE"));
    }
}

TEST(kyNetServerProcess, olderVersionsGetThePipeAsAnEnvironmentVariable)
{
    for (const std::string version : {"8.9", "8.9998", "8.52", "0", "", "SR1", "-9.5", "nan"}) {
        Log log;
        const auto server = create("arguments", version);
        server->start(true);
        EXPECT_TRUE(log.hasInfo("TALO_LOCAL_SERVICE="));
        EXPECT_TRUE(server->wait(30.0));
        const std::string expected =
            "[" + kyTest::childProgram() +
            "]\n[-P]\n[arguments]\nTALO_LOCAL_SERVICE=" + server->socketPipeName() + "\n";
        EXPECT_TRUE(waitUntil([&] { return log.info() == expected; })) << log.info();
        // It stays set.
        EXPECT_EQ(qgetenv("TALO_LOCAL_SERVICE").toStdString(), server->socketPipeName());
    }
    qunsetenv("TALO_LOCAL_SERVICE");
}

TEST(kyNetServerProcess, oldServersStartedAtOnceEachGetTheirOwnPipe)
{
    Log log;
    std::vector<std::shared_ptr<kyNetServerProcess>> servers;
    for (int count = 0; count < 12; ++count) {
        servers.push_back(create("variable:TALO_LOCAL_SERVICE", "8.5"));
    }
    std::atomic<std::size_t> next{0};
    std::vector<std::thread> threads;
    for (int index = 0; index < 4; ++index) {
        threads.emplace_back([&] {
            for (std::size_t mine = next++; mine < servers.size(); mine = next++) {
                servers[mine]->start(true);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const auto& server : servers) {
        EXPECT_TRUE(log.hasInfo(server->socketPipeName() + "\n")) << log.info();
        EXPECT_TRUE(server->wait(30.0));
    }
    qunsetenv("TALO_LOCAL_SERVICE");
}

TEST(kyNetServerProcess, hugeVersionOnTheWayToAnExplicitProgram)
{
    Log log;
    const auto server = create("arguments", std::string(1 << 20, '9'));
    server->start(true);
    EXPECT_TRUE(log.hasInfo("[-socketpipe=" + server->socketPipeName() + "]\n[arguments]\n"));
}

TEST(kyNetServerProcess, programIsSearchedIfNoneOrAMissingOneIsNamed)
{
    for (const std::string& path : {std::string(), std::string("/does/not/exist"),
                                    std::filesystem::temp_directory_path().string()}) {
        for (const std::string version :
             {"11.0", "1.5", "1.5/../..", "../../../../tmp", "SR1", ""}) {
            Order order;
            order.serverPath = path;
            order.version = version;
            const auto server = create(order);
            EXPECT_EQ(startFailure(*server), startError(ownProgram()));
            EXPECT_FALSE(server->isRunning());
            EXPECT_TRUE(server->wait(0));
        }
    }
    qunsetenv("TALO_LOCAL_SERVICE");
}

TEST(kyNetServerProcess, programThatCannotRunIsNamed)
{
    const std::filesystem::path file =
        std::filesystem::temp_directory_path() /
        ("kyNetServerProcessTest-" + std::to_string(kyPlatform::getProcessId()));
    std::ofstream(file) << "no program";
    Order order;
    order.serverPath = file.string();
    const auto server = create(order);
    EXPECT_EQ(startFailure(*server), startError(file.string()));
    std::filesystem::remove(file);
}

TEST(kyNetServerProcess, argumentsThatTheSystemCannotPassFailTheStart)
{
    const auto server = create(std::string(64 << 20, 'x'));
    EXPECT_EQ(startFailure(*server), startError(kyTest::childProgram()));
}

TEST(kyNetServerProcess, outputIsLoggedAsItArrives)
{
    Log log;
    const auto server = create("print-and-wait:words");
    server->start(true);
    EXPECT_TRUE(waitUntil([&] {
        return log.info() == "words\nready\n" && log.error() == "words error\n";
    })) << log.info()
        << log.error();
    EXPECT_EQ(log.level(), 6);
    EXPECT_TRUE(server->isRunning());
    server->tryKill();
}

TEST(kyNetServerProcess, lastWordsAreLoggedOnceTheServerIsDestroyed)
{
    for (int round = 0; round < 20; ++round) {
        Log log;
        {
            const auto server = create("print:last words");
            server->start(true);
            EXPECT_TRUE(server->wait(30.0));
        }
        EXPECT_EQ(log.info(), "last words");
    }
}

TEST(kyNetServerProcess, charactersThatArriveInPiecesAreLoggedWhole)
{
    Log log;
    const auto server = create("cut:Fl\xc3\xa4\xe2\x82\xac!");
    server->start(true);
    EXPECT_TRUE(server->wait(30.0));
    EXPECT_TRUE(log.hasInfo("!"));
    EXPECT_EQ(log.info(), "Fl\xc3\xa4\xe2\x82\xac!");
}

TEST(kyNetServerProcess, withoutAConsoleNothingIsLogged)
{
    Log log;
    {
        const auto server = create("print:words");
        server->start(false);
        EXPECT_TRUE(server->wait(30.0));
    }
    EXPECT_EQ(log.info() + log.error(), "");
}

TEST(kyNetServerProcess, waitOfZeroTellsWhetherTheServerHasEnded)
{
    Log log;
    const auto server = create("wait");
    server->start(true);
    ASSERT_TRUE(log.hasInfo("ready"));
    EXPECT_TRUE(server->isRunning());
    EXPECT_NE(server->getProcessId(), 0u);
    EXPECT_FALSE(server->wait(0));
    EXPECT_FALSE(server->wait(-1.0));
    server->tryKill();
    EXPECT_FALSE(server->isRunning());
    EXPECT_TRUE(server->wait(0));
    EXPECT_TRUE(server->wait(-1.0));
}

TEST(kyNetServerProcess, waitRunsTheEventLoopOfItsCaller)
{
    const auto server = create("wait");
    server->start(false);
    bool hasRun = false;
    QMetaObject::invokeMethod(
        QCoreApplication::instance(), [&] { hasRun = true; }, Qt::QueuedConnection);
    EXPECT_FALSE(server->wait(0));
    EXPECT_TRUE(hasRun);
    server->tryKill();
}

TEST(kyNetServerProcess, waitEndsWithItsTimeLimit)
{
    const auto server = create("wait");
    server->start(false);
    const auto begin = Clock::now();
    EXPECT_FALSE(server->wait(0.5));
    EXPECT_GE(secondsSince(begin), 0.5);
    EXPECT_LT(secondsSince(begin), 3.0);
    server->tryKill();
}

TEST(kyNetServerProcess, serverThatDiesAtOnceIsNotRunning)
{
    const auto server = create("exit:1");
    server->start(true);
    EXPECT_TRUE(server->wait(30.0));
    EXPECT_FALSE(server->isRunning());
}

TEST(kyNetServerProcess, tryKillEndsAServerThatIgnoresRequestsAfterThreeSeconds)
{
    Log log;
    const auto server = create("ignore-termination");
    server->start(true);
    ASSERT_TRUE(log.hasInfo("ready"));
    const auto begin = Clock::now();
    server->tryKill();
    EXPECT_TRUE(server->wait(30.0));
    EXPECT_GE(secondsSince(begin), 3.0);
    EXPECT_LT(secondsSince(begin), 6.0);
}

TEST(kyNetServerProcess, destructionEndsAServerThatIgnoresRequestsWithinElevenSeconds)
{
    Log log;
    auto server = create("ignore-termination");
    server->start(true);
    ASSERT_TRUE(log.hasInfo("ready"));
    const auto begin = Clock::now();
    server.reset();
    EXPECT_GE(secondsSince(begin), 6.0);
    EXPECT_LT(secondsSince(begin), 11.0);
    EXPECT_EQ(kyTest::countChildren(), 0u);
}

TEST(kyNetServerProcess, destructionTerminatesAServerThatGoesOnWithoutClients)
{
    Log log;
    auto server = create("wait");
    server->start(true);
    ASSERT_TRUE(log.hasInfo("ready"));
    const auto begin = Clock::now();
    server.reset();
    EXPECT_GE(secondsSince(begin), 3.0);
    EXPECT_LT(secondsSince(begin), 6.0);
}

TEST(kyNetServerProcess, serverThatFollowsItsPipeEndsWithIt)
{
    Log log;
    auto server = create("serve");
    server->start(true);
    SocketPair sockets;
    {
        kySocketLink link(sockets.served());
        server->sendSocket(link, 30.0);
        EXPECT_EQ(link.takeDescriptor(), sockets.served());
    }
    EXPECT_EQ(receiveText(sockets.client(), 8), "client 1");
    const auto begin = Clock::now();
    server.reset();
    EXPECT_LT(secondsSince(begin), 3.0);
    EXPECT_EQ(log.info(), "no more clients\n");
}

TEST(kyNetServerProcess, oldServerIsServedToo)
{
    Log log;
    const auto server = create("serve", "8.9");
    server->start(true);
    SocketPair sockets;
    kySocketLink link(sockets.served());
    server->sendSocket(link, 30.0);
    link.takeDescriptor();
    EXPECT_EQ(receiveText(sockets.client(), 8), "client 1");
    qunsetenv("TALO_LOCAL_SERVICE");
}

TEST(kyNetServerProcess, stopShutsThePipeDownAndLeavesTheRestToTheServer)
{
    Log log;
    const auto server = create("serve");
    server->start(true);
    const SocketPair sockets;
    kySocketLink link(sockets.served());
    server->sendSocket(link, 30.0);
    server->stop();
    EXPECT_TRUE(server->isStopRequested());
    EXPECT_THROW(server->sendSocket(link, 30.0), kyNetError);
    link.takeDescriptor();
    EXPECT_TRUE(server->wait(30.0));

    const auto deaf = create("ignore-termination");
    deaf->start(true);
    ASSERT_TRUE(log.hasInfo("ready"));
    deaf->stop();
    EXPECT_TRUE(deaf->isStopRequested());
    EXPECT_TRUE(deaf->isRunning());
    deaf->tryKill();
}

TEST(kyNetServerProcess, socketForAServerThatNeverOpensItsPipeTimesOut)
{
    const auto server = create("wait");
    server->start(false);
    const SocketPair sockets;
    kySocketLink link(sockets.served());
    EXPECT_THROW(server->sendSocket(link, 0.2), kyConnectionTimeout);
    EXPECT_THROW(server->sendSocket(link, 0.2), kyConnectionTimeout);
    link.takeDescriptor();
    server->tryKill();
}

TEST(kyNetServerProcess, socketForAServerThatDiesIsAnError)
{
    const auto server = create("die-before-acknowledgement");
    server->start(false);
    const SocketPair sockets;
    kySocketLink link(sockets.served());
    try {
        server->sendSocket(link, 30.0);
        ADD_FAILURE();
    } catch (const kyNetError& error) {
        EXPECT_STREQ(error.what(), "Error on socket transfer to server");
    }
    link.takeDescriptor();
}

TEST(kyNetServerProcess, isAskedByManyThreadsWhileItStartsAndEnds)
{
    const auto server = create("exit:0");
    std::atomic<bool> isOver{false};
    std::vector<std::thread> threads;
    for (int index = 0; index < 3; ++index) {
        threads.emplace_back([&] {
            while (!isOver) {
                server->isRunning();
                server->isStopRequested();
                server->wait(0);
            }
        });
    }
    server->start(true);
    EXPECT_TRUE(server->wait(30.0));
    server->stop();
    isOver = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(kyNetServerProcess, threadServesThePipeOfAnInProcessServer)
{
    std::promise<std::thread::id> called;
    const InProcess mode([&](const std::string& name) {
        called.set_value(std::this_thread::get_id());
        kySocketPipe pipe(name);
        try {
            for (;;) {
                const std::uint64_t socket = pipe.recvSocket(-1.0);
                kyTest::sendText(socket, "served");
                kyTest::closeSocket(socket);
            }
        } catch (const kyConnectionClosed&) {
        }
    });
    const auto server = create("unused");
    EXPECT_FALSE(server->isRunning());
    server->start(true);
    EXPECT_NE(called.get_future().get(), std::this_thread::get_id());
    EXPECT_TRUE(server->isRunning());
    EXPECT_EQ(server->getProcessId(), kyPlatform::getProcessId());
    EXPECT_FALSE(server->wait(0));
    server->tryKill();
    EXPECT_TRUE(server->isRunning());

    SocketPair sockets;
    kySocketLink link(sockets.served());
    server->sendSocket(link, 30.0);
    EXPECT_EQ(receiveText(sockets.client(), 6), "served");
    link.takeDescriptor();

    server->stop();
    EXPECT_TRUE(server->wait(30.0));
    EXPECT_FALSE(server->isRunning());
}

TEST(kyNetServerProcess, failureOfAnInProcessServerIsLogged)
{
    Log log;
    const InProcess mode([](const std::string&) { throw std::runtime_error("100% broken"); });
    const auto server = create("unused");
    server->start(true);
    EXPECT_TRUE(server->wait(30.0));
    EXPECT_EQ(log.error(), "100% broken\n");
}

TEST(kyNetServerProcess, otherFailureOfAnInProcessServerEndsOnlyThatServer)
{
    const InProcess mode([](const std::string&) { throw 7; });
    const auto server = create("unused");
    server->start(true);
    EXPECT_TRUE(server->wait(30.0));
}

TEST(kyNetServerProcess, inProcessServerWithoutACallbackRunsUntilItIsDestroyed)
{
    const InProcess mode(nullptr);
    auto server = create("unused");
    server->start(true);
    EXPECT_TRUE(server->isRunning());
    EXPECT_FALSE(server->wait(0.3));
    server->stop();
    EXPECT_TRUE(server->isStopRequested());
    EXPECT_TRUE(server->isRunning());
    const auto begin = Clock::now();
    server.reset();
    EXPECT_LT(secondsSince(begin), 3.0);
}

TEST(kyNetServerProcess, inProcessServerWithoutAThreadIsNotStarted)
{
    const InProcess mode(nullptr);
    const auto server = create("unused");
    {
        const kyTest::NoNewThreads noNewThreads;
        EXPECT_THROW(server->start(true), std::exception);
    }
    EXPECT_FALSE(server->isRunning());
    EXPECT_EQ(server->getProcessId(), 0u);
}

TEST(kyNetServerProcess, destructionWaitsForTheCallbackOfTheHost)
{
    std::promise<void> release;
    const InProcess mode(
        [released = release.get_future().share()](const std::string&) { released.wait(); });
    auto server = create("unused");
    server->start(true);
    auto destroyed = std::async(std::launch::async, [&] { server.reset(); });
    EXPECT_EQ(destroyed.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout);
    release.set_value();
    EXPECT_EQ(destroyed.wait_for(kyTest::s_patience), std::future_status::ready);
}

TEST(kyNetServerProcess, neverStartedServerIsDestroyedAtOnce)
{
    const auto begin = Clock::now();
    create("wait").reset();
    EXPECT_LT(secondsSince(begin), 1.0);
}
