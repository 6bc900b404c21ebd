#pragma once

#include <cstdint>
#include <limits>
#include <queue>
#include <string>
#include <tuple>
#include <vector>

#include <NetBase/buffers/kyNetError.h>
#include <NetBase/buffers/kyNetInterfaceOptions.h>
#include <NetBase/serialization/kyNetMessage.h>
#include <NetBase/serialization/kyNetStream.h>
#include <tests/support/kyTestChains.h>

/// What kyInteropTest and kyInteropServer, on different systems, know of each other beforehand.
///
/// Each connection to the server begins with the name of what it is for:
///
///     about         answers the last argument, the process id and the system's kind as texts
///     values        takes interopValues(), answers whether they are right, and sends them back
///     text          reads a standard stream and writes it back
///     sync          answers every sync with the next number
///     results       answers each text with a success and the text, or with that text as a failure
///     messages      sends every message back
///     bundles       answers each bundle with one of the same messages, the last one first
///     channels      followed by how many image and low latency channels there will be, and the
///                   method to compress with; once they are there, sends back over all of them
///                   interopNumbers() as stream data, and then every message
///     image         a channel for the former, answered with a success
///     low latency   as well
namespace kyTest {

enum class InteropColor : std::uint16_t
{
    Red = 1,
    Blue = 0xfffe
};

/// Travels as it stands in memory.
struct InteropPlain
{
    std::int32_t number;
    float fraction;

    friend bool operator==(const InteropPlain& a, const InteropPlain& b)
    {
        return a.number == b.number && a.fraction == b.fraction;
    }
};

/// Travels as it says itself.
struct InteropRecord
{
    std::uint64_t size = 0;
    kyNetInterfaceOptions options;

    void putValue(kyNetSerializer& out) const
    {
        out.putValueSize(size);
        out << options;
    }
    void getValue(kyNetSerializer& in)
    {
        in.getValueSize(size);
        in >> options;
    }

    friend bool operator==(const InteropRecord& a, const InteropRecord& b)
    {
        const auto all = [](const InteropRecord& record) {
            const kyNetInterfaceOptions& o = record.options;
            return std::tuple(record.size, o.getNodeAffinity(), o.getIbDevice(), o.getIbPort(),
                              o.getSyncChannels(), o.getImageChannels(), o.getLowLatencyChannels(),
                              o.getEncrypted());
        };
        return all(a) == all(b);
    }
};

/// A value of every kind that a stream takes, numbers at the ends of their ranges.
inline auto interopValues()
{
    InteropRecord record;
    record.size = (std::uint64_t{1} << 40) + 7;
    record.options.setNodeAffinity(3);
    record.options.setIbDevice("mlx4_0");
    record.options.setLowLatencyChannels(std::numeric_limits<std::int32_t>::max());
    record.options.setEncrypted(true);
    return std::tuple(
        std::numeric_limits<std::int8_t>::min(), std::numeric_limits<std::int16_t>::min(),
        std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int64_t>::min(),
        std::numeric_limits<std::uint8_t>::max(), std::numeric_limits<std::uint16_t>::max(),
        std::numeric_limits<std::uint32_t>::max(), std::numeric_limits<std::uint64_t>::max() - 1,
        'k', '\xe4', true, false, std::numeric_limits<float>::max(), 0.1F, -0.1,
        std::numeric_limits<double>::denorm_min(), std::numeric_limits<double>::infinity(),
        InteropColor::Blue, InteropPlain{-5, 0.75F}, std::string(),
        std::string("gr\xc3\xbc\xc3\x9f dich\r\n\t\x1a\xff"), std::string(1'000'000, 'l') + "ong",
        record);
}

template <class Values> void putInteropValues(kyNetSerializer& out, const Values& values)
{
    std::apply([&out](const auto&... each) { (out << ... << each); }, values);
}

template <class Values> void getInteropValues(kyNetSerializer& in, Values& values)
{
    std::apply([&in](auto&... each) { (in >> ... >> each); }, values);
}

/// Numbers in more than one buffer, which compress well.
inline std::vector<std::uint32_t> interopNumbers()
{
    std::vector<std::uint32_t> numbers(300'000);
    std::uint32_t next = 0;
    for (std::uint32_t& number : numbers) {
        number = next++ / 16;
    }
    return numbers;
}

inline void sendInteropNumbers(kyNetStream& stream)
{
    const std::vector<std::uint32_t> numbers = interopNumbers();
    stream.putBytes(numbers.data(), numbers.size() * sizeof(std::uint32_t));
    stream.flush();
}

inline std::vector<std::uint32_t> recvInteropNumbers(kyNetStream& stream)
{
    std::vector<std::uint32_t> numbers(interopNumbers().size());
    stream.getBytes(numbers.data(), numbers.size() * sizeof(std::uint32_t));
    return numbers;
}

/// Sends the message of that number to the rank.
inline void sendInteropMessage(kyNetStream& stream, const std::string& content, int rank)
{
    kyNetMessage message;
    message.putBytes(content.data(), content.size());
    stream.sendMessage(message, rank, kyNetBufferSendMode::Automatic);
}

inline std::string recvInteropMessage(kyNetStream& stream)
{
    kyNetMessage message;
    stream.recvMessage(message);
    std::string content(message.getDataSize(), '\0');
    message.getBytes(content.data(), content.size());
    return content;
}

/// Takes one bundle apart. Throws kyNetError if it is none.
inline std::vector<Buffer> recvInteropBundle(kyNetLink& link)
{
    Buffer bundle;
    link.recv(bundle);
    if (bundle->getType() != kyNetMessageType::Bundle) {
        throw kyNetError("This is no bundle");
    }
    std::queue<Buffer> entries;
    bundle->split(entries);
    std::vector<Buffer> result;
    for (; !entries.empty(); entries.pop()) {
        result.push_back(entries.front());
    }
    return result;
}

/// Sends messages as one bundle.
inline void sendInteropBundle(kyNetLink& link, const std::vector<Buffer>& entries)
{
    std::queue<Buffer> queue;
    for (const Buffer& entry : entries) {
        queue.push(entry);
    }
    Buffer bundle;
    kyNetBuffer::tryBundle(queue, bundle);
    if (!queue.empty()) {
        throw kyNetError("They do not fit into one bundle");
    }
    link.send(bundle);
}

} // namespace kyTest
