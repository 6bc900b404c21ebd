#include <NetBase/links/kySocketPipe.h>

#include <chrono>
#include <future>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <QString>
#include <QUuid>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyConnectionTimeout.h>
#include <NetBase/buffers/kyNetError.h>
#include <QtProcess/exProcess.h>
#include <Utils/kyPlatform.h>
#include <tests/support/kyTestChildSystem.h>
#include <tests/support/kyTestRawPipe.h>
#include <tests/support/kyTestSocket.h>
#include <tests/support/kyTestSystem.h>
#include <tests/support/kyTestWait.h>

using kyTest::pipeBytes;
using kyTest::RawPipe;
using kyTest::receiveText;
using kyTest::socketBytes;
using kyTest::SocketPair;
using kyTest::standForSocket;
using kyTest::waitUntil;
using testing::AnyOf;
using testing::StartsWith;

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

/// How long the opening of a busy pipe takes to give up.
constexpr double s_retrying = 1.8;

/// The text of the failure; "" if there is none.
template <class Act> std::string failureOf(Act act)
{
    try {
        act();
    } catch (const kyConnectionClosed&) {
        return "(closed)";
    } catch (const kyConnectionTimeout&) {
        return "(time-out)";
    } catch (const kyNetError& error) {
        return error.what();
    }
    return "";
}

std::string uniqueName(const std::string& purpose)
{
    return "\\\\.\\pipe\\kySocketPipeTest-" + purpose + "-" +
           std::to_string(kyPlatform::getProcessId());
}

/// Starts the tests' child with a pipe's name on its command line.
class Child
{
public:
    Child(const std::string& pipeName, const std::string& act)
    {
        process.addArgument(QString::fromStdString(kyTest::childProgram()));
        process.addArgument(QString::fromStdString("-socketpipe=" + pipeName));
        process.addArgument(QString::fromStdString(act));
        process.setCommunication(exProcess::StandardOutput);
        QObject::connect(&process, &exProcess::readyReadStandardOutput, [this] {
            const std::lock_guard<std::mutex> guard(m_mutex);
            m_output += process.readStandardOutput().toStdString();
        });
        EXPECT_TRUE(process.start());
    }

    bool hasWritten(const std::string& text)
    {
        return waitUntil([&] {
            const std::lock_guard<std::mutex> guard(m_mutex);
            return m_output.find(text) != std::string::npos;
        });
    }
    bool hasEnded()
    {
        return waitUntil([this] { return !process.isRunning(); });
    }

private:
    std::mutex m_mutex;
    std::string m_output;

public:
    exProcess process;
};

/// Both ends in this process: what is sent on a thread arrives here.
struct Local
{
    kySocketPipe service{false};
    kySocketPipe server{service.getName()};

    std::future<void> send(std::uint64_t socket, double timeout = 30.0)
    {
        return std::async(std::launch::async,
                          [this, socket, timeout] { service.sendSocket(socket, timeout); });
    }
};

/// Hands one socket over, and fails once. Sanitizers look at each type once and need a descriptor
/// for that, so this comes before a test that leaves none.
void goTheWholeRoadOnce()
{
    Local pipe;
    const SocketPair sockets;
    auto sent = pipe.send(sockets.served());
    kyTest::closeSocket(pipe.server.recvSocket(30.0));
    sent.get();
    EXPECT_NE(failureOf([&] { pipe.server.sendSocket(sockets.served(), 0.1); }), "");
}

/// A client of the pipe that has said its process id and answers as a test wants it to.
RawPipe connectWithProcessId(const kySocketPipe& pipe)
{
    RawPipe raw = RawPipe::connect(pipe.getName());
    raw.send(pipeBytes(kyPlatform::getProcessId()).substr(0, 4));
    return raw;
}

/// A service side that a test drives by hand, and a client that has opened it.
struct Hostile
{
    explicit Hostile(const std::string& purpose)
        : service(RawPipe::listen(uniqueName(purpose))),
          server(std::make_unique<kySocketPipe>(uniqueName(purpose)))
    {
        service.accept();
    }

    RawPipe service;
    std::unique_ptr<kySocketPipe> server;
};

} // namespace

TEST(kySocketPipe, nameIsPrefixAndGuid)
{
    const kySocketPipe pipe(false);
    const std::string prefix = R"(\\.\pipe\taloService-)";
    ASSERT_EQ(pipe.getName().substr(0, prefix.size()), prefix);
    const std::string guid = pipe.getName().substr(prefix.size());
    const QUuid parsed(QString::fromStdString(guid));
    ASSERT_FALSE(parsed.isNull()) << guid;
    EXPECT_EQ(guid, parsed.toString(QUuid::WithBraces).toUpper().toStdString());
}

TEST(kySocketPipe, namesDiffer)
{
    const kySocketPipe first(true);
    const kySocketPipe second(true);
    const kySocketPipe third(false);
    EXPECT_NE(first.getName(), second.getName());
    EXPECT_NE(first.getName(), third.getName());
    EXPECT_NE(second.getName(), third.getName());
}

TEST(kySocketPipe, clientSideKeepsTheNameThatItOpened)
{
    const Local pipe;
    EXPECT_EQ(pipe.server.getName(), pipe.service.getName());
}

TEST(kySocketPipe, literalTextOpensThePipeOfThatName)
{
    const auto begin = Clock::now();
    EXPECT_EQ(failureOf([] { kySocketPipe pipe("kySocketPipeTest-unknown"); }),
              "Unable to connect to named pipe. " + kyTest::noSuchPipeText());
    EXPECT_LT(secondsSince(begin), s_retrying);
}

TEST(kySocketPipe, unknownNameFailsAtOnce)
{
    const kySocketPipe other(false);
    const auto begin = Clock::now();
    for (const std::string& name : {other.getName() + "x", std::string("unknown")}) {
        EXPECT_EQ(failureOf([&] { kySocketPipe pipe(name); }),
                  "Unable to connect to named pipe. " + kyTest::noSuchPipeText());
    }
    EXPECT_THAT(failureOf([] { kySocketPipe pipe{std::string()}; }),
                StartsWith("Unable to connect to named pipe. "));
    EXPECT_LT(secondsSince(begin), s_retrying);
}

TEST(kySocketPipe, longestNameIsANameAndALongerOneFails)
{
    const auto failureOfName = [](std::size_t size) {
        std::string name = "\\\\.\\pipe\\";
        name.resize(size, 'x');
        return failureOf([&] { kySocketPipe pipe(name); });
    };
    EXPECT_EQ(failureOfName(kyTest::longestPipeName()),
              "Unable to connect to named pipe. " + kyTest::noSuchPipeText());
    EXPECT_EQ(failureOfName(kyTest::longestPipeName() + 1),
              "Unable to connect to named pipe. " + kyTest::tooLongPipeNameText());
    EXPECT_EQ(failureOfName(1 << 20),
              "Unable to connect to named pipe. " + kyTest::tooLongPipeNameText());
}

TEST(kySocketPipe, busyPipeIsTriedTenTimes)
{
    kySocketPipe service(false);
    const kySocketPipe first(service.getName());
    const auto begin = Clock::now();
    EXPECT_EQ(failureOf([&] { kySocketPipe second(service.getName()); }),
              "Unable to connect to named pipe. " + kyTest::busyPipeText());
    EXPECT_GE(secondsSince(begin), s_retrying);
}

TEST(kySocketPipe, busyClientFailsOnceAnotherOneHasThePipe)
{
    Local pipe;
    auto second = std::async(std::launch::async, [&] {
        return failureOf([&] {
            kySocketPipe other(pipe.service.getName());
            other.recvSocket(-1.0);
        });
    });
    const SocketPair sockets;
    auto sent = pipe.send(sockets.served());
    kyTest::closeSocket(pipe.server.recvSocket(30.0));
    sent.get();
    // It came after the pipe had its one client, which some systems call busy; or just before the
    // pipe was told to take no more, and was cut off with its process id unsent or unread.
    EXPECT_THAT(second.get(),
                AnyOf("Unable to connect to named pipe. " + kyTest::noSuchPipeText(),
                      "Unable to connect to named pipe. " + kyTest::busyPipeText(),
                      std::string("Unable to send process id"), std::string("(closed)")));
}

TEST(kySocketPipe, receivedSocketIsTheSameConnection)
{
    Local pipe;
    SocketPair sockets;
    auto sent = pipe.send(sockets.served());
    const std::uint64_t received = pipe.server.recvSocket(30.0);
    sent.get();
    sockets.closeServed();
    EXPECT_FALSE(kyTest::getSocketOptions(received).isInherited);

    kyTest::sendText(received, "from the server");
    EXPECT_EQ(receiveText(sockets.client(), 15), "from the server");
    kyTest::sendText(sockets.client(), "from the client");
    EXPECT_EQ(receiveText(received, 15), "from the client");
    kyTest::closeSocket(received);
    EXPECT_EQ(receiveText(sockets.client(), 1), "");
}

TEST(kySocketPipe, senderKeepsItsOwnHandle)
{
    Local pipe;
    const SocketPair sockets;
    auto sent = pipe.send(sockets.served());
    kyTest::closeSocket(pipe.server.recvSocket(30.0));
    sent.get();
    kyTest::sendText(sockets.served(), "open");
    EXPECT_EQ(receiveText(sockets.client(), 4), "open");
}

TEST(kySocketPipe, manySocketsTravelOverOnePipe)
{
    Local pipe;
    for (int round = 0; round < 200; ++round) {
        SocketPair sockets;
        auto sent = pipe.send(sockets.served());
        const std::uint64_t received = pipe.server.recvSocket(30.0);
        sent.get();
        sockets.closeServed();
        kyTest::sendText(received, "hi");
        EXPECT_EQ(receiveText(sockets.client(), 2), "hi");
        kyTest::closeSocket(received);
    }
}

TEST(kySocketPipe, severalThreadsSendOverOnePipe)
{
    Local pipe;
    std::vector<std::thread> senders;
    for (int index = 0; index < 4; ++index) {
        senders.emplace_back([&pipe] {
            for (int round = 0; round < 25; ++round) {
                const SocketPair sockets;
                pipe.service.sendSocket(sockets.served(), 30.0);
            }
        });
    }
    for (int count = 0; count < 100; ++count) {
        kyTest::closeSocket(pipe.server.recvSocket(30.0));
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
}

TEST(kySocketPipe, processIdTravelsOnceAndAcknowledgementsEchoTheBytes)
{
    kySocketPipe service(false);
    RawPipe client = connectWithProcessId(service);
    const SocketPair sockets;
    for (int round = 0; round < 3; ++round) {
        auto sent =
            std::async(std::launch::async, [&] { service.sendSocket(sockets.served(), 30.0); });
        const std::string bytes = client.receive(8);
        EXPECT_TRUE(standForSocket(bytes, sockets.served()));
        client.send(bytes);
        sent.get();
    }
}

TEST(kySocketPipe, serverTellsItsProcessIdOnceAndEchoesTheBytes)
{
    Hostile pipe("echo");
    const SocketPair sockets;
    std::string greeting = pipeBytes(kyPlatform::getProcessId()).substr(0, 4);
    for (const std::uint64_t value : {std::uint64_t{0x1122334455667788}, ~std::uint64_t{0}}) {
        const std::string bytes = socketBytes(sockets.served(), pipeBytes(value));
        pipe.service.send(bytes, {sockets.served()});
        const std::uint64_t received = pipe.server->recvSocket(30.0);
        // The value is the other side's; what is usable here is another one.
        EXPECT_NE(pipeBytes(received), bytes);
        kyTest::sendText(received, "here");
        EXPECT_EQ(receiveText(sockets.client(), 4), "here");
        kyTest::closeSocket(received);
        EXPECT_EQ(pipe.service.receive(greeting.size() + 8), greeting + bytes);
        greeting.clear();
    }
}

TEST(kySocketPipe, timeOutThenArrival)
{
    Local pipe;
    const auto begin = Clock::now();
    EXPECT_EQ(failureOf([&] { pipe.server.recvSocket(0.5); }), "(time-out)");
    EXPECT_GE(secondsSince(begin), 0.5);
    EXPECT_EQ(failureOf([&] { pipe.server.recvSocket(0.05); }), "(time-out)");

    const SocketPair sockets;
    auto sent = pipe.send(sockets.served());
    kyTest::closeSocket(pipe.server.recvSocket(30.0));
    sent.get();
}

TEST(kySocketPipe, timeLimitsBelowOneMillisecondDoNotWait)
{
    Local pipe;
    const auto begin = Clock::now();
    EXPECT_EQ(failureOf([&] { pipe.server.recvSocket(0.0009); }), "(time-out)");
    EXPECT_LT(secondsSince(begin), 1.0);
}

TEST(kySocketPipe, hugeTimeLimitsAreCutNotWrapped)
{
    for (const double timeout : {1e7, 1e300, std::numeric_limits<double>::infinity()}) {
        Local pipe;
        auto received = std::async(std::launch::async, [&] {
            return failureOf([&] { pipe.server.recvSocket(timeout); });
        });
        EXPECT_EQ(received.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
        pipe.server.shutdown();
        EXPECT_EQ(received.get(), "(closed)");
    }
}

TEST(kySocketPipe, zeroAndLessWaitWithoutLimit)
{
    for (const double timeout : {0.0, -1.0, std::numeric_limits<double>::quiet_NaN()}) {
        Local pipe;
        auto received =
            std::async(std::launch::async, [&] { return pipe.server.recvSocket(timeout); });
        EXPECT_EQ(received.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
        const SocketPair sockets;
        pipe.service.sendSocket(sockets.served(), timeout);
        kyTest::closeSocket(received.get());
    }
}

TEST(kySocketPipe, sendTimesOutUntilTheServerOpensThePipe)
{
    kySocketPipe service(false);
    const SocketPair sockets;
    const auto begin = Clock::now();
    EXPECT_EQ(failureOf([&] { service.sendSocket(sockets.served(), 0.3); }), "(time-out)");
    EXPECT_GE(secondsSince(begin), 0.3);
    EXPECT_EQ(failureOf([&] { service.sendSocket(sockets.served(), 0.01); }), "(time-out)");

    kySocketPipe server(service.getName());
    auto received = std::async(std::launch::async, [&] { return server.recvSocket(30.0); });
    service.sendSocket(sockets.served(), 30.0);
    kyTest::closeSocket(received.get());
}

TEST(kySocketPipe, shutdownWakesAWaitingReceiver)
{
    Local pipe;
    auto received = std::async(std::launch::async,
                               [&] { return failureOf([&] { pipe.server.recvSocket(-1.0); }); });
    EXPECT_EQ(received.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    pipe.server.shutdown();
    EXPECT_EQ(received.get(), "(closed)");
    EXPECT_EQ(failureOf([&] { pipe.server.recvSocket(-1.0); }), "(closed)");
    EXPECT_EQ(failureOf([&] { pipe.server.recvSocket(0.1); }), "(closed)");
}

TEST(kySocketPipe, receiveAfterTheOwnShutdownIsClosedThoughASocketWaits)
{
    Hostile pipe("own-shutdown");
    const SocketPair sockets;
    pipe.service.send(pipeBytes(1), {sockets.served()});
    pipe.server->shutdown();
    EXPECT_EQ(failureOf([&] { pipe.server->recvSocket(30.0); }), "(closed)");
}

TEST(kySocketPipe, receiveAfterTheOwnShutdownIsClosedWhateverElseIsWrong)
{
    auto service = std::make_unique<kySocketPipe>(false);
    kySocketPipe server(service->getName());
    service->shutdown();
    EXPECT_EQ(failureOf([&] { service->recvSocket(30.0); }), "(closed)");
    service.reset();
    server.shutdown();
    EXPECT_EQ(failureOf([&] { server.recvSocket(30.0); }), "(closed)");
    EXPECT_EQ(failureOf([&] { server.recvSocket(30.0); }), "(closed)");
}

TEST(kySocketPipe, secondShutdownDoesNothing)
{
    Local pipe;
    pipe.service.shutdown();
    pipe.service.shutdown();
    pipe.server.shutdown();
    pipe.server.shutdown();
}

TEST(kySocketPipe, serversSeeThePipeBreakWhenTheServiceShutsDown)
{
    Local pipe;
    auto received = std::async(std::launch::async,
                               [&] { return failureOf([&] { pipe.server.recvSocket(-1.0); }); });
    EXPECT_EQ(received.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    pipe.service.shutdown();
    EXPECT_EQ(received.get(), "(closed)");
    EXPECT_EQ(failureOf([&] { pipe.server.recvSocket(-1.0); }), "(closed)");
}

TEST(kySocketPipe, serviceThatShutDownSendsNothing)
{
    const SocketPair sockets;
    kySocketPipe unopened(false);
    unopened.shutdown();
    EXPECT_EQ(failureOf([&] { unopened.sendSocket(sockets.served(), 30.0); }),
              "Unable to connect pipe");
    EXPECT_EQ(failureOf([&] { kySocketPipe server(unopened.getName()); }),
              "Unable to connect to named pipe. " + kyTest::noSuchPipeText());

    Local pipe;
    auto sent = pipe.send(sockets.served());
    kyTest::closeSocket(pipe.server.recvSocket(30.0));
    sent.get();
    pipe.service.shutdown();
    EXPECT_EQ(failureOf([&] { pipe.service.sendSocket(sockets.served(), 30.0); }),
              "Unable to pass socket to server");
}

TEST(kySocketPipe, serviceGoneBeforeTheFirstReceive)
{
    auto service = std::make_unique<kySocketPipe>(false);
    kySocketPipe server(service->getName());
    service.reset();
    EXPECT_EQ(failureOf([&] { server.recvSocket(30.0); }), "Unable to send process id");
}

TEST(kySocketPipe, eachSideDoesOnlyItsOwnWork)
{
    Local pipe;
    const SocketPair sockets;
    EXPECT_EQ(failureOf([&] { pipe.server.sendSocket(sockets.served(), 0.1); }),
              "Unable to connect pipe");
    EXPECT_EQ(failureOf([&] { pipe.service.recvSocket(0.1); }), "Unable to send process id");

    auto sent = pipe.send(sockets.served());
    kyTest::closeSocket(pipe.server.recvSocket(30.0));
    sent.get();
    EXPECT_EQ(failureOf([&] { pipe.server.sendSocket(sockets.served(), 0.1); }),
              "Unable to connect pipe");
    EXPECT_EQ(failureOf([&] { pipe.service.recvSocket(0.1); }), "Unable to send process id");
}

TEST(kySocketPipe, handleThatIsNoSocketIsRefusedBeforeAByteIsWritten)
{
    kySocketPipe service(false);
    RawPipe client = connectWithProcessId(service);
    const std::uint64_t file = kyTest::openFile();
    const SocketPair sockets;
    for (const std::uint64_t value :
         {~std::uint64_t{0}, std::uint64_t{0xffffffff}, std::uint64_t{1} << 40, file,
          sockets.served() + (std::uint64_t{1} << 32)}) {
        EXPECT_EQ(failureOf([&] { service.sendSocket(value, 30.0); }),
                  "Unable to duplicate socket");
    }
    kyTest::closeSocket(file);

    auto sent = std::async(std::launch::async, [&] { service.sendSocket(sockets.served(), 30.0); });
    EXPECT_TRUE(standForSocket(client.receive(8), sockets.served()));
    client.send(pipeBytes(0));
    sent.get();
}

TEST(kySocketPipe, clientDiesBeforeItsProcessId)
{
    const SocketPair sockets;
    for (const std::string& bytes : {std::string(), std::string("abc")}) {
        kySocketPipe service(false);
        {
            RawPipe client = RawPipe::connect(service.getName());
            if (!bytes.empty()) {
                client.send(bytes);
            }
        }
        if (!kyTest::isGoneClientPassedOver()) {
            EXPECT_EQ(failureOf([&] { service.sendSocket(sockets.served(), 30.0); }),
                      "Unable to read process id");
            continue;
        }
        EXPECT_EQ(failureOf([&] { service.sendSocket(sockets.served(), 0.3); }), "(time-out)");
        kySocketPipe server(service.getName());
        auto received = std::async(std::launch::async, [&] { return server.recvSocket(30.0); });
        service.sendSocket(sockets.served(), 30.0);
        kyTest::closeSocket(received.get());
    }
}

TEST(kySocketPipe, processIdMayTrickle)
{
    kySocketPipe service(false);
    RawPipe client = RawPipe::connect(service.getName());
    const SocketPair sockets;
    auto sent = std::async(std::launch::async, [&] { service.sendSocket(sockets.served(), 0.01); });
    for (const char byte : pipeBytes(kyPlatform::getProcessId()).substr(0, 4)) {
        // Only waiting for the client is limited, not the exchange that has begun.
        EXPECT_EQ(sent.wait_for(std::chrono::milliseconds(30)), std::future_status::timeout);
        client.send(std::string(1, byte));
    }
    EXPECT_TRUE(standForSocket(client.receive(8), sockets.served()));
    client.send(pipeBytes(0));
    sent.get();
}

TEST(kySocketPipe, receiverDiesBeforeItsAcknowledgement)
{
    const SocketPair sockets;
    for (const std::string& bytes : {std::string(), std::string("1234567")}) {
        kySocketPipe service(false);
        auto client = std::make_unique<RawPipe>(connectWithProcessId(service));
        auto sent = std::async(std::launch::async, [&] {
            return failureOf([&] { service.sendSocket(sockets.served(), 30.0); });
        });
        EXPECT_TRUE(standForSocket(client->receive(8), sockets.served()));
        if (!bytes.empty()) {
            client->send(bytes);
        }
        client.reset();
        EXPECT_EQ(sent.get(), "Error on socket transfer to server");
        EXPECT_EQ(failureOf([&] { service.sendSocket(sockets.served(), 30.0); }),
                  "Unable to pass socket to server");
    }
}

TEST(kySocketPipe, shutdownWaitsForATransferThatHasBegun)
{
    kySocketPipe service(false);
    RawPipe client = connectWithProcessId(service);
    const SocketPair sockets;
    auto sent = std::async(std::launch::async, [&] { service.sendSocket(sockets.served(), 30.0); });
    EXPECT_TRUE(standForSocket(client.receive(8), sockets.served()));
    auto ended = std::async(std::launch::async, [&] { service.shutdown(); });
    EXPECT_EQ(ended.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    client.send(pipeBytes(sockets.served()));
    sent.get();
    ended.get();
    EXPECT_EQ(client.receive(1), "");
}

TEST(kySocketPipe, valueMayTrickleAcrossTimeOuts)
{
    const SocketPair sockets;
    // The socket may come with any of the eight bytes.
    for (std::size_t at = 0; at < 8; ++at) {
        Hostile pipe("trickle");
        const std::string bytes = socketBytes(sockets.served(), "12345678");
        for (std::size_t index = 0; index < 8; ++index) {
            EXPECT_EQ(failureOf([&] { pipe.server->recvSocket(0.002); }), "(time-out)");
            pipe.service.send(bytes.substr(index, 1),
                              index == at ? std::vector<std::uint64_t>{sockets.served()}
                                          : std::vector<std::uint64_t>{});
        }
        kyTest::closeSocket(pipe.server->recvSocket(30.0));
        EXPECT_EQ(pipe.service.receive(12).substr(4), bytes);
    }
}

TEST(kySocketPipe, twoValuesSentAtOnceAreTwoSockets)
{
    Hostile pipe("two");
    const SocketPair first;
    const SocketPair second;
    const std::string bytes = socketBytes(first.served(), "11111111");
    const std::string more = socketBytes(second.served(), "22222222");
    pipe.service.send(bytes, {first.served()});
    pipe.service.send(more, {second.served()});
    for (const SocketPair* sockets : {&first, &second}) {
        const std::uint64_t received = pipe.server->recvSocket(30.0);
        kyTest::sendText(received, "here");
        EXPECT_EQ(receiveText(sockets->client(), 4), "here");
        kyTest::closeSocket(received);
    }
    EXPECT_EQ(pipe.service.receive(20).substr(4), bytes + more);
}

TEST(kySocketPipe, valueWithoutASocketIsAnErrorForBothSides)
{
    Hostile pipe("none");
    pipe.service.send("12345678");
    EXPECT_EQ(failureOf([&] { pipe.server->recvSocket(30.0); }), "Error waiting for new socket");
    // No acknowledgement: the process id and the end.
    EXPECT_EQ(pipe.service.receive(12).size(), 4u);
    EXPECT_EQ(failureOf([&] { pipe.server->recvSocket(30.0); }), "(closed)");
}

TEST(kySocketPipe, fileInsteadOfASocketIsAnError)
{
    Hostile pipe("file");
    const std::uint64_t file = kyTest::openFile();
    pipe.service.send(pipeBytes(file), {file});
    EXPECT_EQ(failureOf([&] { pipe.server->recvSocket(30.0); }), "Error waiting for new socket");
    kyTest::closeSocket(file);
}

TEST(kySocketPipe, surplusSocketsAreClosed)
{
    Hostile pipe("surplus");
    const SocketPair sockets;
    const std::size_t before = kyTest::countDescriptors();
    const std::uint64_t served = sockets.served();
    pipe.service.send("1234", {served, served, served});
    pipe.service.send("5678", {served, served});
    const std::uint64_t received = pipe.server->recvSocket(30.0);
    EXPECT_EQ(kyTest::countDescriptors(), before + 1) << kyTest::describeDescriptors();
    kyTest::closeSocket(received);
}

TEST(kySocketPipe, moreSocketsThanFitAreAllClosed)
{
    Hostile pipe("flood");
    const SocketPair sockets;
    const std::size_t before = kyTest::countDescriptors();
    pipe.service.send("12345678", std::vector<std::uint64_t>(200, sockets.served()));
    EXPECT_EQ(failureOf([&] { pipe.server->recvSocket(30.0); }), "Error waiting for new socket");
    EXPECT_EQ(kyTest::countDescriptors(), before) << kyTest::describeDescriptors();
}

TEST(kySocketPipe, noDescriptorLeftForAReceivedSocket)
{
    goTheWholeRoadOnce();
    Hostile pipe("limit");
    const SocketPair sockets;
    pipe.service.send(socketBytes(sockets.served(), "12345678"), {sockets.served()});
    const kyTest::DescriptorLimit limit(1);
    EXPECT_EQ(failureOf([&] { pipe.server->recvSocket(30.0); }), "Error waiting for new socket");
}

TEST(kySocketPipe, noDescriptorLeftForAPipe)
{
    goTheWholeRoadOnce();
    const kySocketPipe other(false);
    const kyTest::DescriptorLimit limit(1);
    EXPECT_EQ(failureOf([] { kySocketPipe pipe(false); }),
              "CreateNamedPipe failed. Error:" + std::to_string(kyTest::tooManyOpenCode()));
    EXPECT_EQ(failureOf([&] { kySocketPipe pipe(other.getName()); }),
              "Unable to connect to named pipe. " + kyTest::tooManyOpenText());
}

TEST(kySocketPipe, noDescriptorLeftForTheClient)
{
    goTheWholeRoadOnce();
    Local pipe;
    const SocketPair sockets;
    {
        const kyTest::DescriptorLimit limit(1);
        EXPECT_EQ(failureOf([&] { pipe.service.sendSocket(sockets.served(), 30.0); }),
                  "Unable to connect pipe");
    }
    auto sent = pipe.send(sockets.served());
    kyTest::closeSocket(pipe.server.recvSocket(30.0));
    sent.get();
}

TEST(kySocketPipe, senderDiesInTheMiddleOfAValue)
{
    Hostile pipe("middle");
    const SocketPair sockets;
    pipe.service.send("1234", {sockets.served()});
    EXPECT_EQ(failureOf([&] { pipe.server->recvSocket(0.05); }), "(time-out)");
    pipe.service.close();
    EXPECT_EQ(failureOf([&] { pipe.server->recvSocket(30.0); }), "(closed)");
}

TEST(kySocketPipe, senderDiesBeforeTheAcknowledgement)
{
    Hostile pipe("unread");
    EXPECT_EQ(failureOf([&] { pipe.server->recvSocket(0.01); }), "(time-out)");
    const SocketPair sockets;
    const std::size_t before = kyTest::countDescriptors();
    pipe.service.send(socketBytes(sockets.served(), "12345678"), {sockets.served()});
    pipe.service.receive(4);
    pipe.service.close();
    EXPECT_EQ(failureOf([&] { pipe.server->recvSocket(30.0); }),
              "Unable acknowledge received socket");
    EXPECT_LT(kyTest::countDescriptors(), before) << kyTest::describeDescriptors();
}

TEST(kySocketPipe, pendingSocketIsClosedWithThePipe)
{
    Hostile pipe("pending");
    const SocketPair sockets;
    pipe.service.send("1234", {sockets.served()});
    EXPECT_EQ(failureOf([&] { pipe.server->recvSocket(0.05); }), "(time-out)");
    // The fixture counts what is left.
}

TEST(kySocketPipe, socketThatNobodyReceivesIsClosedWithThePipe)
{
    const SocketPair sockets;
    for (const bool isAwaited : {false, true}) {
        Hostile pipe("unreceived");
        if (isAwaited) {
            EXPECT_EQ(failureOf([&] { pipe.server->recvSocket(0.01); }), "(time-out)");
        }
        pipe.service.send(socketBytes(sockets.served(), "12345678"), {sockets.served()});
        // The fixture counts what is left.
    }
}

TEST(kySocketPipe, interruptedReceiverGoesOnWaiting)
{
    Local pipe;
    const SocketPair sockets;
    const kyTest::Interruptions interruptions;
    const auto begin = Clock::now();
    EXPECT_EQ(failureOf([&] { pipe.server.recvSocket(0.2); }), "(time-out)");
    EXPECT_GE(secondsSince(begin), 0.2);
    for (int round = 0; round < 50; ++round) {
        auto sent = std::async(std::launch::async, [&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            pipe.service.sendSocket(sockets.served(), 30.0);
        });
        kyTest::closeSocket(pipe.server.recvSocket(30.0));
        sent.get();
    }
}

TEST(kySocketPipe, interruptedSenderGoesOnWaiting)
{
    kySocketPipe service(false);
    const SocketPair sockets;
    const kyTest::Interruptions interruptions;
    const auto begin = Clock::now();
    EXPECT_EQ(failureOf([&] { service.sendSocket(sockets.served(), 0.2); }), "(time-out)");
    EXPECT_GE(secondsSince(begin), 0.2);

    auto answered = std::async(std::launch::async, [&] {
        RawPipe client = RawPipe::connect(service.getName());
        for (const char byte : pipeBytes(kyPlatform::getProcessId()).substr(0, 4)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            client.send(std::string(1, byte));
        }
        for (int round = 0; round < 50; ++round) {
            const std::string bytes = client.receive(8);
            EXPECT_TRUE(standForSocket(bytes, sockets.served()));
            client.send(bytes.substr(0, 3));
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            client.send(bytes.substr(3));
        }
    });
    for (int round = 0; round < 50; ++round) {
        service.sendSocket(sockets.served(), 30.0);
    }
    answered.get();
}

TEST(kySocketPipe, otherProcessServesSeveralClients)
{
    kySocketPipe service(false);
    Child server(service.getName(), "serve");
    for (int count = 1; count <= 5; ++count) {
        SocketPair sockets;
        service.sendSocket(sockets.served(), 30.0);
        sockets.closeServed();
        const std::string expected = "client " + std::to_string(count);
        EXPECT_EQ(receiveText(sockets.client(), expected.size()), expected);
        // Nobody but the server held the connection.
        EXPECT_EQ(receiveText(sockets.client(), 1), "");
    }
    service.shutdown();
    EXPECT_TRUE(server.hasWritten("no more clients"));
    EXPECT_TRUE(server.hasEnded());
}

TEST(kySocketPipe, otherProcessDiesAtEveryStage)
{
    const std::vector<std::pair<std::string, std::string>> stages{
        {"die-before-process-id", "Unable to read process id"},
        {"die-in-process-id", "Unable to read process id"},
        {"die-before-acknowledgement", "Error on socket transfer to server"},
    };
    for (const auto& [act, expected] : stages) {
        kySocketPipe service(false);
        Child server(service.getName(), act);
        SocketPair sockets;
        EXPECT_EQ(failureOf([&] { service.sendSocket(sockets.served(), 30.0); }), expected) << act;
        EXPECT_TRUE(server.hasEnded());
        // The client is still connected to the service, which may tell it.
        kyTest::sendText(sockets.served(), "sorry");
        EXPECT_EQ(receiveText(sockets.client(), 5), "sorry");
    }
}

TEST(kySocketPipe, otherProcessIsKilledWhileItWaits)
{
    kySocketPipe service(false);
    Child server(service.getName(), "serve");
    const SocketPair sockets;
    service.sendSocket(sockets.served(), 30.0);
    server.process.kill();
    EXPECT_TRUE(server.hasEnded());
    const std::string failure = failureOf([&] { service.sendSocket(sockets.served(), 30.0); });
    // A system that gives the socket to the process itself needs one that lives.
    EXPECT_THAT(failure, AnyOf(std::string("Unable to pass socket to server"),
                               std::string("Unable to duplicate socket")));
}

TEST(kySocketPipe, otherProcessThatSendsDies)
{
    const std::string name = uniqueName("service");
    Child service("", "send-one-and-die:" + name);
    ASSERT_TRUE(service.hasWritten("ready"));
    kySocketPipe server(name);
    const std::uint64_t received = server.recvSocket(30.0);
    EXPECT_EQ(failureOf([&] { server.recvSocket(30.0); }), "(closed)");
    EXPECT_TRUE(service.hasEnded());
    // The other end of the connection died with the service.
    EXPECT_EQ(receiveText(received, 1), "");
    kyTest::closeSocket(received);
}

TEST(kySocketPipe, processOfAnotherUserIsDroppedAndTheWaitGoesOn)
{
    if (!kyTest::isAdministrator()) {
        GTEST_SKIP() << "Only the administrator can become another user.";
    }
    kySocketPipe service(false);
    Child foreign(service.getName(), "connect-as-nobody");
    ASSERT_TRUE(foreign.hasWritten("connected"));
    const SocketPair sockets;
    EXPECT_EQ(failureOf([&] { service.sendSocket(sockets.served(), 0.5); }), "(time-out)");
    EXPECT_TRUE(foreign.hasWritten("received 0"));
    EXPECT_TRUE(foreign.hasEnded());

    kySocketPipe server(service.getName());
    auto received = std::async(std::launch::async, [&] { return server.recvSocket(30.0); });
    service.sendSocket(sockets.served(), 30.0);
    kyTest::closeSocket(received.get());
}

TEST(kySocketPipe, pipeOfAnotherUserIsNotOpened)
{
    if (!kyTest::isAdministrator()) {
        GTEST_SKIP() << "Only the administrator can become another user.";
    }
    const std::string name = uniqueName("foreign");
    Child foreign("", "serve-as-nobody:" + name);
    ASSERT_TRUE(foreign.hasWritten("ready"));
    // The administrator trusts nobody but itself.
    EXPECT_EQ(failureOf([&] { kySocketPipe pipe(name); }),
              "Unable to connect to named pipe. " + kyTest::accessDeniedText());
    EXPECT_TRUE(foreign.hasEnded());
}

TEST(kySocketPipe, openAndCloseAThousandTimes)
{
    for (int round = 0; round < 1000; ++round) {
        kySocketPipe service(round % 2 == 0);
        kySocketPipe server(service.getName());
        if (round % 3 == 0) {
            service.shutdown();
        }
        if (round % 5 == 0) {
            server.shutdown();
        }
    }
}
