#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <queue>
#include <string>
#include <utility>
#include <vector>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetBufferPool.h>
#include <NetBase/links/kyNetLink.h>
#include <NetBase/links/kySocketLink.h>
#include <NetBase/receivers/kyNetReceiver.h>
#include <NetBase/senders/kyNetSender.h>
#include <tests/support/kyTestMessage.h>
#include <tests/support/kyTestSocket.h>

/// The ends of chains for tests of what stands above them: they keep what is sent and deliver what
/// they are given, without a network; and pairs of real links where a network is needed.
namespace kyTest {

using Buffer = std::shared_ptr<kyNetBuffer>;

/// Bytes as "0a ff 00".
inline std::string toHex(const void* data, std::uint64_t size)
{
    static const char* const s_digits = "0123456789abcdef";
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::string text;
    for (std::uint64_t i = 0; i < size; ++i) {
        text += i == 0 ? "" : " ";
        text += s_digits[bytes[i] / 16];
        text += s_digits[bytes[i] % 16];
    }
    return text;
}

/// The data of a buffer in hexadecimal.
inline std::string toHex(const kyNetBuffer& buffer)
{
    return toHex(buffer.getData(), buffer.getDataSize());
}

/// The data of a buffer.
inline std::string dataOf(const kyNetBuffer& buffer)
{
    return {buffer.getData(), buffer.getDataSize()};
}

/// A buffer of stream data as it arrives.
inline Buffer makeBuffer(const std::string& data, std::uint32_t source = 0,
                         std::uint32_t destination = 0,
                         kyNetMessageType type = kyNetMessageType::StreamData)
{
    Buffer buffer = kyNetBufferPool::pop();
    buffer->setDataSize(data.size());
    buffer->setCompression(kyNetCompression::None, data.size());
    buffer->setSequence(0);
    buffer->setType(type);
    buffer->setSource(source);
    buffer->setDestination(destination);
    buffer->setSendMode(kyNetBufferSendMode::Automatic);
    data.copy(buffer->getData(), data.size());
    return buffer;
}

/// Leaves nothing in the pool but buffers whose headers were used for something else.
inline void soilPool()
{
    std::vector<Buffer> buffers;
    kyNetBufferPool::popMany(1024, buffers);
    for (const Buffer& buffer : buffers) {
        *buffer->getBuffer() = kyNetHeader{77, 88, 99, 3, 5, 66, 55};
        buffer->setSendMode(kyNetBufferSendMode::Second);
    }
}

/// A sender that keeps what it is given, or fails.
class KeepingSender : public kyNetSender
{
public:
    using kyNetSender::kyNetSender;

    void send(const Buffer& buffer) override
    {
        if (onSend) {
            onSend(*buffer);
        }
        sent.push_back(buffer);
    }
    int getNodeAffinity() override
    {
        ++affinityAsked;
        return affinity;
    }
    void resetStatistics() override { ++resets; }
    std::uint64_t getCompressedBytes() override { return compressedBytes; }
    void waitAllDataTransfered() override { ++waits; }

    std::function<void(kyNetBuffer&)> onSend;
    std::vector<Buffer> sent;
    int affinity = -1;
    int affinityAsked = 0;
    int resets = 0;
    int waits = 0;
    std::uint64_t compressedBytes = 0;
};

/// A receiver that delivers what it is given, and then is closed.
class GivingReceiver : public kyNetReceiver
{
public:
    using kyNetReceiver::kyNetReceiver;

    void recv(Buffer& buffer) override
    {
        if (given.empty()) {
            throw kyConnectionClosed();
        }
        buffer = std::move(given.front());
        given.pop();
    }
    void addToRecvQueue(const Buffer& buffer) override { given.push(buffer); }
    bool isReadable() override { return !given.empty(); }
    std::string getLinkName() override { return "here->there"; }
    int getNodeAffinity() override
    {
        ++affinityAsked;
        return affinity;
    }

    std::queue<Buffer> given;
    int affinity = -1;
    int affinityAsked = 0;
};

/// A link without a network: keeps what is sent, delivers what it is given.
class KeepingLink : public kyNetLink
{
public:
    void send(const Buffer& buffer) override
    {
        if (isShutDown) {
            throw kyConnectionClosed();
        }
        sent.push_back(buffer);
    }
    void sendMany(const std::vector<Buffer>& buffers) override
    {
        sentTogether.push_back(buffers.size());
        kyNetLink::sendMany(buffers);
    }
    void recv(Buffer& buffer) override
    {
        if (isShutDown || given.empty()) {
            throw kyConnectionClosed();
        }
        buffer = std::move(given.front());
        given.pop();
    }
    void shutdown() override { isShutDown = true; }
    std::uint32_t getRecvHandle() override { return 0; }
    void checkAlive() override {}
    std::string getLinkName() override { return "a->b"; }

    std::vector<Buffer> sent;
    std::vector<std::size_t> sentTogether;
    std::queue<Buffer> given;
    std::atomic<bool> isShutDown{false};
};

/// Two links over one TCP connection.
inline std::pair<std::shared_ptr<kySocketLink>, std::shared_ptr<kySocketLink>> makeLinks()
{
    const auto [near, far] = makeConnection();
    return {std::make_shared<kySocketLink>(near), std::make_shared<kySocketLink>(far)};
}

} // namespace kyTest
