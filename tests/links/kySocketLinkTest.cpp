#include <NetBase/links/kySocketLink.h>

#include <chrono>
#include <future>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyConnectionTimeout.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/buffers/kyNetInterfaceOptions.h>
#include <NetBase/links/kyBoundSocketLink.h>
#include <NetBase/links/kyNetLinkPin.h>
#include <NetBase/links/kySocketPipe.h>
#include <NetBase/platform/kyAddresses.h>
#include <NetBase/platform/kyLastError.h>
#include <NetBase/platform/kySockets.h>
#include <NetBase/serialization/kyNetStream.h>
#include <tests/links/kyLinkFixtures.h>
#include <tests/support/kyTestPolling.h>

namespace {

using kyTest::Blocked;
using kyTest::bytesOf;
using kyTest::describeCode;
using kyTest::expectPrepared;
using kyTest::failureOf;
using kyTest::getSocketOptions;
using kyTest::LinkAndPeer;
using kyTest::LinkPair;
using kyTest::makeBuffer;
using kyTest::OpenLink;
using kyTest::RawListener;
using kyTest::RawSocket;
using kyTest::SocketOptions;
using kyTest::wordOf;

constexpr std::uint32_t s_handshakeWord = 101010101;
const char* const s_outOfSync = "Received invalid buffer size. Possibly stream is out of sync.";

double secondsOf(const std::function<void()>& action)
{
    const auto begin = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

kySocketAddress loopback(int port)
{
    return kySocketAddress("127.0.0.1", port);
}

[[noreturn]] void sendForEver(kySocketLink& link)
{
    const std::string bytes(1 << 16, 'x');
    while (true) {
        link.send(bytes.data(), bytes.size());
    }
}

/// Sends until the peer, who reads nothing, has no room left. Room that the system finds a moment
/// later, while it still moves what was sent, is filled too.
void sendUntilFull(kySocketLink& link)
{
    do {
        link.setBlocking(false);
        EXPECT_THROW(sendForEver(link), kyNetError);
        link.setBlocking(true);
    } while (link.pollWritable(0.1));
}

} // namespace

// Framing

TEST(kySocketLink, sendsHeaderAndDataWithNothingAround)
{
    LinkAndPeer ends;
    const auto buffer = makeBuffer(1000);
    ends.link->send(buffer);
    ends.link->send(makeBuffer(0));
    ends.link->shutdown();
    EXPECT_EQ(ends.peer.receive(5000), bytesOf(*buffer) + bytesOf(*makeBuffer(0)));
}

TEST(kySocketLink, sendsAnEmptyBufferAsItsHeader)
{
    LinkPair ends;
    ends.first->send(makeBuffer(0));
    EXPECT_TRUE(ends.second->pollReadable(10.0));
    EXPECT_EQ(ends.second->getAvailable(), 20u);
    std::shared_ptr<kyNetBuffer> received;
    ends.second->recv(received);
    EXPECT_EQ(received->getDataSize(), 0u);
    EXPECT_EQ(bytesOf(*received), bytesOf(*makeBuffer(0)));
}

TEST(kySocketLink, encryptsEverythingButTheSize)
{
    LinkAndPeer ends;
    ends.link->setCipher(std::make_shared<kyTest::XorCipher>());
    const auto buffer = makeBuffer(300);
    ends.link->send(buffer);

    std::string expected = bytesOf(*buffer);
    for (std::size_t i = 4; i < expected.size(); ++i) {
        expected[i] = static_cast<char>(expected[i] ^ static_cast<char>(0x5a + (i - 4) * 31));
    }
    EXPECT_EQ(ends.peer.receive(320), expected);
}

TEST(kySocketLink, acceptsABufferThatIsFull)
{
    LinkAndPeer ends;
    const auto buffer = makeBuffer(kyNetBuffer::getCapacity());
    Blocked sender([&] { ends.peer.send(bytesOf(*buffer)); });
    std::shared_ptr<kyNetBuffer> received;
    ends.link->recv(received);
    EXPECT_EQ(bytesOf(*received), bytesOf(*buffer));
    sender.finish();
}

TEST(kySocketLink, refusesASizeAboveTheCapacityAfterTheHeader)
{
    for (const std::uint64_t size :
         {kyNetBuffer::getCapacity() + 1, std::uint64_t{0x7fffffff}, std::uint64_t{0x80000000},
          std::uint64_t{0xffffffec}, std::uint64_t{0xffffffff}}) {
        LinkAndPeer ends;
        std::string header = wordOf(static_cast<std::uint32_t>(size)) + std::string(16, 'h');
        ends.peer.send(header + "rest");
        std::shared_ptr<kyNetBuffer> received;
        EXPECT_EQ(failureOf<kyNetError>([&] { ends.link->recv(received); }), s_outOfSync);
        ASSERT_TRUE(received);
        EXPECT_EQ(received->getDataSize(), 0u);

        // The link is as it was, and exactly the header is gone.
        ends.link->checkAlive();
        char rest[5] = {};
        ends.link->recv(rest, 4);
        EXPECT_STREQ(rest, "rest");
    }
}

TEST(kySocketLink, refusesASizeBeforeItDecrypts)
{
    LinkAndPeer ends;
    ends.link->setCipher(std::make_shared<kyTest::XorCipher>());
    ends.peer.send(wordOf(0xffffffff) + std::string(16, 'h'));
    std::shared_ptr<kyNetBuffer> received;
    EXPECT_EQ(failureOf<kyNetError>([&] { ends.link->recv(received); }), s_outOfSync);
}

TEST(kySocketLink, receivesIntoAFreshBufferOfAutomaticSendMode)
{
    LinkPair ends;
    for (int i = 0; i < 3; ++i) {
        const auto sent = makeBuffer(10);
        sent->setSendMode(kyNetBufferSendMode::Second);
        ends.first->send(sent);
        auto kept = makeBuffer(5);
        auto received = kept;
        ends.second->recv(received);
        EXPECT_NE(received, kept);
        EXPECT_EQ(received->getSendMode(), kyNetBufferSendMode::Automatic);
        received->setSendMode(kyNetBufferSendMode::First); // Goes back to the pool so.
    }
}

TEST(kySocketLink, receivesWhatTricklesByteByByte)
{
    LinkAndPeer ends;
    const auto buffer = makeBuffer(100);
    const std::string bytes = bytesOf(*buffer) + bytesOf(*makeBuffer(0));
    Blocked trickle([&] {
        for (const char byte : bytes) {
            ends.peer.send(std::string(1, byte));
            std::this_thread::yield();
        }
    });
    std::shared_ptr<kyNetBuffer> received;
    ends.link->recv(received);
    EXPECT_EQ(bytesOf(*received), bytesOf(*buffer));
    ends.link->recv(received);
    EXPECT_EQ(bytesOf(*received), bytesOf(*makeBuffer(0)));
    trickle.finish();
}

TEST(kySocketLink, receivesABufferThatIsSplitAnywhere)
{
    LinkAndPeer ends;
    ends.link->setCipher(std::make_shared<kyTest::XorCipher>());
    const auto clear = makeBuffer(30);
    LinkAndPeer encrypting;
    encrypting.link->setCipher(std::make_shared<kyTest::XorCipher>());
    encrypting.link->send(clear);
    const std::string bytes = encrypting.peer.receive(50);

    for (std::size_t split = 1; split < bytes.size(); ++split) {
        ends.peer.send(bytes.substr(0, split));
        Blocked receiver([&] {
            std::shared_ptr<kyNetBuffer> received;
            ends.link->recv(received);
            EXPECT_EQ(bytesOf(*received), bytesOf(*clear)) << split;
        });
        EXPECT_TRUE(receiver.isBlocked());
        ends.peer.send(bytes.substr(split));
        receiver.finish();
    }
}

// How a receive waits

TEST(kySocketLink, receivesAlikeHoweverLongItPolls)
{
    for (const int microseconds : {0, 1, kyNetOptions::getMaxReceivePolling()}) {
        const kyTest::ReceivePolling polling(microseconds);
        LinkAndPeer ends;
        ends.link->setRecvTimeout(0.05);
        std::shared_ptr<kyNetBuffer> received;
        for (int i = 0; i < 6; ++i) { // More often than it takes to give polling up.
            EXPECT_THROW(ends.link->recv(received), kyConnectionTimeout);
        }
        ends.link->setRecvTimeout(0.0);
        const std::string bytes = bytesOf(*makeBuffer(50));
        Blocked receiver([&] {
            for (int i = 0; i < 100; ++i) {
                ends.link->recv(received);
                EXPECT_EQ(bytesOf(*received), bytes);
            }
        });
        EXPECT_TRUE(receiver.isBlocked());
        for (int i = 0; i < 100; ++i) {
            ends.peer.send(bytes.substr(0, 30));
            std::this_thread::yield();
            ends.peer.send(bytes.substr(30));
        }
        receiver.finish();
        ends.peer.send(bytes.substr(0, 30));
        ends.peer.reset();
        EXPECT_THROW(ends.link->recv(received), kyConnectionClosed);
        EXPECT_THROW(ends.link->checkAlive(), kyConnectionClosed);
    }
}

TEST(kySocketLink, endsAReceiveWhileItPolls)
{
    const kyTest::ReceivePolling polling(kyNetOptions::getMaxReceivePolling());
    for (int i = 0; i < 100; ++i) {
        LinkPair ends;
        Blocked receiver([&] {
            char byte = 0;
            EXPECT_THROW(ends.first->recv(&byte, 1), kyConnectionClosed);
        });
        if (i % 2 == 0) {
            ends.first->shutdown();
        } else {
            ends.second->shutdown();
        }
        receiver.finish();
    }
}

TEST(kySocketLink, sendsMoreThanFitsIntoTheSystem)
{
    LinkPair ends;
    const std::string sent(20 << 20, 'x');
    Blocked sender([&] { ends.first->send(sent.data(), sent.size()); });
    std::string received(sent.size(), ' ');
    ends.second->recv(received.data(), received.size());
    EXPECT_TRUE(received == sent);
    sender.finish();
}

TEST(kySocketLink, failsToSendManyAsItFailsToSendOne)
{
    const std::vector<std::shared_ptr<kyNetBuffer>> buffers(100, makeBuffer(131072));
    LinkAndPeer resetting;
    sendUntilFull(*resetting.link);
    Blocked sender([&] { resetting.link->sendMany(buffers); });
    EXPECT_TRUE(sender.isBlocked());
    resetting.peer.reset();
    EXPECT_THROW(sender.finish(), kyConnectionClosed);

    LinkAndPeer ending;
    sendUntilFull(*ending.link);
    Blocked woken([&] { ending.link->sendMany(buffers); });
    EXPECT_TRUE(woken.isBlocked());
    ending.link->shutdown();
    EXPECT_THROW(woken.finish(), kyConnectionClosed);
    EXPECT_THROW(ending.link->sendMany(buffers), kyConnectionClosed);

    LinkAndPeer full;
    full.link->setBlocking(false);
    EXPECT_EQ(failureOf<kyNetError>([&] {
                  for (;;) {
                      full.link->sendMany(buffers);
                  }
              }),
              "send error. " + describeCode(kyTest::getWouldBlockCode()));
    full.link->checkAlive();
}

TEST(kySocketLink, transfersNothingWithoutWaiting)
{
    LinkPair ends;
    ends.first->recv(nullptr, 0);
    ends.first->send(nullptr, 0);
    EXPECT_FALSE(ends.second->pollReadable(0.0));

    ends.first->shutdown();
    EXPECT_THROW(ends.first->recv(nullptr, 0), kyConnectionClosed);
    EXPECT_THROW(ends.first->send(nullptr, 0), kyConnectionClosed);
}

TEST(kySocketLink, appendsOneBufferOfRecvAvailable)
{
    LinkPair ends;
    ends.first->send(makeBuffer(1, 1));
    ends.first->send(makeBuffer(2, 2));
    std::queue<std::shared_ptr<kyNetBuffer>> queue;
    ends.second->recvAvailable(queue);
    ASSERT_EQ(queue.size(), 1u);
    EXPECT_EQ(bytesOf(*queue.front()), bytesOf(*makeBuffer(1, 1)));
}

// A peer that goes

TEST(kySocketLink, isShutDownWhenThePeerClosesBetweenBuffers)
{
    LinkAndPeer ends;
    ends.peer.send(bytesOf(*makeBuffer(3)));
    ends.peer.close();
    std::shared_ptr<kyNetBuffer> received;
    ends.link->recv(received);
    ends.link->checkAlive();
    EXPECT_EQ(failureOf<kyConnectionClosed>([&] { ends.link->recv(received); }),
              "Connection closed");
    EXPECT_EQ(failureOf<kyConnectionClosed>([&] { ends.link->checkAlive(); }), "Connection closed");
    EXPECT_EQ(ends.link->getDescriptor(), s_invalidSocketHandle);
    EXPECT_EQ(ends.link->getRecvHandle(), 0xffffffffu);
}

TEST(kySocketLink, isClosedByAPeerThatClosesInsideABuffer)
{
    const std::string bytes = bytesOf(*makeBuffer(30));
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        LinkAndPeer ends;
        ends.peer.send(bytes.substr(0, length));
        ends.peer.halfClose();
        std::shared_ptr<kyNetBuffer> received;
        EXPECT_THROW(ends.link->recv(received), kyConnectionClosed) << length;
        ASSERT_TRUE(received);
        EXPECT_EQ(received->getDataSize(), 0u);
        EXPECT_THROW(ends.link->checkAlive(), kyConnectionClosed);
    }
}

TEST(kySocketLink, isClosedByAResetInsideABuffer)
{
    const std::string bytes = bytesOf(*makeBuffer(30));
    for (const std::size_t length : {0u, 1u, 4u, 19u, 20u, 21u, 49u}) {
        LinkAndPeer ends;
        ends.peer.send(bytes.substr(0, length));
        Blocked receiver([&] {
            std::shared_ptr<kyNetBuffer> received;
            EXPECT_THROW(ends.link->recv(received), kyConnectionClosed) << length;
        });
        EXPECT_TRUE(receiver.isBlocked());
        ends.peer.reset();
        receiver.finish();
        EXPECT_THROW(ends.link->checkAlive(), kyConnectionClosed);
    }
}

TEST(kySocketLink, receivesWhatWasSentBeforeAHalfClose)
{
    LinkAndPeer ends;
    ends.peer.send(bytesOf(*makeBuffer(30)));
    ends.peer.halfClose();
    std::shared_ptr<kyNetBuffer> received;
    ends.link->recv(received);
    EXPECT_EQ(bytesOf(*received), bytesOf(*makeBuffer(30)));
    ends.link->send(makeBuffer(7)); // The other direction stands.
    EXPECT_EQ(ends.peer.receive(27), bytesOf(*makeBuffer(7)));
    EXPECT_THROW(ends.link->recv(received), kyConnectionClosed);
}

TEST(kySocketLink, failsToSendToAPeerThatIsGone)
{
    LinkAndPeer ends;
    ends.peer.reset();
    EXPECT_EQ(failureOf<kyConnectionClosed>([&] {
                  while (true) {
                      ends.link->send(makeBuffer(1000));
                  }
              }),
              "Connection closed");
    // A failed send does not shut the link down.
    ends.link->checkAlive();
    EXPECT_NE(ends.link->getDescriptor(), s_invalidSocketHandle);
}

TEST(kySocketLink, failsToSendToAPeerThatResetsWhileItSends)
{
    LinkAndPeer ends;
    sendUntilFull(*ends.link);
    Blocked sender([&] { sendForEver(*ends.link); });
    EXPECT_TRUE(sender.isBlocked());
    ends.peer.reset();
    EXPECT_THROW(sender.finish(), kyConnectionClosed);
}

// A derived link hears that its connection has ended.
TEST(kySocketLink, isShutDownAsItsOwnClassDoesIt)
{
    class NotingLink : public kySocketLink
    {
    public:
        using kySocketLink::kySocketLink;
        void shutdown() override
        {
            ++m_shutdowns;
            kySocketLink::shutdown();
        }
        int m_shutdowns = 0;
    };
    const auto handles = kyTest::makeConnection();
    RawSocket(handles.second).close();
    NotingLink link(handles.first);
    char byte = 0;
    EXPECT_THROW(link.recv(&byte, 1), kyConnectionClosed);
    EXPECT_EQ(link.m_shutdowns, 1);
}

TEST(kySocketLink, judgesNoTransferByAnOldError)
{
    LinkAndPeer ends;
    ends.peer.halfClose();
    kyLastError::set(kyTest::getTimedOutCode());
    char byte = 0;
    EXPECT_THROW(ends.link->recv(&byte, 1), kyConnectionClosed);
}

TEST(kySocketLink, saysWhyAReceiveFailed)
{
    OpenLink link(kyTest::makeUnconnected());
    char byte = 0;
    EXPECT_EQ(failureOf<kyNetError>([&] { link.recv(&byte, 1); }),
              "recv error. " + describeCode(kyTest::getNotConnectedCode()));
    EXPECT_THROW(link.checkAlive(), kyConnectionClosed);
}

TEST(kySocketLink, takesAResetAndAnAbortForTheEnd)
{
    for (const int code : {kyTest::getResetCode(), kyTest::getAbortedCode()}) {
        LinkPair ends;
        kyTest::runWithFailingReceive(code, [&] {
            char byte = 0;
            EXPECT_THROW(ends.first->recv(&byte, 1), kyConnectionClosed);
        });
        EXPECT_THROW(ends.first->checkAlive(), kyConnectionClosed);
    }
}

// The code of a connection that the system gave up is not the one of a time limit.
TEST(kySocketLink, takesADeadPeerForAFailureAndNoTimeout)
{
    LinkPair ends;
    ends.first->setRecvTimeout(5.0);
    kyTest::runWithFailingReceive(kyTest::getTimedOutCode(), [&] {
        char byte = 0;
        EXPECT_EQ(failureOf<kyNetError>([&] { ends.first->recv(&byte, 1); }),
                  "recv error. " + describeCode(kyTest::getTimedOutCode()));
    });
    EXPECT_THROW(ends.first->checkAlive(), kyConnectionClosed);
}

TEST(kySocketLink, saysWhyASendFailed)
{
    LinkPair ends;
    sendUntilFull(*ends.first);
    ends.first->setBlocking(false);
    EXPECT_EQ(failureOf<kyNetError>([&] { sendForEver(*ends.first); }),
              "send error. " + describeCode(kyTest::getWouldBlockCode()));
    ends.first->checkAlive();
}

// Without a time limit "try again" is a failure like any other.
TEST(kySocketLink, takesNothingThereForATimeoutOnlyWithATimeout)
{
    LinkPair ends;
    char byte = 0;
    ends.first->setBlocking(false);
    EXPECT_EQ(failureOf<kyNetError>([&] { ends.first->recv(&byte, 1); }),
              "recv error. " + describeCode(kyTest::getWouldBlockCode()));
    EXPECT_THROW(ends.first->checkAlive(), kyConnectionClosed);

    LinkPair limited;
    limited.first->setBlocking(false);
    limited.first->setRecvTimeout(5.0);
    EXPECT_THROW(limited.first->recv(&byte, 1), kyConnectionTimeout);
}

// Time limits

TEST(kySocketLink, timesOutAndStaysUsable)
{
    LinkAndPeer ends;
    ends.link->setRecvTimeout(0.5);
    std::shared_ptr<kyNetBuffer> received;
    const double seconds = secondsOf([&] {
        EXPECT_EQ(failureOf<kyConnectionTimeout>([&] { ends.link->recv(received); }),
                  "recv error: Connected party did not properly respond after a period of time.");
    });
    EXPECT_GE(seconds, 0.45);
    EXPECT_LT(seconds, 10.0);
    ASSERT_TRUE(received);
    EXPECT_EQ(received->getDataSize(), 0u);

    ends.link->checkAlive();
    ends.peer.send(bytesOf(*makeBuffer(50)));
    ends.link->recv(received);
    EXPECT_EQ(bytesOf(*received), bytesOf(*makeBuffer(50)));
}

TEST(kySocketLink, losesTheBytesBeforeATimeoutInsideABuffer)
{
    LinkAndPeer ends;
    ends.link->setRecvTimeout(0.05);
    const std::string bytes = bytesOf(*makeBuffer(50));
    ends.peer.send(bytes.substr(0, 10));
    std::shared_ptr<kyNetBuffer> received;
    EXPECT_THROW(ends.link->recv(received), kyConnectionTimeout);
    EXPECT_EQ(received->getDataSize(), 0u);
    ends.peer.send(bytes.substr(10));
    char next[4];
    ends.link->recv(next, sizeof(next));
    EXPECT_EQ(std::string(next, 4), bytes.substr(10, 4));
}

TEST(kySocketLink, timesOutThoughSignalsInterrupt)
{
    LinkPair ends;
    ends.first->setRecvTimeout(0.3);
    Blocked receiver([&] {
        char byte = 0;
        EXPECT_THROW(ends.first->recv(&byte, 1), kyConnectionTimeout);
    });
    const kyTest::ThreadInterruptions interruptions(receiver.getId());
    receiver.finish();
}

TEST(kySocketLink, losesNoByteToSignals)
{
    LinkPair ends;
    const std::string sent(8 << 20, 'x');
    Blocked sender([&] { ends.first->send(sent.data(), sent.size()); });
    Blocked receiver([&] {
        std::string received(sent.size() + 1, ' ');
        ends.second->recv(received.data(), received.size());
        EXPECT_TRUE(received == sent + "y");
        EXPECT_FALSE(ends.second->pollReadable(0.2));
    });
    {
        const kyTest::ThreadInterruptions interruptions(receiver.getId());
        sender.finish();
        EXPECT_TRUE(receiver.isBlocked());
        EXPECT_TRUE(kyTest::waitUntil([] { return kyTest::ThreadInterruptions::count() > 3; }));
        ends.first->send("y", 1);
        receiver.finish();
    }
}

TEST(kySocketLink, setsTheReceiveTimeoutInWholeMilliseconds)
{
    LinkPair ends;
    const auto timeoutOf = [&](double seconds) {
        ends.first->setRecvTimeout(seconds);
        return getSocketOptions(ends.first->getDescriptor()).receiveTimeoutMilliseconds;
    };
    EXPECT_EQ(timeoutOf(0.5), 500);
    EXPECT_EQ(timeoutOf(30.0), 30000);
    EXPECT_EQ(timeoutOf(2.0009), 2000);
    EXPECT_EQ(timeoutOf(0.0), 0);
    EXPECT_EQ(timeoutOf(1.0), 1000);
    EXPECT_EQ(timeoutOf(0.0009), 0);
    EXPECT_EQ(timeoutOf(1.0), 1000);
    EXPECT_EQ(timeoutOf(-1.0), 0);
    EXPECT_EQ(timeoutOf(1.0), 1000);
    EXPECT_EQ(timeoutOf(std::numeric_limits<double>::quiet_NaN()), 0);
    EXPECT_GE(timeoutOf(1e300), std::numeric_limits<int>::max()); // The system rounds up.
}

TEST(kySocketLink, pollsWithoutWaiting)
{
    LinkAndPeer ends;
    EXPECT_LT(secondsOf([&] { EXPECT_FALSE(ends.link->pollReadable(0.0)); }), 5.0);
    EXPECT_TRUE(ends.link->pollWritable(0.0));
    ends.peer.send("x");
    EXPECT_TRUE(ends.link->pollReadable(10.0));
    EXPECT_TRUE(ends.link->pollReadable(0.0));
}

TEST(kySocketLink, pollsForTheTimeGiven)
{
    LinkPair ends;
    const double seconds = secondsOf([&] { EXPECT_FALSE(ends.first->pollReadable(0.3)); });
    EXPECT_GE(seconds, 0.29);
    EXPECT_LT(seconds, 10.0);
    EXPECT_LT(secondsOf([&] {
                  EXPECT_FALSE(ends.first->pollReadable(std::numeric_limits<double>::quiet_NaN()));
              }),
              5.0);
    sendUntilFull(*ends.first);
    EXPECT_FALSE(ends.first->pollWritable(0.05));
}

TEST(kySocketLink, pollsWithoutLimit)
{
    LinkAndPeer ends;
    Blocked reader([&] { EXPECT_TRUE(ends.link->pollReadable(-1.0)); });
    EXPECT_TRUE(reader.isBlocked());
    ends.peer.send("x");
    reader.finish();

    sendUntilFull(*ends.link);
    Blocked writer([&] { EXPECT_TRUE(ends.link->pollWritable(-1.0)); });
    EXPECT_TRUE(writer.isBlocked());
    while (!ends.link->pollWritable(0.0)) {
        ends.peer.receive(1 << 16);
    }
    writer.finish();
}

TEST(kySocketLink, pollsTheTimeGivenThoughSignalsInterrupt)
{
    LinkPair ends;
    Blocked reader([&] {
        const double seconds = secondsOf([&] { EXPECT_FALSE(ends.first->pollReadable(0.3)); });
        EXPECT_GE(seconds, 0.29);
        EXPECT_LT(seconds, 10.0);
    });
    const kyTest::ThreadInterruptions interruptions(reader.getId());
    reader.finish();
}

TEST(kySocketLink, pollsAPeerThatIsGone)
{
    LinkAndPeer ends;
    ends.peer.reset();
    EXPECT_TRUE(kyTest::waitUntil([&] { return !ends.link->pollWritable(0.0); }));
    char byte = 0;
    EXPECT_THROW(
        {
            ends.link->pollReadable(1.0);
            ends.link->recv(&byte, 1);
        },
        kyConnectionClosed);
}

// It may still read what it is sent.
TEST(kySocketLink, pollsAPeerThatSendsNoMore)
{
    LinkAndPeer ends;
    ends.peer.halfClose();
    EXPECT_TRUE(ends.link->pollReadable(10.0));
    EXPECT_TRUE(ends.link->pollWritable(10.0));

    sendUntilFull(*ends.link);
    EXPECT_TRUE(ends.link->pollReadable(0.0));
    EXPECT_FALSE(ends.link->pollWritable(0.0));
    Blocked writer([&] { EXPECT_TRUE(ends.link->pollWritable(-1.0)); });
    EXPECT_TRUE(writer.isBlocked());
    while (!ends.link->pollWritable(0.0)) {
        ends.peer.receive(1 << 16);
    }
    writer.finish();
}

TEST(kySocketLink, pollsAClosedLink)
{
    LinkPair ends;
    ends.first->shutdown();
    EXPECT_THROW(ends.first->pollReadable(0.0), kyConnectionClosed);
    EXPECT_THROW(ends.first->pollReadable(-1.0), kyConnectionClosed);
    EXPECT_FALSE(ends.first->pollWritable(-1.0));
}

TEST(kySocketLink, saysWhyAPollFailed)
{
    LinkPair ends;
    const auto failureOfPoll = [&](bool (kySocketLink::*poll)(double)) {
        const auto pollNow = [&] { (ends.first.get()->*poll)(0.0); };
        pollNow(); // Sanitizers need descriptors to learn a type.
        // The system refuses to poll more sockets than there may be.
        return kyTest::failureWithin<kyNetError>(0, pollNow);
    };
    const std::string expected = "poll error:" + describeCode(kyTest::getInvalidCode());
    EXPECT_EQ(failureOfPoll(&kySocketLink::pollReadable), expected);
    EXPECT_EQ(failureOfPoll(&kySocketLink::pollWritable), expected);
    ends.first->checkAlive();
}

// Looking ahead

TEST(kySocketLink, peeksWithoutConsuming)
{
    LinkAndPeer ends;
    char bytes[8] = {};
    EXPECT_EQ(ends.link->peekAvailable(bytes, sizeof(bytes)), 0u);
    ends.peer.send("abc");
    EXPECT_TRUE(ends.link->pollReadable(10.0));
    EXPECT_EQ(ends.link->peekAvailable(bytes, sizeof(bytes)), 3u);
    EXPECT_EQ(std::string(bytes, 3), "abc");
    EXPECT_EQ(ends.link->peekAvailable(bytes, 2), 2u);
    EXPECT_EQ(ends.link->peekAvailable(bytes, 0), 0u);
    EXPECT_EQ(ends.link->getAvailable(), 3u);
    char consumed[4] = {};
    ends.link->recv(consumed, 3);
    EXPECT_STREQ(consumed, "abc");
    ends.peer.close();
    EXPECT_TRUE(ends.link->pollReadable(10.0));
    EXPECT_EQ(ends.link->peekAvailable(bytes, sizeof(bytes)), 0u);
}

TEST(kySocketLink, cannotLookAheadOnAClosedLink)
{
    LinkPair ends;
    ends.first->shutdown();
    char byte = 0;
    EXPECT_EQ(failureOf<kyNetError>([&] { ends.first->peekAvailable(&byte, 1); }), "ioctlsocket()");
    EXPECT_EQ(failureOf<kyNetError>([&] { ends.first->getAvailable(); }), "ioctlsocket()");
}

TEST(kySocketLink, saysWhyAPeekFailed)
{
    LinkAndPeer ends;
    ends.peer.send("x");
    EXPECT_TRUE(ends.link->pollReadable(10.0));
    kyTest::runWithFailingReceive(kyTest::getNotConnectedCode(), [&] {
        char byte = 0;
        EXPECT_EQ(failureOf<kyNetError>([&] { ends.link->peekAvailable(&byte, 1); }),
                  "peek error. " + describeCode(kyTest::getNotConnectedCode()));
    });
    ends.link->checkAlive();
}

// Options

TEST(kySocketLink, adoptsASocketAsItIs)
{
    const auto handles = kyTest::makeConnection();
    const SocketOptions before = getSocketOptions(handles.first);
    LinkAndPeer ends(handles);
    const SocketOptions after = getSocketOptions(ends.link->getDescriptor());
    EXPECT_EQ(ends.link->getDescriptor(), handles.first);
    EXPECT_EQ(ends.link->getRecvHandle(), static_cast<std::uint32_t>(handles.first));
    EXPECT_EQ(after.noDelay, before.noDelay);
    EXPECT_EQ(after.lingers, before.lingers);
    EXPECT_EQ(after.keepsAlive, before.keepsAlive);
    EXPECT_FALSE(after.noDelay);
    EXPECT_FALSE(after.lingers);
    EXPECT_FALSE(after.keepsAlive);
}

TEST(kySocketLink, setsEveryOption)
{
    LinkPair ends;
    OpenLink& link = *ends.first;
    const auto options = [&] { return getSocketOptions(link.getDescriptor()); };

    link.setDelay(false);
    EXPECT_TRUE(options().noDelay);
    link.setDelay(true);
    EXPECT_FALSE(options().noDelay);

    link.setLinger(true, 1);
    EXPECT_TRUE(options().lingers);
    EXPECT_EQ(options().lingerSeconds, 1);
    link.setLinger(true, 65536 + 7); // 16 bits travel to the system.
    EXPECT_EQ(options().lingerSeconds, 7);
    link.setLinger(false, 0);
    EXPECT_FALSE(options().lingers);

    link.setReusePort(true);
    EXPECT_TRUE(options().reusesAddress);
    link.setReusePort(false);
    EXPECT_FALSE(options().reusesAddress);

    link.setKeepAlive();
    EXPECT_TRUE(options().keepsAlive);
    EXPECT_EQ(options().keepAliveIdleSeconds, 120);
    EXPECT_EQ(options().keepAliveIntervalSeconds, 1);

    link.setBlocking(false);
    EXPECT_FALSE(options().isBlocking);
    link.setBlocking(true);
    EXPECT_TRUE(options().isBlocking);

    testing::internal::CaptureStderr();
    link.useLoopbackFastPath();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

/// What a socket says that is bounded to one large buffer.
int boundedSendBuffer()
{
    const OpenLink link(kySockets::create(kyAddresses::s_familyIPv4));
    EXPECT_TRUE(kySockets::setSendBuffer(link.getDescriptor(), 131072));
    return getSocketOptions(link.getDescriptor()).sendBuffer;
}

void expectToPass(kySocketLink& from, kySocketLink& to, std::size_t size)
{
    std::string received(size, '\0');
    auto reader = std::async(std::launch::async, [&] { to.recv(received.data(), size); });
    const std::string bytes(size, 'x');
    from.send(bytes.data(), size);
    reader.get();
    EXPECT_EQ(received, bytes);
}

int sendBufferAfter(kySocketLink& from, kySocketLink& to, std::size_t size)
{
    expectToPass(from, to, size);
    return getSocketOptions(from.getDescriptor()).sendBuffer;
}

TEST(kySocketLink, boundsWhatIsOnItsWayOnceItCarriesLargeBuffersWithinTheMachine)
{
    LinkPair ends;
    const int before = getSocketOptions(ends.first->getDescriptor()).sendBuffer;
    ASSERT_NE(before, boundedSendBuffer());
    EXPECT_NE(sendBufferAfter(*ends.first, *ends.second, 98303), boundedSendBuffer());
    EXPECT_EQ(sendBufferAfter(*ends.first, *ends.second, 98304), boundedSendBuffer());
    EXPECT_NE(getSocketOptions(ends.second->getDescriptor()).sendBuffer, boundedSendBuffer());
    EXPECT_EQ(sendBufferAfter(*ends.second, *ends.first, 131072), boundedSendBuffer());
}

TEST(kySocketLink, boundsWhatIsOnItsWayBetweenLoopbackAddresses)
{
    const kyBoundSocketLink listening(0);
    const int port = listening.getAddress().getPort();
    kySocketLink near(kySocketAddress("127.0.1.1", port), 10.0); // A host's own name often is that.
    kySocketLink far(listening);
    EXPECT_EQ(sendBufferAfter(near, far, 131072), boundedSendBuffer());
    EXPECT_EQ(sendBufferAfter(far, near, 131072), boundedSendBuffer());
}

TEST(kySocketLink, boundsWhatIsOnItsWayIfAnyOfManyIsLarge)
{
    LinkPair ends;
    const auto sendMany = [&](const std::vector<std::shared_ptr<kyNetBuffer>>& buffers) {
        auto reader = std::async(std::launch::async, [&] {
            std::shared_ptr<kyNetBuffer> received;
            for (const auto& sent : buffers) {
                ends.second->recv(received);
                EXPECT_EQ(bytesOf(*received), bytesOf(*sent));
            }
        });
        ends.first->sendMany(buffers);
        reader.get();
        return getSocketOptions(ends.first->getDescriptor()).sendBuffer;
    };
    EXPECT_NE(sendMany({makeBuffer(10), makeBuffer(65536), makeBuffer(65536)}),
              boundedSendBuffer());
    EXPECT_EQ(sendMany({makeBuffer(10), makeBuffer(131072)}), boundedSendBuffer());
}

TEST(kySocketLink, sendsLargeBuffersWhereThereAreNoAddresses)
{
    const auto [near, far] = kyTest::makeLocalConnection();
    kySocketLink first(near);
    kySocketLink second(far);
    expectToPass(first, second, 131072);
}

TEST(kySocketLink, assignedConnectionIsBoundedByItsOwnLargeBuffers)
{
    LinkPair former;
    EXPECT_EQ(sendBufferAfter(*former.first, *former.second, 131072), boundedSendBuffer());
    LinkPair later;
    *former.first = *later.first;
    EXPECT_EQ(sendBufferAfter(*former.first, *later.second, 131072), boundedSendBuffer());
}

TEST(kySocketLink, setsIPv6Only)
{
    if (!kyTest::hasIPv6()) {
        GTEST_SKIP() << "no IPv6 here";
    }
    OpenLink link(kySockets::create(kyAddresses::s_familyIPv6));
    link.setIPv6Only(true);
    EXPECT_TRUE(getSocketOptions(link.getDescriptor()).isIPv6Only);
    link.setIPv6Only(false);
    EXPECT_FALSE(getSocketOptions(link.getDescriptor()).isIPv6Only);
}

TEST(kySocketLink, saysWhichOptionFailed)
{
    OpenLink closed(s_invalidSocketHandle);
    const std::string reason = describeCode(kyTest::getBadHandleCode());
    EXPECT_EQ(failureOf<kyNetError>([&] { closed.setDelay(false); }),
              "setsockopt(,SOCK_STREAM,TCP_NODELAY) " + reason);
    EXPECT_EQ(failureOf<kyNetError>([&] { closed.setLinger(true, 1); }),
              "setsockopt(,SOL_SOCKE,SO_LINGER) " + reason);
    EXPECT_EQ(failureOf<kyNetError>([&] { closed.setReusePort(true); }),
              "setsockopt(,SOL_SOCKET,SO_REUSEADDR) " + reason);
    EXPECT_EQ(failureOf<kyNetError>([&] { closed.setIPv6Only(true); }),
              "setsockopt(,IPPROTO_IPV6,IPV6_V6ONLY)" + reason);
    EXPECT_EQ(failureOf<kyNetError>([&] { closed.setBlocking(true); }),
              "unable to change socket blocking mode:" + reason);
    EXPECT_EQ(closed.getLastError(), kyTest::getBadHandleCode());
    closed.setKeepAlive();
    closed.setRecvTimeout(1.0);
}

TEST(kySocketLink, saysThatAClosedLinkHasNoAddresses)
{
    OpenLink closed(s_invalidSocketHandle);
    EXPECT_EQ(failureOf<kyNetError>([&] { closed.getAddress(); }), "Unable to get socket name");
    EXPECT_EQ(failureOf<kyNetError>([&] { closed.getPeerAddress(); }), "Unable to get socket peer");
    EXPECT_EQ(failureOf<kyNetError>([&] { closed.getLinkName(); }), "Unable to get socket name");

    OpenLink unconnected(kyTest::makeUnconnected());
    EXPECT_EQ(failureOf<kyNetError>([&] { unconnected.getLinkName(); }),
              "Unable to get socket peer");
}

TEST(kySocketLink, namesBothEnds)
{
    RawListener listener;
    OpenLink link(loopback(listener.getPort()), 5.0);
    RawSocket peer = listener.accept();
    EXPECT_EQ(link.getLinkName(), "127.0.0.1->127.0.0.1");
    EXPECT_EQ(link.getPeerAddress().getPort(), listener.getPort());
    OpenLink other(peer.release());
    EXPECT_EQ(other.getPeerAddress().getPort(), link.getAddress().getPort());
}

TEST(kySocketLink, namesIPv4EndsOfAnIPv6SocketAsIPv4)
{
    kyBoundSocketLink listening(0);
    OpenLink client(loopback(listening.getAddress().getPort()), 5.0);
    OpenLink accepted(listening);
    EXPECT_EQ(accepted.getLinkName(), "127.0.0.1->127.0.0.1");
}

// Connecting

TEST(kySocketLink, connects)
{
    RawListener listener;
    OpenLink link(loopback(listener.getPort()), 5.0);
    RawSocket peer = listener.accept();
    expectPrepared(link.getDescriptor());
    link.send(makeBuffer(5));
    EXPECT_EQ(peer.receive(25), bytesOf(*makeBuffer(5)));
}

TEST(kySocketLink, connectsWithoutALimit)
{
    RawListener listener;
    OpenLink link(loopback(listener.getPort()), -1.0);
    listener.accept();
    link.checkAlive();
}

TEST(kySocketLink, saysThatNobodyListens)
{
    const kyTest::ClosedPort port;
    EXPECT_EQ(failureOf<kyNetError>([&] { OpenLink link(loopback(port.getPort()), 5.0); }),
              "Unable to connect to '127.0.0.1' port:" + std::to_string(port.getPort()) + ". " +
                  describeCode(kyTest::getRefusedCode()));
}

TEST(kySocketLink, saysThatAConnectTookTooLong)
{
    const kyTest::FullListener listener;
    const double seconds = secondsOf([&] {
        EXPECT_EQ(failureOf<kyNetError>([&] { OpenLink link(loopback(listener.getPort()), 0.3); }),
                  "Unable to connect to '127.0.0.1' port:" + std::to_string(listener.getPort()) +
                      ". " + describeCode(kyTest::getTimedOutCode()));
    });
    EXPECT_GE(seconds, 0.29);
    EXPECT_LT(seconds, 10.0);
}

TEST(kySocketLink, cannotConnectToAnAddressThatWasMovedAway)
{
    kySocketAddress address = loopback(1);
    const kySocketAddress taken(std::move(address));
    const std::string failure = failureOf<kyNetError>([&] { OpenLink link(address, 1.0); });
    EXPECT_EQ(failure.substr(0, 25), "Unable to create socket. ");
    EXPECT_GT(failure.size(), 28u);
}

TEST(kySocketLink, saysThatNoDescriptorIsLeft)
{
    RawListener listener;
    const kySocketAddress address = loopback(listener.getPort());
    EXPECT_EQ(kyTest::failureWithin<kyNetError>(0, [&] { OpenLink link(address, 1.0); }),
              "Unable to create socket. " + describeCode(kyTest::getNoDescriptorCode()));

    OpenLink link(address, 5.0);
    link.checkAlive();
}

TEST(kySocketLink, comesOverAPipe)
{
    kySocketPipe sending(true);
    kySocketPipe receiving(sending.getName());
    LinkAndPeer ends;
    ends.link->setBlocking(false);
    Blocked sender([&] { ends.link->sendDescriptor(sending, 10.0); });
    OpenLink received(receiving, 10.0);
    sender.finish();

    EXPECT_NE(ends.link->getDescriptor(), s_invalidSocketHandle);
    expectPrepared(received.getDescriptor());

    // The sender only closes; the connection lives on.
    ends.link.reset();
    received.send(makeBuffer(9));
    EXPECT_EQ(ends.peer.receive(29), bytesOf(*makeBuffer(9)));
}

TEST(kySocketLink, passesOnThatThePipeTimedOut)
{
    kySocketPipe sending(true);
    kySocketPipe receiving(sending.getName());
    EXPECT_THROW(OpenLink(receiving, 0.05), kyConnectionTimeout);
}

TEST(kySocketLink, cannotSendAClosedLinkOverAPipe)
{
    kySocketPipe sending(true);
    OpenLink closed(s_invalidSocketHandle);
    EXPECT_EQ(failureOf<kyNetError>([&] { closed.sendDescriptor(sending, 1.0); }),
              "unable to change socket blocking mode:" + describeCode(kyTest::getBadHandleCode()));
}

// Handshake

TEST(kySocketLink, recognisesItsOwnProtocol)
{
    const auto handles = kyTest::makeConnection();
    OpenLink client(handles.first);
    Blocked server([&] {
        const std::unique_ptr<kySocketLink> link(
            kySocketLink::checkForHPCNetSocket(handles.second));
        ASSERT_TRUE(link);
        EXPECT_EQ(link->getDescriptor(), handles.second);
        const SocketOptions options = getSocketOptions(handles.second);
        EXPECT_TRUE(options.noDelay);
        EXPECT_TRUE(options.lingers);
        EXPECT_EQ(options.lingerSeconds, 1);
        EXPECT_TRUE(options.isBlocking);
        link->send(makeBuffer(3));
    });
    client.signalHPCNetSocket();
    EXPECT_EQ(getSocketOptions(handles.first).receiveTimeoutMilliseconds, 0);
    std::shared_ptr<kyNetBuffer> received;
    client.recv(received);
    EXPECT_EQ(bytesOf(*received), bytesOf(*makeBuffer(3)));
    server.finish();
}

TEST(kySocketLink, echoesTheHandshakeWordAsItTravels)
{
    const auto handles = kyTest::makeConnection();
    RawSocket client(handles.first);
    const std::string word = "\xb5\x4a\x05\x06";
    client.send(word + "next");
    const std::unique_ptr<kySocketLink> link(kySocketLink::checkForHPCNetSocket(handles.second));
    ASSERT_TRUE(link);
    EXPECT_EQ(client.receive(4), word);
    char next[5] = {};
    link->recv(next, 4);
    EXPECT_STREQ(next, "next");
}

TEST(kySocketLink, recognisesAHandshakeThatTrickles)
{
    const auto handles = kyTest::makeConnection();
    RawSocket client(handles.first);
    std::unique_ptr<kySocketLink> link;
    Blocked server([&] { link.reset(kySocketLink::checkForHPCNetSocket(handles.second)); });
    for (const char byte : wordOf(s_handshakeWord)) {
        EXPECT_TRUE(server.isBlocked());
        client.send(std::string(1, byte));
    }
    server.finish();
    EXPECT_TRUE(link);
}

TEST(kySocketLink, leavesASilentClientAloneAfterTwoSeconds)
{
    const auto handles = kyTest::makeConnection();
    RawSocket client(handles.first);
    RawSocket accepted(handles.second);
    const double seconds = secondsOf(
        [&] { EXPECT_EQ(kySocketLink::checkForHPCNetSocket(accepted.getHandle()), nullptr); });
    EXPECT_GE(seconds, 1.99);
    EXPECT_LT(seconds, 10.0);
    client.send("x");
    EXPECT_EQ(accepted.receive(1), "x");
}

TEST(kySocketLink, leavesTheBytesOfAnotherProtocolUnread)
{
    const auto handles = kyTest::makeConnection();
    RawSocket client(handles.first);
    RawSocket accepted(handles.second);
    client.send("GET / HTTP/1.1");
    EXPECT_EQ(kySocketLink::checkForHPCNetSocket(accepted.getHandle()), nullptr);
    EXPECT_EQ(accepted.receive(14), "GET / HTTP/1.1");
}

TEST(kySocketLink, leavesAHalfHandshakeUnread)
{
    const auto handles = kyTest::makeConnection();
    RawSocket client(handles.first);
    RawSocket accepted(handles.second);
    client.send(wordOf(s_handshakeWord).substr(0, 3));
    client.halfClose();
    EXPECT_EQ(kySocketLink::checkForHPCNetSocket(accepted.getHandle()), nullptr);
    EXPECT_EQ(accepted.receive(4), wordOf(s_handshakeWord).substr(0, 3));
}

TEST(kySocketLink, looksForNoHandshakeWhereThereIsNoSocket)
{
    EXPECT_EQ(kySocketLink::checkForHPCNetSocket(s_invalidSocketHandle), nullptr);
}

TEST(kySocketLink, leavesASocketOpenThatCannotBeLookedAt)
{
    const kyBoundSocketLink listening(0); // Has no bytes to wait for.
    EXPECT_EQ(kySocketLink::checkForHPCNetSocket(listening.getDescriptor()), nullptr);
    EXPECT_TRUE(kyTest::isOpen(listening.getDescriptor()));
}

TEST(kySocketLink, closesTheSocketWhenTheHandshakeCannotBeAnswered)
{
    // All is there that makes a handshake, but on a socket that has none of TCP's options.
    auto ends = kyTest::makeLocalConnection();
    RawSocket client(ends.first);
    client.send(wordOf(s_handshakeWord));
    const std::string failure =
        failureOf<kyNetError>([&] { kySocketLink::checkForHPCNetSocket(ends.second); });
    EXPECT_EQ(failure.substr(0, 37), "setsockopt(,SOCK_STREAM,TCP_NODELAY) ");
    EXPECT_FALSE(kyTest::isOpen(ends.second));
}

TEST(kySocketLink, refusesAWrongEcho)
{
    LinkAndPeer ends;
    ends.peer.send(wordOf(s_handshakeWord + 1));
    EXPECT_EQ(failureOf<kyNetError>([&] { ends.link->signalHPCNetSocket(); }),
              "Unexpected respnse from server");
    EXPECT_EQ(ends.peer.receive(4), wordOf(s_handshakeWord));
    // The limit of the handshake stays set: intended.
    EXPECT_EQ(getSocketOptions(ends.link->getDescriptor()).receiveTimeoutMilliseconds, 30000);
    ends.link->checkAlive();
}

TEST(kySocketLink, failsTheHandshakeWithAServerThatCloses)
{
    LinkAndPeer ends;
    ends.peer.send("\xb5\x4a");
    ends.peer.halfClose();
    EXPECT_THROW(ends.link->signalHPCNetSocket(), kyConnectionClosed);
}

// Shutdown

TEST(kySocketLink, closesItsSocketWithoutShuttingTheConnectionDown)
{
    LinkAndPeer ends;
    const kySocketHandle handle = ends.link->getDescriptor();
    ends.link.reset();
    EXPECT_FALSE(kyTest::isOpen(handle));
    EXPECT_EQ(ends.peer.receive(1), "");
}

TEST(kySocketLink, doesNothingAtASecondShutdown)
{
    LinkAndPeer ends;
    const kySocketHandle handle = ends.link->getDescriptor();
    ends.link->shutdown();
    EXPECT_FALSE(kyTest::isOpen(handle));
    EXPECT_EQ(ends.peer.receive(1), "");
    const LinkPair others; // Takes the number that became free.
    ends.link->shutdown();
    ends.link.reset();
    EXPECT_TRUE(kyTest::isOpen(others.first->getDescriptor()));
    EXPECT_TRUE(kyTest::isOpen(others.second->getDescriptor()));
}

TEST(kySocketLink, transfersNothingAfterAShutdown)
{
    LinkPair ends;
    ends.first->shutdown();
    std::shared_ptr<kyNetBuffer> received;
    EXPECT_EQ(failureOf<kyConnectionClosed>([&] { ends.first->recv(received); }),
              "Connection closed");
    EXPECT_EQ(failureOf<kyConnectionClosed>([&] { ends.first->send(makeBuffer(1)); }),
              "Connection closed");
    EXPECT_THROW(ends.first->checkAlive(), kyConnectionClosed);
    EXPECT_THROW(ends.second->recv(received), kyConnectionClosed);
}

TEST(kySocketLink, wakesABlockedReceive)
{
    LinkAndPeer ends;
    const kySocketHandle handle = ends.link->getDescriptor();
    Blocked receiver([&] {
        std::shared_ptr<kyNetBuffer> received;
        ends.link->recv(received);
    });
    EXPECT_TRUE(receiver.isBlocked());
    ends.link->shutdown();
    EXPECT_THROW(receiver.finish(), kyConnectionClosed);
    EXPECT_FALSE(kyTest::isOpen(handle));
}

TEST(kySocketLink, wakesABlockedSend)
{
    LinkAndPeer ends;
    const kySocketHandle handle = ends.link->getDescriptor();
    sendUntilFull(*ends.link);
    Blocked sender([&] { sendForEver(*ends.link); });
    EXPECT_TRUE(sender.isBlocked());
    ends.link->shutdown();
    EXPECT_THROW(sender.finish(), kyConnectionClosed);
    EXPECT_FALSE(kyTest::isOpen(handle));
}

TEST(kySocketLink, wakesABlockedPoll)
{
    LinkAndPeer ends;
    Blocked reader([&] { ends.link->pollReadable(-1.0); });
    EXPECT_TRUE(reader.isBlocked());
    ends.link->shutdown();
    EXPECT_THROW(reader.finish(), kyConnectionClosed);

    LinkAndPeer others;
    sendUntilFull(*others.link);
    Blocked writer([&] { EXPECT_FALSE(others.link->pollWritable(-1.0)); });
    EXPECT_TRUE(writer.isBlocked());
    others.link->shutdown();
    writer.finish();
}

TEST(kySocketLink, closesItsSocketOnlyWhenNoCallIsInside)
{
    LinkAndPeer ends;
    const kySocketHandle handle = ends.link->getDescriptor();
    {
        const kyNetLinkPin pin(*ends.link);
        ASSERT_TRUE(pin.isPinned());
        EXPECT_EQ(pin.getHandle(), static_cast<std::uint32_t>(handle));
        ends.link->shutdown();
        EXPECT_EQ(ends.link->getDescriptor(), s_invalidSocketHandle);
        EXPECT_TRUE(kyTest::isOpen(handle)); // Its number cannot become another connection's.
        EXPECT_EQ(ends.peer.receive(1), ""); // But the connection has ended.
        EXPECT_FALSE(kyNetLinkPin(*ends.link).isPinned());
    }
    EXPECT_FALSE(kyTest::isOpen(handle));
}

TEST(kySocketLink, survivesShutdownsFromEverySide)
{
    for (int round = 0; round < 50; ++round) {
        LinkPair ends;
        std::vector<std::unique_ptr<Blocked>> threads;
        for (const auto& link : {ends.first, ends.second}) {
            threads.push_back(std::make_unique<Blocked>([link] {
                while (true) {
                    link->send(makeBuffer(5000));
                }
            }));
            threads.push_back(std::make_unique<Blocked>([link] {
                std::shared_ptr<kyNetBuffer> received;
                while (true) {
                    link->recv(received);
                }
            }));
        }
        threads.push_back(std::make_unique<Blocked>([&] {
            while (true) {
                ends.first->pollReadable(-1.0);
                const kyNetLinkPin pin(*ends.first);
            }
        }));
        std::vector<std::unique_ptr<Blocked>> stoppers;
        for (int i = 0; i < 4; ++i) {
            stoppers.push_back(std::make_unique<Blocked>([&] { ends.first->shutdown(); }));
        }
        for (const auto& stopper : stoppers) {
            stopper->finish();
        }
        for (const auto& thread : threads) {
            EXPECT_THROW(thread->finish(), kyConnectionClosed);
        }
        EXPECT_THROW(ends.first->checkAlive(), kyConnectionClosed);
    }
}

// Closing an orderly connection waits for the peer's system to acknowledge it, hence the threads.
TEST(kySocketLink, opensAndClosesAThousandTimes)
{
    kyBoundSocketLink listening(0);
    const kySocketAddress address = loopback(listening.getAddress().getPort());
    std::vector<std::unique_ptr<Blocked>> threads;
    for (int thread = 0; thread < 8; ++thread) {
        threads.push_back(std::make_unique<Blocked>([&] {
            for (int i = 0; i < 125; ++i) {
                OpenLink client(address, 30.0);
                OpenLink server(listening); // Perhaps another thread's client.
                client.send(makeBuffer(10));
                std::shared_ptr<kyNetBuffer> received;
                server.recv(received);
                EXPECT_EQ(bytesOf(*received), bytesOf(*makeBuffer(10)));
                if (i % 3 == 0) {
                    client.shutdown();
                } else if (i % 3 == 1) {
                    server.shutdown();
                }
            }
        }));
    }
    for (const auto& thread : threads) {
        thread->finish();
    }
}

// Copies and giving away

TEST(kySocketLink, givesItsSocketAway)
{
    LinkAndPeer ends;
    const kySocketHandle handle = ends.link->getDescriptor();
    EXPECT_EQ(ends.link->takeDescriptor(), handle);
    EXPECT_EQ(ends.link->takeDescriptor(), s_invalidSocketHandle);
    EXPECT_THROW(ends.link->checkAlive(), kyConnectionClosed);
    ends.link->shutdown();
    ends.link.reset();
    RawSocket taken(handle);
    taken.send("x");
    EXPECT_EQ(ends.peer.receive(1), "x");
}

TEST(kySocketLink, copiesTheSameSocket)
{
    LinkAndPeer ends;
    ends.link->setId(5);
    OpenLink copy(*ends.link);
    EXPECT_EQ(copy.getDescriptor(), ends.link->getDescriptor());
    EXPECT_EQ(copy.getId(), 5u);
    EXPECT_THROW(copy.getSharedPtr(), std::bad_weak_ptr);
    copy.send("x", 1);
    ends.link->send("y", 1);
    EXPECT_EQ(ends.peer.receive(2), "xy");
}

// The first of the two that goes closes the socket for both: intended.
TEST(kySocketLink, closesTheSocketOfItsCopiesOnce)
{
    LinkAndPeer ends;
    OpenLink copy(*ends.link);
    const kySocketHandle handle = ends.link->getDescriptor();
    ends.link.reset();
    EXPECT_FALSE(kyTest::isOpen(handle));
    EXPECT_EQ(copy.getDescriptor(), handle);
    const LinkPair others; // Takes the number that became free.
    EXPECT_TRUE(kyTest::isOpen(handle));
    EXPECT_THROW(copy.checkAlive(), kyConnectionClosed);
    EXPECT_THROW(copy.send("x", 1), kyConnectionClosed);
    EXPECT_THROW(copy.pollReadable(0.0), kyConnectionClosed);
    EXPECT_FALSE(kyNetLinkPin(copy).isPinned());
    copy.shutdown();
    EXPECT_TRUE(kyTest::isOpen(handle));
}

TEST(kySocketLink, leavesItsCopiesTheSocketThatItGivesAway)
{
    LinkAndPeer ends;
    const kySocketHandle handle = ends.link->getDescriptor();
    {
        OpenLink copy(*ends.link);
        EXPECT_EQ(ends.link->takeDescriptor(), handle);
        EXPECT_EQ(copy.getDescriptor(), handle);
        copy.send("x", 1);
        EXPECT_EQ(ends.peer.receive(1), "x");
        EXPECT_TRUE(kyTest::isOpen(handle));
    }
    EXPECT_FALSE(kyTest::isOpen(handle));
}

TEST(kySocketLink, wakesTheReceiveOfACopy)
{
    LinkAndPeer ends;
    OpenLink copy(*ends.link);
    Blocked receiver([&] {
        char byte = 0;
        copy.recv(&byte, 1);
    });
    EXPECT_TRUE(receiver.isBlocked());
    ends.link->shutdown();
    EXPECT_THROW(receiver.finish(), kyConnectionClosed);
}

TEST(kySocketLink, closesTheSocketThatAnAssignmentReplaces)
{
    LinkAndPeer ends;
    LinkAndPeer others;
    const kySocketHandle replaced = ends.link->getDescriptor();
    *ends.link = *others.link;
    EXPECT_FALSE(kyTest::isOpen(replaced));
    EXPECT_EQ(ends.link->getDescriptor(), others.link->getDescriptor());
    ends.link->send("x", 1);
    EXPECT_EQ(others.peer.receive(1), "x");

    const OpenLink& same = *ends.link;
    *ends.link = same;
    ends.link->checkAlive();
}

TEST(kySocketLink, keepsTheSocketOfACopyWhenItIsAssigned)
{
    LinkAndPeer ends;
    LinkAndPeer others;
    OpenLink copy(*ends.link);
    *ends.link = *others.link;
    copy.send("x", 1);
    EXPECT_EQ(ends.peer.receive(1), "x");
}

TEST(kySocketLink, isCreatedAsTheFirstLinkOfTheStream)
{
    LinkPair ends;
    kyNetStream stream(ends.first);
    kyNetInterfaceOptions options;
    EXPECT_EQ(kySocketLink::create(stream, options, true), ends.first);
    EXPECT_EQ(kySocketLink::create(stream, options, false), ends.first);

    kyNetStream unconnected;
    EXPECT_THROW(kySocketLink::create(unconnected, options, false), kyConnectionClosed);
}

TEST(kySocketLink, startsTheSystemsSocketsOnce)
{
    kySocketLink::initialize();
    kySocketLink::initialize();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] { kySocketLink::initialize(); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}
