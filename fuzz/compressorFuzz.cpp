// Decompresses any bytes as a received buffer: original size (4 bytes), compression (1), data. They
// are refused, or make what the header says. Whatever data there is comes back from each method.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetBufferPool.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/buffers/kyNetOptions.h>
#include <apps/common/MethodCompressor.h>
#include <fuzz/kyFuzz.h>

namespace {

using kyFuzz::require;
using Buffer = std::shared_ptr<kyNetBuffer>;

constexpr std::size_t s_prefix = 5;

/// A buffer whose block ends with its data, so that the sanitizer sees every read behind it.
Buffer makeReceived(const std::string& input)
{
    const std::size_t size = input.size() - s_prefix;
    auto* header = static_cast<kyNetHeader*>(std::malloc(sizeof(kyNetHeader) + size));
    require(header != nullptr, "out of memory");
    *header = {};
    std::uint32_t originalSize = 0;
    std::memcpy(&originalSize, input.data(), sizeof(originalSize));
    header->originalDataSize = originalSize;
    header->compression = static_cast<std::uint8_t>(input[s_prefix - 1]);
    header->dataSize = static_cast<std::uint32_t>(size);
    char* data = reinterpret_cast<char*>(header) + sizeof(kyNetHeader);
    std::memcpy(data, input.data() + s_prefix, size);
    return std::make_shared<kyNetBuffer>(header, data);
}

void decompress(const Buffer& received)
{
    try {
        const Buffer result = MethodCompressor().decompress(received);
        require(result == received || result->getDataSize() == received->getOriginalDataSize(),
                "another size came out than the header says");
        require(result->getDataSize() <= kyNetBuffer::getCapacity(), "more than a buffer holds");
    } catch (const kyNetError& error) {
        require(*error.what() != '\0', "refused without a text");
    }
}

/// The input again and again, long enough to be compressed.
Buffer makeClear(const std::string& input)
{
    const Buffer buffer = kyNetBufferPool::pop();
    std::uint64_t size = 0;
    while (size < 2 * kyNetOptions::getCompressionThreshold() &&
           size + input.size() <= kyNetBuffer::getCapacity()) {
        std::memcpy(buffer->getData() + size, input.data(), input.size());
        size += input.size();
    }
    buffer->setDataSize(size);
    buffer->setCompression(kyNetCompression::None, size);
    return buffer;
}

template <class Compressor> void requireRoundTrip(const Buffer& clear)
{
    const Buffer result = Compressor().decompress(Compressor().compress(clear));
    require(result->getDataSize() == clear->getDataSize() &&
                std::memcmp(result->getData(), clear->getData(), clear->getDataSize()) == 0,
            "other data came back");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string input(data, data + size);
    if (size < s_prefix || size > kyNetBuffer::getCapacity()) {
        return 0;
    }
    decompress(makeReceived(input));
    const Buffer clear = makeClear(input);
    requireRoundTrip<Lz4Compressor>(clear);
    requireRoundTrip<ZstdCompressor>(clear);
    return 0;
}
