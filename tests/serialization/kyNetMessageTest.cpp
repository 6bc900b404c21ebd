#include <NetBase/serialization/kyNetMessage.h>

#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyNetBuffer.h>
#include <tests/support/kyTestChains.h>

using kyTest::Buffer;
using kyTest::dataOf;
using kyTest::makeBuffer;
using kyTest::messageOf;
using kyTest::toHex;

namespace {

constexpr std::uint64_t s_capacity = 131602;

/// A message whose inner operations a test may call.
class OpenMessage : public kyNetMessage
{
public:
    using kyNetMessage::flushSendBuffer;
    using kyNetMessage::isReadable;
    using kyNetMessage::recvBuffer;
    using kyNetMessage::sendBuffer;
};

} // namespace

TEST(kyNetMessage, nothingWrittenHasNoBuffer)
{
    kyNetMessage message;
    EXPECT_EQ(message.takeSendBuffer(), nullptr);
}

TEST(kyNetMessage, bufferCarriesTheTypeOfAMessage)
{
    kyTest::soilPool();
    kyNetMessage message;
    EXPECT_EQ(message.getMessageType(), kyNetMessageType::Message);
    message << 7;
    const Buffer buffer = message.takeSendBuffer();
    EXPECT_EQ(toHex(*buffer), "07 00 00 00");
    EXPECT_EQ(buffer->getType(), kyNetMessageType::Message);
    EXPECT_EQ(buffer->getDestination(), 0u);
    EXPECT_EQ(buffer->getSendMode(), kyNetBufferSendMode::Automatic);
    EXPECT_EQ(buffer->getCompression(), kyNetCompression::None);
    EXPECT_EQ(buffer->getOriginalDataSize(), 4u);
}

TEST(kyNetMessage, holdsExactlyTheCapacity)
{
    kyNetMessage message;
    const std::string bytes(s_capacity, 'x');
    message.putBytes(bytes.data(), bytes.size());
    const Buffer buffer = message.takeSendBuffer();
    EXPECT_EQ(buffer->getDataSize(), s_capacity);
    EXPECT_EQ(buffer->getOriginalDataSize(), s_capacity);
}

TEST(kyNetMessage, oneByteMoreIsRefused)
{
    kyNetMessage message;
    const std::string bytes(s_capacity + 1, 'x');
    EXPECT_EQ(messageOf([&] { message.putBytes(bytes.data(), bytes.size()); }),
              "Send buffer size exceeded");
    EXPECT_EQ(message.takeSendBuffer()->getDataSize(), s_capacity);
}

TEST(kyNetMessage, readingBeyondTheEndCopiesWhatIsThere)
{
    kyNetMessage message;
    message.setRecvBuffer(makeBuffer("ab", 0, 0, kyNetMessageType::Message));
    char bytes[4] = {'-', '-', '-', '-'};
    EXPECT_EQ(messageOf([&] { message.getBytes(bytes, 4); }),
              "kyNetMessage: try to read beyond buffer end.");
    EXPECT_EQ(std::string(bytes, 4), "ab--");
    EXPECT_EQ(message.getDataSize(), 0u);
    EXPECT_EQ(messageOf([&] { message.getBytes(bytes, 1); }),
              "kyNetMessage: try to read beyond buffer end.");
}

TEST(kyNetMessage, tellsSourceAndTypeOfWhatWasReceived)
{
    kyNetMessage message;
    message.setRecvBuffer(makeBuffer("ab", 5, 0, kyNetMessageType::Message));
    EXPECT_EQ(message.getType(), kyNetMessageType::Message);
    EXPECT_EQ(message.getSource(), 5u);
    EXPECT_EQ(message.getDataSize(), 2u);
}

TEST(kyNetMessage, isReadableWhileBytesAreLeft)
{
    OpenMessage message;
    EXPECT_FALSE(message.isReadable());
    message.setRecvBuffer(makeBuffer("a"));
    EXPECT_TRUE(message.isReadable());
    char byte = 0;
    message >> byte;
    EXPECT_FALSE(message.isReadable());
}

TEST(kyNetMessage, neverSendsOrReceivesItself)
{
    OpenMessage message;
    Buffer buffer;
    EXPECT_EQ(messageOf([&] { message.recvBuffer(buffer); }),
              "kyNetMessage: try to read beyond buffer end.");
    EXPECT_EQ(messageOf([&] { message.sendBuffer(buffer); }),
              "kyNetMessage: unable to send buffer.");
}

TEST(kyNetMessage, flushFailsOnlyWithABuffer)
{
    OpenMessage message;
    message.flushSendBuffer();
    message << 1;
    EXPECT_EQ(messageOf([&] { message.flushSendBuffer(); }),
              "kyNetMessage: unable to send buffer.");
    EXPECT_EQ(toHex(*message.takeSendBuffer()), "01 00 00 00");
}

TEST(kyNetMessage, referenceBeyondItsRoomIsRefused)
{
    kyNetMessage message;
    EXPECT_EQ(messageOf([&] { message.getOutputReference(131603); }),
              "Unable to get 131603 bytes in buffer. Max accessible bytes 131602");
    message.setRecvBuffer(makeBuffer("abc"));
    EXPECT_EQ(messageOf([&] { message.getInputReference(4); }),
              "Unable to get 4 bytes in buffer. Max accessible bytes 3");
    message.getInputReference(3);
    EXPECT_EQ(messageOf([&] { message.getInputReference(1); }),
              "kyNetMessage: try to read beyond buffer end.");
}

TEST(kyNetMessage, copySharesTheBuffersAndMoveTakesThem)
{
    kyNetMessage message;
    message << 'a';
    kyNetMessage copy = message;
    const kyNetMessage moved = std::move(message);
    EXPECT_EQ(message.takeSendBuffer(), nullptr); // NOLINT: that is the question.
    kyNetMessage last = moved;
    const Buffer buffer = copy.takeSendBuffer();
    EXPECT_EQ(last.takeSendBuffer(), buffer);
    EXPECT_EQ(dataOf(*buffer), "a");
}

TEST(kyNetMessage, droppedMessageReturnsItsBuffers)
{
    std::weak_ptr<kyNetBuffer> received;
    {
        kyNetMessage message;
        const Buffer buffer = makeBuffer("abc");
        received = buffer;
        message.setRecvBuffer(buffer);
        message << 1;
    }
    EXPECT_TRUE(received.expired());
}
