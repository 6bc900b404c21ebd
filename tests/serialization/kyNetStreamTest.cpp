#include <NetBase/serialization/kyNetStream.h>

#include <future>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetOptions.h>
#include <NetBase/receivers/kyNetLinkReceiver.h>
#include <NetBase/receivers/kyNetMultiLinkReceiver.h>
#include <NetBase/senders/kyNetLinkSender.h>
#include <NetBase/senders/kyNetMultiSender.h>
#include <NetBase/serialization/kyNetMessage.h>
#include <tests/support/kyTestBlocked.h>
#include <tests/support/kyTestChains.h>

using kyTest::Blocked;
using kyTest::Buffer;
using kyTest::dataOf;
using kyTest::GivingReceiver;
using kyTest::KeepingLink;
using kyTest::KeepingSender;
using kyTest::makeBuffer;
using kyTest::messageOf;
using kyTest::toHex;

namespace {

using Ranks = std::set<unsigned int>;

/// A stream whose inner operations a test may call.
class OpenStream : public kyNetStream
{
public:
    using kyNetStream::kyNetStream;
    using kyNetStream::recvBuffer;
    using kyNetStream::sendBuffer;
};

/// A stream between a sender that keeps and a receiver that gives.
struct Fixture
{
    explicit Fixture(int rank = 0, const Ranks& ranks = {})
        : sender(std::make_shared<KeepingSender>(ranks)),
          receiver(std::make_shared<GivingReceiver>())
    {
        stream.setRank(rank);
        stream.setSender(sender);
        stream.setReceiver(receiver);
    }

    void give(const std::string& data, std::uint32_t source = 0,
              kyNetMessageType type = kyNetMessageType::StreamData)
    {
        receiver->given.push(makeBuffer(data, source, 9, type));
    }
    void giveSync(const std::string& data, std::uint32_t source)
    {
        give(data, source, kyNetMessageType::Message);
    }

    /// The numbers of the buffers that were sent.
    std::string sequences() const
    {
        std::string text;
        for (const Buffer& buffer : sender->sent) {
            text += (text.empty() ? "" : " ") + std::to_string(buffer->getSequence());
        }
        return text;
    }

    /// Sends a message of four bytes.
    void sendMessage(int destination)
    {
        kyNetMessage message;
        message << 1;
        stream.sendMessage(message, destination, kyNetBufferSendMode::Automatic);
    }

    std::shared_ptr<KeepingSender> sender;
    std::shared_ptr<GivingReceiver> receiver;
    OpenStream stream;
};

/// A message of its own type.
class Picture : public kyNetMessage
{
public:
    kyNetMessageType getMessageType() override { return kyNetMessageType::ImageData; }
};

constexpr const char* s_closed = "Connection closed";

} // namespace

TEST(kyNetStream, defaultHasNothing)
{
    kyNetStream stream;
    EXPECT_EQ(stream.getSender(), nullptr);
    EXPECT_EQ(stream.getReceiver(), nullptr);
    EXPECT_EQ(stream.getRank(), 0);
    EXPECT_EQ(stream.getDestinationCount(), 0);
    EXPECT_EQ(stream.getSentBytes(), 0u);
    EXPECT_EQ(stream.getRecevedBytes(), 0u);
    EXPECT_EQ(stream.getCompressedBytes(), 0u);
    EXPECT_EQ(stream.getMessageType(), kyNetMessageType::StreamData);
    stream.flush();
    stream.resetStatistics();
    stream.waitAllDataTransfered();
    stream.shutdown();
}

TEST(kyNetStream, missingChainIsAClosedConnection)
{
    kyNetStream stream;
    int value = 0;
    kyNetMessage message;
    EXPECT_FALSE(stream.isReadable());
    EXPECT_EQ(messageOf([&] { stream >> value; }), s_closed);
    EXPECT_EQ(messageOf([&] { stream.recvMessage(message); }), s_closed);
    EXPECT_EQ(messageOf([&] { stream.waitSync(); }), s_closed);
    EXPECT_EQ(messageOf([&] { stream.recvResult(); }), s_closed);
    EXPECT_EQ(messageOf([&] { stream.recvAll(); }), s_closed);
    EXPECT_EQ(messageOf([&] { stream.getLinkName(); }), s_closed);
    EXPECT_EQ(messageOf([&] { stream.getFirstLink(); }), s_closed);
    EXPECT_EQ(messageOf([&] { stream.sendSync(1); }), s_closed);
    message << 1;
    EXPECT_EQ(messageOf([&] { stream.sendMessage(message, 2, kyNetBufferSendMode::First); }),
              s_closed);
    stream << 1;
    EXPECT_EQ(messageOf([&] { stream.flush(); }), s_closed);
    EXPECT_EQ(stream.getSentBytes(), 0u);
    EXPECT_EQ(stream.getRecevedBytes(), 0u);
}

TEST(kyNetStream, linkMakesSenderAndReceiver)
{
    const auto link = std::make_shared<KeepingLink>();
    kyNetStream stream(link);
    EXPECT_EQ(stream.getFirstLink(), link);
    EXPECT_EQ(stream.getLinkName(), "a->b");
    EXPECT_EQ(stream.getDestinationCount(), 0);
    EXPECT_TRUE(stream.isReadable());
    EXPECT_NE(dynamic_cast<kyNetLinkSender*>(stream.getSender().get()), nullptr);
    EXPECT_NE(dynamic_cast<kyNetLinkReceiver*>(stream.getReceiver().get()), nullptr);

    kyNetStream without{std::shared_ptr<kyNetLink>()};
    EXPECT_EQ(without.getSender(), nullptr);
    EXPECT_EQ(without.getReceiver(), nullptr);
}

TEST(kyNetStream, firstLinkIsTheSendersFirst)
{
    const auto first = std::make_shared<KeepingLink>();
    const auto second = std::make_shared<KeepingLink>();
    kyNetStream stream;
    stream.setSender(kyNetMultiSender::create(
        {kyNetLinkSender::create(first), kyNetLinkSender::create(second)}));
    EXPECT_EQ(stream.getFirstLink(), first);
    stream.setSender(kyNetMultiSender::create({}));
    EXPECT_EQ(messageOf([&] { stream.getFirstLink(); }), s_closed);
}

TEST(kyNetStream, flushSendsWhatWasWritten)
{
    Fixture f(7);
    f.stream << 1 << "ab";
    EXPECT_TRUE(f.sender->sent.empty());
    f.stream.flush();
    ASSERT_EQ(f.sender->sent.size(), 1u);
    EXPECT_EQ(toHex(*f.sender->sent[0]), "01 00 00 00 03 00 00 00 61 62 00");
    EXPECT_EQ(toHex(f.sender->sent[0]->getBuffer(), kyNetBuffer::getHeaderSize()),
              "0b 00 00 00 0b 00 00 00 00 00 00 00 07 00 00 00 00 00 00 00");
    f.stream.flush();
    EXPECT_EQ(f.sender->sent.size(), 1u);
}

TEST(kyNetStream, flushManipulatorFlushesAndGoesOn)
{
    Fixture f;
    f.stream << 1 << kyNetStream::flush << 2 << kyNetStream::flush;
    ASSERT_EQ(f.sender->sent.size(), 2u);
    EXPECT_EQ(toHex(*f.sender->sent[0]), "01 00 00 00");
    EXPECT_EQ(toHex(*f.sender->sent[1]), "02 00 00 00");
    EXPECT_EQ(&kyNetStream::flush(f.stream), &f.stream);
}

TEST(kyNetStream, flushManipulatorRefusesAMessage)
{
    kyNetMessage message;
    EXPECT_EQ(messageOf([&] { kyNetStream::flush(message); }),
              "Unable to flush this type of stream");
    message << 1;
    EXPECT_EQ(messageOf([&] { message << kyNetStream::flush; }),
              "Unable to flush this type of stream");
    EXPECT_NE(message.takeSendBuffer(), nullptr);
}

TEST(kyNetStream, fullBufferIsSentAtTheStreamBufferSize)
{
    Fixture f;
    const std::string data(131072 + 1, 'x');
    f.stream.putBytes(data.data(), 131072);
    EXPECT_TRUE(f.sender->sent.empty());
    f.stream.putBytes(data.data(), 1);
    ASSERT_EQ(f.sender->sent.size(), 1u);
    EXPECT_EQ(f.sender->sent[0]->getDataSize(), 131072u);
}

TEST(kyNetStream, streamBufferSizeIsTakenWhenItIsMade)
{
    kyNetOptions::setStreamBufferSize(1000);
    Fixture f;
    kyNetOptions::setStreamBufferSize(0);
    const std::string data(2500, 'x');
    f.stream.putBytes(data.data(), data.size());
    ASSERT_EQ(f.sender->sent.size(), 2u);
    EXPECT_EQ(f.sender->sent[1]->getDataSize(), 1000u);
}

TEST(kyNetStream, destructionNeitherFlushesNorShutsDown)
{
    const auto link = std::make_shared<KeepingLink>();
    {
        kyNetStream stream(link);
        stream << 1;
    }
    EXPECT_TRUE(link->sent.empty());
    EXPECT_FALSE(link->isShutDown);
}

TEST(kyNetStream, newSenderDropsWhatWasNotFlushed)
{
    Fixture f;
    f.stream << 1;
    f.stream.setSender(f.sender);
    f.stream << 2;
    f.stream.flush();
    ASSERT_EQ(f.sender->sent.size(), 1u);
    EXPECT_EQ(toHex(*f.sender->sent[0]), "02 00 00 00");
    EXPECT_EQ(f.stream.getSender(), f.sender);
}

TEST(kyNetStream, newReceiverDropsWhatWasNotRead)
{
    Fixture f;
    f.give("ab");
    f.give("xy");
    char byte = 0;
    f.stream >> byte;
    f.stream.setReceiver(f.receiver);
    f.stream >> byte;
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(f.stream.getReceiver(), f.receiver);
}

TEST(kyNetStream, multicastsAreNumberedAndUnicastsCarryTheNextNumber)
{
    Fixture f(3);
    f.sendMessage(0);
    f.sendMessage(5);
    f.sendMessage(0);
    f.sendMessage(5);
    f.sendMessage(0);
    EXPECT_EQ(f.sequences(), "0 1 1 2 2");
    for (const Buffer& buffer : f.sender->sent) {
        EXPECT_EQ(buffer->getSource(), 3u);
    }
}

TEST(kyNetStream, valuesAreMulticasts)
{
    Fixture f;
    for (int i = 0; i < 3; ++i) {
        f.stream << i << kyNetStream::flush;
    }
    EXPECT_EQ(f.sequences(), "0 1 2");
}

TEST(kyNetStream, sequenceWrapsAfterSixteenBits)
{
    Fixture f;
    for (int i = 0; i < 65535; ++i) {
        f.sendMessage(0);
        f.sender->sent.clear();
    }
    f.sendMessage(0);
    f.sendMessage(0);
    f.sendMessage(0);
    EXPECT_EQ(f.sequences(), "65535 0 1");
}

TEST(kyNetStream, failedMulticastUsesItsNumber)
{
    Fixture f;
    f.sender->onSend = [](kyNetBuffer&) { throw kyConnectionClosed(); };
    EXPECT_THROW(f.sendMessage(0), kyConnectionClosed);
    EXPECT_EQ(f.stream.getSentBytes(), 0u);
    f.sender->onSend = nullptr;
    f.sendMessage(0);
    EXPECT_EQ(f.sequences(), "1");
    EXPECT_EQ(f.stream.getSentBytes(), 24u);
}

TEST(kyNetStream, messageCarriesDestinationAndMode)
{
    Fixture f(4);
    kyNetMessage message;
    message << 7;
    f.stream.sendMessage(message, 5, kyNetBufferSendMode::Second);
    ASSERT_EQ(f.sender->sent.size(), 1u);
    const Buffer buffer = f.sender->sent[0];
    EXPECT_EQ(toHex(buffer->getBuffer(), buffer->getBufferSize()),
              "04 00 00 00 04 00 00 00 00 00 01 00 04 00 00 00 05 00 00 00 07 00 00 00");
    EXPECT_EQ(buffer->getSendMode(), kyNetBufferSendMode::Second);
    EXPECT_EQ(message.takeSendBuffer(), nullptr);
}

TEST(kyNetStream, unwrittenMessageIsRefused)
{
    Fixture f;
    kyNetMessage message;
    EXPECT_EQ(messageOf([&] { f.stream.sendMessage(message, 2, kyNetBufferSendMode::Automatic); }),
              "Unable to send a message without content");
    EXPECT_TRUE(f.sender->sent.empty());
}

TEST(kyNetStream, bufferForTheOwnRankIsLoopedBack)
{
    Fixture f(5);
    f.sendMessage(5);
    EXPECT_TRUE(f.sender->sent.empty());
    EXPECT_EQ(f.stream.getSentBytes(), 24u);
    ASSERT_EQ(f.receiver->given.size(), 1u);
    kyNetMessage message;
    f.stream.recvMessage(message);
    EXPECT_EQ(message.getSource(), 5u);
    int value = 0;
    message >> value;
    EXPECT_EQ(value, 1);
}

TEST(kyNetStream, rankZeroLoopsNothingBack)
{
    Fixture f(0);
    f.sendMessage(0);
    EXPECT_EQ(f.sender->sent.size(), 1u);
    EXPECT_TRUE(f.receiver->given.empty());
}

TEST(kyNetStream, loopBackNeedsSenderAndReceiver)
{
    Fixture f(5);
    f.stream.setReceiver(nullptr);
    EXPECT_EQ(messageOf([&] { f.sendMessage(5); }), s_closed);
    f.stream.setReceiver(f.receiver);
    f.stream.setSender(nullptr);
    EXPECT_EQ(messageOf([&] { f.sendMessage(5); }), s_closed);
    EXPECT_EQ(f.stream.getSentBytes(), 0u);
}

TEST(kyNetStream, loopBackIsRefusedByAReceiverWithoutAQueue)
{
    kyNetStream stream(std::make_shared<KeepingLink>());
    stream.setRank(5);
    kyNetMessage message;
    message << 1;
    EXPECT_EQ(messageOf([&] { stream.sendMessage(message, 5, kyNetBufferSendMode::Automatic); }),
              "Adding buffer to queue not supported by this receiver");
    EXPECT_EQ(stream.getSentBytes(), 0u);
}

TEST(kyNetStream, countsWhatWasHandedOverAsItWasBefore)
{
    Fixture f;
    f.sender->onSend = [](kyNetBuffer& buffer) { buffer.setDataSize(1); }; // As compression does.
    f.stream.putBytes("12345", 5);
    f.stream.flush();
    EXPECT_EQ(f.stream.getSentBytes(), 25u);
}

TEST(kyNetStream, countsWhatWasReceived)
{
    Fixture f;
    f.give("abc");
    f.give("12345", 0, kyNetMessageType::Message);
    char bytes[3];
    f.stream.getBytes(bytes, 3);
    EXPECT_EQ(f.stream.getRecevedBytes(), 23u);
    kyNetMessage message;
    f.stream.recvMessage(message);
    EXPECT_EQ(f.stream.getRecevedBytes(), 48u);
}

TEST(kyNetStream, statisticsAreResetDownTheChain)
{
    Fixture f;
    f.sender->compressedBytes = 77;
    f.stream << 1 << kyNetStream::flush;
    f.give("a");
    char byte = 0;
    f.stream >> byte;
    EXPECT_EQ(f.stream.getCompressedBytes(), 77u);
    f.stream.resetStatistics();
    EXPECT_EQ(f.stream.getSentBytes(), 0u);
    EXPECT_EQ(f.stream.getRecevedBytes(), 0u);
    EXPECT_EQ(f.sender->resets, 1);
    f.stream.waitAllDataTransfered();
    EXPECT_EQ(f.sender->waits, 1);
}

TEST(kyNetStream, destinationsAreTheSenders)
{
    EXPECT_EQ(Fixture(1, {2, 3, 4}).stream.getDestinationCount(), 3);
}

TEST(kyNetStream, messageWhereValuesAreExpectedIsOutOfSync)
{
    Fixture f(6);
    f.receiver->given.push(makeBuffer("abcd", 3, 9, kyNetMessageType::Message));
    int value = 0;
    EXPECT_EQ(messageOf([&] { f.stream >> value; }),
              "Stream out of sync. Stream expected at 6 from 3 to 9");
    EXPECT_EQ(f.stream.getRecevedBytes(), 0u);
}

TEST(kyNetStream, mismatchLeavesNothingToRead)
{
    Fixture f;
    f.give("ab");
    f.give("XXXX", 3, kyNetMessageType::Message);
    f.give("cd");
    char bytes[4] = {};
    EXPECT_THROW(f.stream.getBytes(bytes, 4), kyNetError);
    EXPECT_EQ(f.stream.getDataSize(), 0u);
    f.stream.getBytes(bytes + 2, 2);
    EXPECT_EQ(std::string(bytes, 4), "abcd");
}

TEST(kyNetStream, mismatchLeavesTheCallersBufferAlone)
{
    Fixture f;
    f.give("XXXX", 3, kyNetMessageType::Message);
    const Buffer mine = makeBuffer("mine");
    Buffer buffer = mine;
    EXPECT_THROW(f.stream.recvBuffer(buffer), kyNetError);
    EXPECT_EQ(buffer, mine);
}

TEST(kyNetStream, valuesWhereAMessageIsExpectedAreOutOfSync)
{
    Fixture f;
    f.give("abcd");
    kyNetMessage message;
    message.setRecvBuffer(makeBuffer("before"));
    EXPECT_EQ(messageOf([&] { f.stream.recvMessage(message); }),
              "Stream out of sync. Wrong message type");
    EXPECT_EQ(f.stream.getRecevedBytes(), 0u);
    EXPECT_EQ(message.getDataSize(), 6u);
}

TEST(kyNetStream, messagesOfOtherTypesAreReceivedAsSuch)
{
    Fixture f;
    Picture picture;
    picture << 5;
    f.stream.sendMessage(picture, 0, kyNetBufferSendMode::Automatic);
    EXPECT_EQ(f.sender->sent.at(0)->getType(), kyNetMessageType::ImageData);
    f.receiver->given.push(f.sender->sent[0]);
    f.receiver->given.push(f.sender->sent[0]);

    Picture received;
    f.stream.recvMessage(received);
    int value = 0;
    received >> value;
    EXPECT_EQ(value, 5);
    kyNetMessage message;
    EXPECT_EQ(messageOf([&] { f.stream.recvMessage(message); }),
              "Stream out of sync. Wrong message type");
}

TEST(kyNetStream, isReadableWhileBytesOrBuffersAreLeft)
{
    Fixture f;
    EXPECT_FALSE(f.stream.isReadable());
    f.give("ab");
    EXPECT_TRUE(f.stream.isReadable());
    char byte = 0;
    f.stream >> byte;
    EXPECT_TRUE(f.stream.isReadable());
    EXPECT_TRUE(f.receiver->given.empty());
    f.stream >> byte;
    EXPECT_FALSE(f.stream.isReadable());
}

TEST(kyNetStream, masterSendsSyncToAllAndOthersToTheMaster)
{
    Fixture master(1);
    master.stream << 1; // Stays behind.
    master.stream.sendSync(-2);
    ASSERT_EQ(master.sender->sent.size(), 1u);
    const Buffer fromMaster = master.sender->sent[0];
    EXPECT_EQ(toHex(fromMaster->getBuffer(), fromMaster->getBufferSize()),
              "04 00 00 00 04 00 00 00 00 00 01 00 01 00 00 00 00 00 00 00 fe ff ff ff");
    EXPECT_EQ(fromMaster->getSendMode(), kyNetBufferSendMode::Automatic);

    Fixture other(4);
    other.stream.sendSync(9);
    const Buffer fromOther = other.sender->sent.at(0);
    EXPECT_EQ(toHex(fromOther->getBuffer(), fromOther->getBufferSize()),
              "04 00 00 00 04 00 00 00 00 00 01 00 04 00 00 00 01 00 00 00 09 00 00 00");
}

TEST(kyNetStream, othersWaitForOneSync)
{
    Fixture f(4);
    f.giveSync(std::string("\xfe\xff\xff\xff", 4), 1);
    f.giveSync(std::string("\1\0\0\0", 4), 1);
    EXPECT_EQ(f.stream.waitSync(), -2);
    EXPECT_EQ(f.receiver->given.size(), 1u);
}

TEST(kyNetStream, masterWaitsForEveryDestination)
{
    Fixture f(1, {2, 3, 4});
    f.giveSync(std::string("\5\0\0\0", 4), 3);
    f.giveSync(std::string("\6\0\0\0", 4), 2);
    f.giveSync(std::string("\7\0\0\0", 4), 4);
    f.giveSync(std::string("\1\0\0\0", 4), 2);
    EXPECT_EQ(f.stream.waitSync(), 7);
    EXPECT_EQ(f.receiver->given.size(), 1u);
}

TEST(kyNetStream, masterWithNobodyToWaitForDoesNotWait)
{
    Fixture f(1);
    f.giveSync(std::string("\5\0\0\0", 4), 2);
    EXPECT_EQ(f.stream.waitSync(), 0);
    EXPECT_EQ(f.receiver->given.size(), 1u);

    kyNetStream without;
    without.setRank(1);
    EXPECT_EQ(without.waitSync(), 0);
}

TEST(kyNetStream, oneRankThatAnswersTwiceIsAnError)
{
    Fixture f(1, {2, 3});
    f.giveSync(std::string("\5\0\0\0", 4), 3);
    f.giveSync(std::string("\5\0\0\0", 4), 3);
    f.giveSync(std::string("\5\0\0\0", 4), 2);
    EXPECT_EQ(messageOf([&] { f.stream.waitSync(); }),
              "Synchronisation error: multiple responses from 3");
}

TEST(kyNetStream, valuesInTheMiddleOfASyncAreOutOfSync)
{
    Fixture f(1, {2, 3});
    f.giveSync(std::string("\5\0\0\0", 4), 3);
    f.give("abcd", 2);
    EXPECT_EQ(messageOf([&] { f.stream.waitSync(); }), "Stream out of sync. Wrong message type");
}

TEST(kyNetStream, syncThatIsTooShortIsAnError)
{
    Fixture f(4);
    f.giveSync("abc", 1);
    EXPECT_EQ(messageOf([&] { f.stream.waitSync(); }),
              "kyNetMessage: try to read beyond buffer end.");
}

TEST(kyNetStream, successIsOneByte)
{
    Fixture f;
    EXPECT_EQ(&f.stream.sendSuccess(), &f.stream);
    EXPECT_TRUE(f.sender->sent.empty());
    f.stream.flush();
    EXPECT_EQ(toHex(*f.sender->sent.at(0)), "01");
    EXPECT_EQ(f.sender->sent[0]->getType(), kyNetMessageType::StreamData);
}

TEST(kyNetStream, exceptionIsZeroAndItsText)
{
    Fixture f;
    EXPECT_EQ(&f.stream.sendException(std::runtime_error("abc")), &f.stream);
    EXPECT_TRUE(f.sender->sent.empty());
    f.stream.flush();
    EXPECT_EQ(toHex(*f.sender->sent.at(0)), "00 04 00 00 00 61 62 63 00");
}

TEST(kyNetStream, resultReturnsOrThrowsTheText)
{
    Fixture f;
    f.give(std::string("\1\xff\0\4\0\0\0abc\0x", 12));
    EXPECT_EQ(&f.stream.recvResult(), &f.stream);
    f.stream.recvResult(); // All but 0 are a success.
    EXPECT_EQ(messageOf([&] { f.stream.recvResult(); }), "abc");
    char byte = 0;
    f.stream >> byte;
    EXPECT_EQ(byte, 'x');
}

TEST(kyNetStream, everyRemoteFailureIsAKyNetError)
{
    Fixture f;
    f.stream.sendException(kyConnectionClosed()).flush();
    f.receiver->given.push(f.sender->sent.at(0));
    try {
        f.stream.recvResult();
        FAIL();
    } catch (const kyConnectionClosed&) {
        FAIL() << "the type must not travel";
    } catch (const kyNetError& error) {
        EXPECT_STREQ(error.what(), s_closed);
    }
}

TEST(kyNetStream, recvAllDiscardsUntilItThrows)
{
    Fixture f;
    f.give("ab");
    f.give("cd", 2, kyNetMessageType::Bundle);
    EXPECT_EQ(messageOf([&] { f.stream.recvAll(); }), s_closed);
    EXPECT_TRUE(f.receiver->given.empty());
    EXPECT_EQ(f.stream.getRecevedBytes(), 0u);
}

TEST(kyNetStream, linkNameIsTheReceivers)
{
    EXPECT_EQ(Fixture().stream.getLinkName(), "here->there");
}

TEST(kyNetStream, shutdownReachesTheLinksOfBothChains)
{
    const auto out = std::make_shared<KeepingLink>();
    const auto in = std::make_shared<KeepingLink>();
    kyNetStream stream;
    stream.setSender(kyNetLinkSender::create(out));
    stream.setReceiver(kyNetLinkReceiver::create(in));
    stream.shutdown();
    EXPECT_TRUE(out->isShutDown);
    EXPECT_TRUE(in->isShutDown);
}

TEST(kyNetStream, copySharesChainsAndContinues)
{
    Fixture f(3);
    f.sendMessage(0);
    f.give("ab");
    char byte = 0;
    f.stream >> byte;

    OpenStream copy = f.stream;
    EXPECT_EQ(copy.getRank(), 3);
    EXPECT_EQ(copy.getSentBytes(), 24u);
    EXPECT_EQ(copy.getRecevedBytes(), 22u);
    EXPECT_EQ(copy.getSender(), f.sender);
    copy >> byte;
    EXPECT_EQ(byte, 'b');
    copy.sendSync(1);
    copy = f.stream;
    copy << 1;
    copy.flush();
    EXPECT_EQ(f.sequences(), "0 1 1");
}

TEST(kyNetStream, moveTakesChainsAndBuffers)
{
    Fixture f(3);
    f.stream << 1;
    kyNetStream moved = std::move(f.stream);
    EXPECT_EQ(f.stream.getSender(), nullptr); // NOLINT: that is the question.
    EXPECT_FALSE(f.stream.isReadable());
    f.stream.flush();
    moved.flush();
    EXPECT_EQ(f.sequences(), "0");
    EXPECT_EQ(moved.getRank(), 3);
}

TEST(kyNetStream, derivedStreamIsDestroyedByAPointerToTheStream)
{
    bool isGone = false;
    struct Derived : kyNetStream
    {
        explicit Derived(bool& gone) : m_gone(gone) {}
        ~Derived() override { m_gone = true; }
        bool& m_gone;
    };
    std::unique_ptr<kyNetStream> stream = std::make_unique<Derived>(isGone);
    stream.reset();
    EXPECT_TRUE(isGone);
}

// Over real connections.

TEST(kyNetStream, bothDirectionsAtOnceOverOneConnection)
{
    kyNetOptions::setStreamBufferSize(777); // Values are cut at many places.
    const auto [near, far] = kyTest::makeLinks();
    kyNetStream one(near);
    kyNetStream two(far);
    kyNetOptions::setStreamBufferSize(0);
    constexpr int s_count = 20000;

    const auto write = [](kyNetStream& stream, int salt) {
        for (int i = 0; i < s_count; ++i) {
            stream << i * salt << static_cast<double>(i) / salt << i % 2 << std::to_string(i);
        }
        stream.flush();
    };
    const auto read = [](kyNetStream& stream, int salt) {
        for (int i = 0; i < s_count; ++i) {
            int product = 0;
            double quotient = 0;
            int odd = 0;
            std::string text;
            stream >> product >> quotient >> odd >> text;
            if (product != i * salt || quotient != static_cast<double>(i) / salt || odd != i % 2 ||
                text != std::to_string(i)) {
                return i;
            }
        }
        return s_count;
    };

    auto writeOne = std::async(std::launch::async, [&] { write(one, 3); });
    auto writeTwo = std::async(std::launch::async, [&] { write(two, 7); });
    auto readOne = std::async(std::launch::async, [&] { return read(one, 7); });
    auto readTwo = std::async(std::launch::async, [&] { return read(two, 3); });
    writeOne.get();
    writeTwo.get();
    EXPECT_EQ(readOne.get(), s_count);
    EXPECT_EQ(readTwo.get(), s_count);
    EXPECT_EQ(one.getSentBytes(), two.getRecevedBytes());
    EXPECT_EQ(two.getSentBytes(), one.getRecevedBytes());
    EXPECT_GT(one.getSentBytes(), std::uint64_t{s_count} * 16);
}

TEST(kyNetStream, masterAndThreeRanksSynchroniseManyTimes)
{
    constexpr int s_ranks = 3;
    constexpr int s_rounds = 200;
    std::vector<std::shared_ptr<kyNetLink>> links;
    std::vector<std::shared_ptr<kyNetSender>> senders;
    std::vector<std::future<int>> ranks;
    for (int rank = 2; rank < 2 + s_ranks; ++rank) {
        const auto [near, far] = kyTest::makeLinks();
        links.push_back(near);
        senders.push_back(kyNetLinkSender::create(near, {static_cast<unsigned int>(rank)}));
        ranks.push_back(std::async(std::launch::async, [rank, link = far] {
            kyNetStream stream(link);
            stream.setRank(rank);
            int sum = 0;
            for (int round = 0; round < s_rounds; ++round) {
                const int value = stream.waitSync();
                sum += value;
                stream.sendSync(value + 1);
            }
            return sum;
        }));
    }
    kyNetStream master;
    master.setRank(1);
    master.setSender(kyNetMultiSender::create(senders));
    master.setReceiver(kyNetMultiLinkReceiver::create(links));
    ASSERT_EQ(master.getDestinationCount(), s_ranks);
    for (int round = 0; round < s_rounds; ++round) {
        master.sendSync(round);
        ASSERT_EQ(master.waitSync(), round + 1);
    }
    for (auto& rank : ranks) {
        EXPECT_EQ(rank.get(), s_rounds * (s_rounds - 1) / 2);
    }
}

TEST(kyNetStream, remoteFailureIsThrownHere)
{
    const auto [near, far] = kyTest::makeLinks();
    auto server = std::async(std::launch::async, [link = far] {
        kyNetStream stream(link);
        int order = 0;
        stream >> order;
        try {
            throw std::runtime_error("no order " + std::to_string(order));
        } catch (const std::exception& failure) {
            stream.sendException(failure).flush();
        }
        stream.sendSuccess() << order + 1 << kyNetStream::flush;
    });
    kyNetStream stream(near);
    stream << 7 << kyNetStream::flush;
    EXPECT_EQ(messageOf([&] { stream.recvResult(); }), "no order 7");
    int next = 0;
    stream.recvResult() >> next;
    EXPECT_EQ(next, 8);
    server.get();
}

TEST(kyNetStream, shutdownWakesAReaderOfValues)
{
    const auto [near, far] = kyTest::makeLinks();
    kyNetStream stream(near);
    Blocked reading([&] {
        std::string text;
        stream >> text;
    });
    EXPECT_TRUE(reading.isBlocked());
    stream.shutdown();
    EXPECT_THROW(reading.finish(), kyConnectionClosed);
}

TEST(kyNetStream, peerThatClaimsALongTextAndGoesCostsNothing)
{
    const auto [near, far] = kyTest::makeLinks();
    far->send(makeBuffer("\xff\xff\xff\xff and that was all"));
    far->shutdown();
    kyNetStream stream(near);
    std::string text;
    EXPECT_THROW(stream >> text, kyConnectionClosed);
    EXPECT_EQ(text, " and that was all");
    EXPECT_LE(text.capacity(), 100u);
}
