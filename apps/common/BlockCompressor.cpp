#include <apps/common/BlockCompressor.h>

#include <string>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetBufferPool.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/buffers/kyNetOptions.h>

namespace {

constexpr std::uint64_t s_threshold = kyNetOptions::getCompressionThreshold();

std::shared_ptr<kyNetBuffer> makeResult(const kyNetBuffer& source)
{
    std::shared_ptr<kyNetBuffer> result = kyNetBufferPool::pop();
    result->copyHeaderFrom(source);
    result->setSendMode(source.getSendMode());
    return result;
}

} // namespace

std::shared_ptr<kyNetBuffer> BlockCompressor::compress(const std::shared_ptr<kyNetBuffer>& buffer)
{
    const std::uint64_t size = buffer->getDataSize();
    if (buffer->getCompression() != kyNetCompression::None || size < s_threshold) {
        return buffer;
    }
    std::shared_ptr<kyNetBuffer> result = makeResult(*buffer);
    // One byte less: else nothing is won.
    const std::uint64_t shortened = shorten(result->getData(), size - 1, buffer->getData(), size);
    if (shortened == 0) {
        return buffer;
    }
    result->setCompression(m_method, size);
    result->setDataSize(shortened);
    return result;
}

std::shared_ptr<kyNetBuffer> BlockCompressor::decompress(const std::shared_ptr<kyNetBuffer>& buffer)
{
    if (buffer->getCompression() == kyNetCompression::None) {
        return buffer;
    }
    if (buffer->getCompression() != m_method) {
        throw kyNetError("Received buffer of compression method " +
                         std::to_string(static_cast<int>(buffer->getCompression())) +
                         " instead of " + std::to_string(static_cast<int>(m_method)));
    }
    const std::uint64_t size = buffer->getDataSize();
    const std::uint64_t originalSize = buffer->getOriginalDataSize();
    // What gets no shorter is not compressed.
    if (size >= originalSize || originalSize > kyNetBuffer::getCapacity()) {
        throw kyNetError("Received invalid size of compressed data. "
                         "Possibly stream is out of sync.");
    }
    std::shared_ptr<kyNetBuffer> result = makeResult(*buffer);
    if (!restore(result->getData(), originalSize, buffer->getData(), size)) {
        throw kyNetError("Received invalid compressed data. Possibly stream is out of sync.");
    }
    result->setDataSize(originalSize);
    result->setCompression(kyNetCompression::None, originalSize);
    return result;
}

bool BlockCompressor::shouldCompressLocal(const std::shared_ptr<kyNetBuffer>& buffer)
{
    return shouldCompress(buffer);
}
