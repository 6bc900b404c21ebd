// Splits any bytes as the data of a received bundle. They are refused whole, or delivered to the
// last byte; what was delivered survives being bundled again.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <queue>
#include <string>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetError.h>
#include <fuzz/kyFuzz.h>

namespace {

using kyFuzz::require;
using Buffer = std::shared_ptr<kyNetBuffer>;
using Queue = std::queue<Buffer>;

/// A bundle whose block ends with its data, so that the sanitizer sees every read behind it.
std::unique_ptr<kyNetBuffer> makeBundle(const std::string& data)
{
    auto* header = static_cast<kyNetHeader*>(std::malloc(sizeof(kyNetHeader) + data.size()));
    require(header != nullptr, "out of memory");
    *header = {};
    header->type = static_cast<std::uint8_t>(kyNetMessageType::Bundle);
    header->dataSize = static_cast<std::uint32_t>(data.size());
    char* begin = reinterpret_cast<char*>(header) + sizeof(kyNetHeader);
    std::memcpy(begin, data.data(), data.size());
    return std::make_unique<kyNetBuffer>(header, begin);
}

/// The messages of a bundle; false if it is refused.
bool trySplit(const kyNetBuffer& bundle, Queue& parts)
{
    try {
        bundle.split(parts);
    } catch (const kyNetError& error) {
        require(parts.empty(), "a refused bundle was delivered in part");
        require(std::string(error.what()) ==
                    "Received invalid bundle. Possibly stream is out of sync.",
                "refused with another text");
        return false;
    }
    return true;
}

/// The bytes of all buffers in turn.
std::string join(Queue buffers)
{
    std::string bytes;
    for (; !buffers.empty(); buffers.pop()) {
        const kyNetBuffer& buffer = *buffers.front();
        bytes.append(reinterpret_cast<const char*>(buffer.getBuffer()), buffer.getBufferSize());
    }
    return bytes;
}

/// Whether a message claims to be a bundle itself, which no sender makes.
bool hasNested(Queue parts)
{
    for (; !parts.empty(); parts.pop()) {
        if (parts.front()->getType() == kyNetMessageType::Bundle) {
            return true;
        }
    }
    return false;
}

void requireRoundTrip(Queue parts, const std::string& expected)
{
    const bool isFlat = !hasNested(parts);
    Queue received;
    for (Buffer out; kyNetBuffer::tryBundle(parts, out);) {
        if (out->getType() == kyNetMessageType::Bundle) {
            Queue again;
            require(trySplit(*out, again) || !isFlat, "an own bundle was refused");
            for (; !again.empty(); again.pop()) {
                received.push(again.front());
            }
        } else {
            received.push(out);
        }
    }
    require(!isFlat || join(received) == expected, "other messages after bundling again");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string input(data, data + size);
    Queue parts;
    if (trySplit(*makeBundle(input), parts)) {
        require(size <= kyNetBuffer::getCapacity(), "more was taken than a buffer holds");
        require(join(parts) == input, "other bytes were delivered than came");
        requireRoundTrip(parts, input);
    }
    return 0;
}
