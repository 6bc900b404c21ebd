#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetBufferPool.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/senders/kyNetCompressorBase.h>

/// What the tests of whole chains send: contents that both ends know by their number, and a
/// compressor for them.
namespace kyTest {

/// Leaves out the zeroes at the end, and disguises the rest, so that nobody mistakes it for the
/// original.
class TrimCompressor final : public kyNetCompressorBase
{
public:
    using Buffer = std::shared_ptr<kyNetBuffer>;

    Buffer compress(const Buffer& buffer) override
    {
        std::uint64_t size = buffer->getDataSize();
        while (size > 1 && buffer->getData()[size - 1] == 0) {
            --size;
        }
        return size == buffer->getDataSize()
                   ? buffer
                   : convert(*buffer, size, kyNetCompression::Standard, buffer->getDataSize());
    }
    Buffer decompress(const Buffer& buffer) override
    {
        const std::uint64_t original = buffer->getOriginalDataSize();
        if (original > kyNetBuffer::getCapacity() || original < buffer->getDataSize()) {
            throw kyNetError("Unable to decompress");
        }
        return convert(*buffer, original, kyNetCompression::None, original);
    }
    bool shouldCompressLocal(const Buffer&) override { return false; }

private:
    static Buffer convert(const kyNetBuffer& from, std::uint64_t size, kyNetCompression compression,
                          std::uint64_t originalSize)
    {
        Buffer to = kyNetBufferPool::pop();
        to->copyHeaderFrom(from);
        to->setSendMode(from.getSendMode());
        to->setDataSize(size);
        to->setCompression(compression, originalSize);
        const std::uint64_t kept = std::min(size, from.getDataSize());
        std::transform(from.getData(), from.getData() + kept, to->getData(),
                       [](char byte) { return static_cast<char>(byte ^ 0x5a); });
        std::fill(to->getData() + kept, to->getData() + size, '\0');
        return to;
    }
};

/// The content of the message of that number: the number, bytes that no other message has there,
/// and zeroes. Most are small, a few are large, and now and then one fills a buffer.
inline std::string contentOf(std::uint32_t number)
{
    static const std::string s_bytes = [] {
        std::minstd_rand random(1);
        std::string bytes(2 * kyNetBuffer::getCapacity(), '\0');
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
        return bytes;
    }();
    std::minstd_rand random(number + 1);
    random.discard(2);
    std::size_t size = random() % 400;
    if (number % 10007 == 10006) {
        size = kyNetBuffer::getCapacity() - sizeof number;
    } else if (random() % 1000 == 0) {
        size = random() % 100000;
    }
    const std::size_t zeroes = random() % 2 == 0 ? 0 : random() % (size + 1);

    std::string content(sizeof number + size, '\0');
    std::memcpy(content.data(), &number, sizeof number);
    std::memcpy(content.data() + sizeof number,
                s_bytes.data() + random() % kyNetBuffer::getCapacity(), size - zeroes);
    return content;
}

/// Whether the buffer holds just what contentOf gives.
inline bool hasContentOf(std::uint32_t number, const kyNetBuffer& buffer)
{
    const std::string content = contentOf(number);
    return buffer.getDataSize() == content.size() &&
           std::memcmp(buffer.getData(), content.data(), content.size()) == 0;
}

} // namespace kyTest
