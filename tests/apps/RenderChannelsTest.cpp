#include <apps/common/RenderChannels.h>

#include <algorithm>
#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyNetOptions.h>
#include <NetBase/receivers/kyNetLinkReceiver.h>
#include <NetBase/receivers/kyNetUnbundleReceiver.h>
#include <NetBase/serialization/kyNetMessage.h>
#include <NetBase/serialization/kyNetStream.h>
#include <apps/common/MethodCompressor.h>
#include <tests/support/kyTestChains.h>
#include <tests/support/kyTestCompression.h>

using namespace render;

namespace {

constexpr std::uint64_t s_threshold = 1000;

/// Both ends of two image channels and two low latency channels, and what is sent compressed.
class RenderChannelsTest : public testing::Test
{
protected:
    RenderChannelsTest()
    {
        for (auto [nearLinks, farLinks] : {std::pair{&m_near.image, &m_far.image},
                                           std::pair{&m_near.lowLatency, &m_far.lowLatency}}) {
            for (int i = 0; i < 2; ++i) {
                const auto [oneEnd, otherEnd] = kyTest::makeLinks();
                nearLinks->push_back(oneEnd);
                farLinks->push_back(otherEnd);
            }
        }
        m_sending.setRank(1);
        m_sending.setSender(m_near.makeSender(m_compressor, 2, s_threshold));
    }

    ~RenderChannelsTest() override { m_sending.shutdown(); }

    void send(const std::string& content)
    {
        kyNetMessage message;
        message.putBytes(content.data(), content.size());
        m_sending.sendMessage(message, 2, kyNetBufferSendMode::Automatic);
    }

    /// The next buffer of the far end of a channel, as it travels.
    static kyTest::Buffer recvRaw(const std::shared_ptr<kyNetLink>& link)
    {
        kyTest::Buffer buffer;
        link->recv(buffer);
        return buffer;
    }

    const kyTest::CompressionSetting m_setting{kyNetCompression::Standard, kyNetCompression::None};
    const std::shared_ptr<MethodCompressor> m_compressor = std::make_shared<MethodCompressor>();
    RenderChannels m_near;
    RenderChannels m_far;
    kyNetStream m_sending;
};

/// Values of which none equals the last, in more than one buffer.
std::vector<std::uint32_t> makeNumbers()
{
    std::vector<std::uint32_t> numbers(300'000);
    std::uint32_t number = 1;
    for (std::uint32_t& each : numbers) {
        number = number * 1664525U + 1013904223U;
        each = number;
    }
    return numbers;
}

void sendNumbers(kyNetStream& stream)
{
    const std::vector<std::uint32_t> numbers = makeNumbers();
    stream.putBytes(numbers.data(), numbers.size() * sizeof(std::uint32_t));
    stream.flush();
}

std::vector<std::uint32_t> recvNumbers(kyNetStream& stream)
{
    std::vector<std::uint32_t> numbers(makeNumbers().size());
    stream.getBytes(numbers.data(), numbers.size() * sizeof(std::uint32_t));
    return numbers;
}

} // namespace

TEST_F(RenderChannelsTest, smallBuffersTakeTheLowLatencyChannelsInTurn)
{
    for (int i = 0; i < 4; ++i) {
        send(std::string(s_threshold, 'x'));
    }
    for (int i = 0; i < 2; ++i) {
        for (const auto& link : m_far.lowLatency) {
            EXPECT_EQ(recvRaw(link)->getDataSize(), s_threshold);
        }
    }
}

TEST_F(RenderChannelsTest, largerBuffersTakeAnImageChannelCompressed)
{
    send(std::string(s_threshold + 1, 'x'));
    send(std::string(100'000, 'x'));
    m_sending.waitAllDataTransfered();
    m_sending.shutdown();
    std::vector<std::uint64_t> sizes;
    std::uint64_t bytes = 0;
    for (const auto& link : m_far.image) {
        const auto receiver = kyNetUnbundleReceiver::create(kyNetLinkReceiver::create(link));
        try {
            for (;;) {
                kyTest::Buffer buffer;
                receiver->recv(buffer);
                sizes.push_back(buffer->getOriginalDataSize());
                bytes += buffer->getDataSize();
            }
        } catch (const kyConnectionClosed&) {
            // That was all.
        }
    }
    std::sort(sizes.begin(), sizes.end());
    EXPECT_EQ(sizes, (std::vector<std::uint64_t>{s_threshold + 1, 100'000}));
    EXPECT_LT(bytes, 10'000U);
}

TEST_F(RenderChannelsTest, countsAllBytesThatLeave)
{
    send(std::string(100, 'x'));
    EXPECT_EQ(m_sending.getCompressedBytes(), 120U);
    kyNetOptions::setDataCompression(kyNetCompression::None);
    send(std::string(50'000, 'x'));
    m_sending.waitAllDataTransfered();
    EXPECT_EQ(m_sending.getCompressedBytes(), 120U + 50'020U);
    EXPECT_EQ(m_sending.getCompressedBytes(), m_sending.getSentBytes());
    m_sending.resetStatistics();
    EXPECT_EQ(m_sending.getCompressedBytes(), 0U);
}

TEST_F(RenderChannelsTest, streamDataArrivesInOrderWhateverTheCompression)
{
    kyNetStream receiving;
    receiving.setReceiver(m_far.makeReceiver(m_compressor));
    for (const auto method :
         {kyNetCompression::None, Lz4Compressor::s_method, ZstdCompressor::s_method}) {
        kyNetOptions::setDataCompression(method);
        sendNumbers(m_sending);
        EXPECT_EQ(recvNumbers(receiving), makeNumbers());
    }
}

TEST_F(RenderChannelsTest, messagesOfBothSizesArrive)
{
    kyNetStream receiving;
    receiving.setReceiver(m_far.makeReceiver(m_compressor));
    std::set<std::uint64_t> sizes;
    for (std::uint64_t i = 1; i <= 40; ++i) {
        sizes.insert(i * 50);
        send(std::string(i * 50, 'x'));
    }
    std::set<std::uint64_t> received;
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        kyNetMessage message;
        receiving.recvMessage(message);
        received.insert(message.getDataSize());
    }
    EXPECT_EQ(received, sizes);
}

TEST_F(RenderChannelsTest, aRelayPassesOnStreamDataAndKeepsMessagesForItself)
{
    RenderChannels onwardNear;
    RenderChannels onwardFar;
    for (int i = 0; i < 2; ++i) {
        const auto [oneEnd, otherEnd] = kyTest::makeLinks();
        onwardNear.image.push_back(oneEnd);
        onwardFar.image.push_back(otherEnd);
    }
    const auto relay = kyNetSender::createBundle(onwardNear.image, true, {3});
    kyNetStream receiving;
    receiving.setReceiver(m_far.makeReceiver(m_compressor, relay, 2));
    kyNetStream behind;
    behind.setReceiver(onwardFar.makeReceiver(m_compressor));

    sendNumbers(m_sending);
    EXPECT_EQ(recvNumbers(receiving), makeNumbers());
    send("for rank 2");
    kyNetMessage message;
    receiving.recvMessage(message);
    EXPECT_EQ(message.getDataSize(), 10U);
    m_sending << 7;
    m_sending.flush();
    EXPECT_EQ(recvNumbers(behind), makeNumbers());
    int next = 0;
    behind >> next;
    EXPECT_EQ(next, 7) << "without the message between";
    relay->shutdown();
}

TEST_F(RenderChannelsTest, anyChannelThatClosesIsNoticed)
{
    kyNetStream receiving;
    receiving.setReceiver(m_far.makeReceiver(m_compressor));
    m_near.lowLatency.back()->shutdown();
    kyNetMessage message;
    EXPECT_THROW(receiving.recvMessage(message), kyConnectionClosed);
}
