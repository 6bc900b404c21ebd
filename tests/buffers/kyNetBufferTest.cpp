#include <NetBase/buffers/kyNetBuffer.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <locale>
#include <map>
#include <memory>
#include <optional>
#include <queue>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyNetBufferPool.h>
#include <NetBase/buffers/kyNetError.h>
#include <tests/support/kyTestSlowness.h>

namespace {

using Buffer = std::shared_ptr<kyNetBuffer>;
using Queue = std::queue<Buffer>;

constexpr std::uint64_t s_capacity = 131602;
constexpr const char* s_invalidBundle = "Received invalid bundle. Possibly stream is out of sync.";

/// A buffer whose header fields and data all follow from the sequence.
Buffer makeBuffer(std::uint32_t destination, std::uint64_t size, int sequence = 1)
{
    Buffer buffer = kyNetBufferPool::pop();
    buffer->setDataSize(size);
    buffer->setCompression(static_cast<kyNetCompression>(sequence % 5), size + 3);
    buffer->setSequence(sequence);
    buffer->setType(static_cast<kyNetMessageType>(sequence % 3));
    buffer->setSource(static_cast<std::uint32_t>(sequence) + 100);
    buffer->setDestination(destination);
    buffer->setSendMode(kyNetBufferSendMode::Automatic);
    for (std::uint64_t i = 0; i < size; ++i) {
        buffer->getData()[i] = static_cast<char>(i * 7 + static_cast<unsigned>(sequence));
    }
    return buffer;
}

/// The bytes that go on the wire.
std::string bytesOf(const kyNetBuffer& buffer)
{
    return {reinterpret_cast<const char*>(buffer.getBuffer()), buffer.getBufferSize()};
}

std::vector<std::string> drain(Queue& queue)
{
    std::vector<std::string> messages;
    for (; !queue.empty(); queue.pop()) {
        messages.push_back(bytesOf(*queue.front()));
    }
    return messages;
}

std::vector<std::string> splitAll(const kyNetBuffer& bundle)
{
    Queue parts;
    bundle.split(parts);
    return drain(parts);
}

Queue queueOf(const std::vector<Buffer>& buffers)
{
    Queue queue;
    for (const Buffer& buffer : buffers) {
        queue.push(buffer);
    }
    return queue;
}

Buffer bundleOf(const std::vector<Buffer>& buffers)
{
    Queue queue = queueOf(buffers);
    Buffer bundle;
    EXPECT_TRUE(kyNetBuffer::tryBundle(queue, bundle));
    EXPECT_TRUE(queue.empty());
    EXPECT_EQ(bundle->getType(), kyNetMessageType::Bundle);
    return bundle;
}

/// A bundle with exactly these bytes of data and not one behind them, so that the sanitizer sees
/// every read that goes too far.
std::unique_ptr<kyNetBuffer> rawBundle(const std::string& data)
{
    auto* header = static_cast<kyNetHeader*>(std::malloc(sizeof(kyNetHeader) + data.size()));
    *header = {};
    header->type = 3;
    header->dataSize = static_cast<std::uint32_t>(data.size());
    char* begin = reinterpret_cast<char*>(header) + sizeof(kyNetHeader);
    std::memcpy(begin, data.data(), data.size());
    return std::make_unique<kyNetBuffer>(header, begin);
}

/// One entry of a bundle that claims a data size.
std::string entry(std::uint32_t claimedSize, const std::string& data)
{
    kyNetHeader header{};
    header.dataSize = claimedSize;
    return std::string(reinterpret_cast<const char*>(&header), sizeof header) + data;
}

/// The buffer that the pool gives next.
kyNetBuffer* nextOfPool()
{
    // Each one goes to the back again: once the first is there, the second is in front.
    kyNetBuffer* const first = kyNetBufferPool::pop().get();
    kyNetBuffer* const second = kyNetBufferPool::pop().get();
    while (kyNetBufferPool::pop().get() != first) {
    }
    return second;
}

/// Numbers below a bound, the same in every run.
class Random
{
public:
    explicit Random(std::uint32_t seed) : m_engine(seed) {}

    std::uint32_t operator()(std::uint32_t bound)
    {
        return static_cast<std::uint32_t>(m_engine() % bound);
    }

private:
    std::mt19937 m_engine;
};

/// What splitting throws, or nothing; either way nothing of a refused bundle is delivered.
std::optional<std::string> refusal(const kyNetBuffer& bundle)
{
    Queue parts;
    try {
        bundle.split(parts);
    } catch (const kyNetError& error) {
        EXPECT_TRUE(parts.empty());
        return error.what();
    }
    return {};
}

} // namespace

TEST(kyNetBuffer, isOneBlockOfHeaderAndData)
{
    kyNetBuffer buffer;
    EXPECT_EQ(kyNetBuffer::getHeaderSize(), 20U);
    EXPECT_EQ(kyNetBuffer::getCapacity(), s_capacity);
    EXPECT_EQ(buffer.getData(), reinterpret_cast<char*>(buffer.getBuffer()) + 20);
    EXPECT_EQ(buffer.getSendMode(), kyNetBufferSendMode::Automatic);
    EXPECT_FALSE(buffer.getFlag());

    // The whole of it is there; the address sanitizer checks.
    std::memset(buffer.getBuffer(), 0x5a, 20 + s_capacity);
    EXPECT_EQ(buffer.getData()[s_capacity - 1], 0x5a);
}

// Those that do compete for a few lines of a processor's cache.
TEST(kyNetBuffer, headersOfBuffersStandAtDifferentPlacesOfTheirPages)
{
    constexpr std::size_t buffers = 64;
    constexpr std::uintptr_t page = 4096;
    constexpr std::uintptr_t small = 128;
    std::vector<std::unique_ptr<kyNetBuffer>> held;
    std::map<std::uintptr_t, int> countOfPlace;
    int most = 0;
    for (std::size_t i = 0; i < buffers; ++i) {
        held.push_back(std::make_unique<kyNetBuffer>());
        const auto address = reinterpret_cast<std::uintptr_t>(held.back()->getBuffer());
        most = std::max(most, ++countOfPlace[address % page / small]);
    }
    EXPECT_LE(most, 16);
}

TEST(kyNetBuffer, wrapsAndFreesABlock)
{
    auto* block = static_cast<char*>(std::malloc(20 + s_capacity));
    kyNetBuffer buffer(reinterpret_cast<kyNetHeader*>(block), block + 20);
    EXPECT_EQ(reinterpret_cast<char*>(buffer.getBuffer()), block);
    EXPECT_EQ(buffer.getData(), block + 20);
    EXPECT_EQ(buffer.getSendMode(), kyNetBufferSendMode::Automatic);
    EXPECT_FALSE(buffer.getFlag());
}

TEST(kyNetBuffer, wrappingNothingFreesNothing)
{
    const kyNetBuffer buffer(nullptr, nullptr);
    EXPECT_EQ(buffer.getBuffer(), nullptr);
}

TEST(kyNetBuffer, assignmentSharesTheBlockForAsLongAsEither)
{
    auto first = std::make_unique<kyNetBuffer>();
    auto second = std::make_unique<kyNetBuffer>();
    first->setDataSize(1);
    first->getData()[0] = 'x';
    first->setSendMode(kyNetBufferSendMode::Second);
    first->setFlag(true);

    *second = *first;
    EXPECT_EQ(second->getBuffer(), first->getBuffer());
    EXPECT_EQ(second->getData(), first->getData());
    EXPECT_EQ(second->getSendMode(), kyNetBufferSendMode::Second);
    EXPECT_TRUE(second->getFlag());

    first.reset();
    EXPECT_EQ(second->getDataSize(), 1U);
    EXPECT_EQ(second->getData()[0], 'x');
}

TEST(kyNetBuffer, assignmentToItselfChangesNothing)
{
    kyNetBuffer buffer;
    kyNetBuffer& same = buffer;
    buffer.setDataSize(9);
    buffer = same;
    EXPECT_EQ(buffer.getDataSize(), 9U);
}

TEST(kyNetBuffer, isNotCopyConstructible)
{
    EXPECT_FALSE(std::is_copy_constructible_v<kyNetBuffer>);
    EXPECT_FALSE(std::is_move_constructible_v<kyNetBuffer>);
}

TEST(kyNetBuffer, accessorsWriteTheHeader)
{
    kyNetBuffer buffer;
    buffer.setDataSize(0x01020304);
    buffer.setCompression(static_cast<kyNetCompression>(0x0b), 0x11121314);
    buffer.setSequence(0x2122);
    buffer.setType(static_cast<kyNetMessageType>(0x31));
    buffer.setSource(0x41424344);
    buffer.setDestination(0x51525354);

    EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer.getBuffer()), 20),
              std::string("\x04\x03\x02\x01\x14\x13\x12\x11\x22\x21\x31\x0b"
                          "\x44\x43\x42\x41\x54\x53\x52\x51"));
    EXPECT_EQ(buffer.getDataSize(), 0x01020304U);
    EXPECT_EQ(buffer.getOriginalDataSize(), 0x11121314U);
    EXPECT_EQ(buffer.getSequence(), 0x2122);
    EXPECT_EQ(buffer.getType(), static_cast<kyNetMessageType>(0x31));
    EXPECT_EQ(buffer.getCompression(), static_cast<kyNetCompression>(0x0b));
    EXPECT_EQ(buffer.getSource(), 0x41424344U);
    EXPECT_EQ(buffer.getDestination(), 0x51525354U);
}

TEST(kyNetBuffer, storesTheLowBitsOfWiderValues)
{
    kyNetBuffer buffer;
    buffer.setDataSize(0x700000005);
    EXPECT_EQ(buffer.getDataSize(), 5U);
    buffer.setSequence(0x12345);
    EXPECT_EQ(buffer.getSequence(), 0x2345);
    buffer.setSequence(-1);
    EXPECT_EQ(buffer.getSequence(), 65535);
    buffer.setType(static_cast<kyNetMessageType>(0x102));
    EXPECT_EQ(buffer.getType(), kyNetMessageType::ImageData);
    buffer.setCompression(static_cast<kyNetCompression>(0x104), 0x900000006);
    EXPECT_EQ(buffer.getCompression(), kyNetCompression::LocalImage);
    EXPECT_EQ(buffer.getOriginalDataSize(), 6U);
}

TEST(kyNetBuffer, typesAndMethodsWithoutANamePassUnchanged)
{
    kyNetBuffer buffer;
    for (int value = 0; value < 256; ++value) {
        buffer.setType(static_cast<kyNetMessageType>(value));
        buffer.setCompression(static_cast<kyNetCompression>(value), 0);
        EXPECT_EQ(static_cast<int>(buffer.getType()), value);
        EXPECT_EQ(static_cast<int>(buffer.getCompression()), value);
    }
}

TEST(kyNetBuffer, bufferSizeOfTheLargestDataSizeDoesNotWrap)
{
    kyNetBuffer buffer;
    buffer.setDataSize(0xffffffff);
    EXPECT_EQ(buffer.getBufferSize(), 0x100000013U);
    buffer.setDataSize(0);
    EXPECT_EQ(buffer.getBufferSize(), 20U);
}

TEST(kyNetBuffer, setCompressionLeavesTheDataSize)
{
    kyNetBuffer buffer;
    buffer.setDataSize(10);
    buffer.setCompression(kyNetCompression::Standard, 40);
    EXPECT_EQ(buffer.getDataSize(), 10U);
    EXPECT_EQ(buffer.getOriginalDataSize(), 40U);
    EXPECT_EQ(buffer.getCompressedDataSize(), 10U);
}

TEST(kyNetBuffer, compressedSizeOfAnUncompressedBufferIsItsOriginalSize)
{
    kyNetBuffer buffer;
    buffer.setDataSize(10);
    buffer.setCompression(kyNetCompression::None, 40);
    EXPECT_EQ(buffer.getCompressedDataSize(), 40U);
}

TEST(kyNetBuffer, onlyDestinationZeroIsMulticast)
{
    kyNetBuffer buffer;
    buffer.setDestination(0);
    EXPECT_TRUE(buffer.isMulticast());
    for (const std::uint32_t rank : {1U, 256U, 65536U, 0xffffffffU}) {
        buffer.setDestination(rank);
        EXPECT_FALSE(buffer.isMulticast()) << rank;
    }
}

TEST(kyNetBuffer, copyHeaderFromCopiesTheHeaderAlone)
{
    const Buffer from = makeBuffer(7, 4, 9);
    from->setSendMode(kyNetBufferSendMode::Second);
    from->setFlag(true);
    kyNetBuffer to;
    std::memset(to.getData(), 'z', 4);

    to.copyHeaderFrom(*from);
    EXPECT_EQ(std::memcmp(to.getBuffer(), from->getBuffer(), 20), 0);
    EXPECT_EQ(std::string(to.getData(), 4), "zzzz");
    EXPECT_EQ(to.getSendMode(), kyNetBufferSendMode::Automatic);
    EXPECT_FALSE(to.getFlag());
}

TEST(kyNetBuffer, emptyQueueGivesNothing)
{
    Queue queue;
    const Buffer before = makeBuffer(1, 1);
    Buffer out = before;
    EXPECT_FALSE(kyNetBuffer::tryBundle(queue, out));
    EXPECT_EQ(out, before);
}

TEST(kyNetBuffer, singleBufferComesBackAsItIs)
{
    for (const std::uint64_t size : {std::uint64_t{0}, std::uint64_t{5}, s_capacity}) {
        const Buffer only = makeBuffer(1, size);
        const std::string before = bytesOf(*only);
        Queue queue = queueOf({only});
        Buffer out;
        EXPECT_TRUE(kyNetBuffer::tryBundle(queue, out));
        EXPECT_EQ(out, only);
        EXPECT_EQ(bytesOf(*out), before);
        EXPECT_TRUE(queue.empty());
    }
}

TEST(kyNetBuffer, whatIsNotBundledTakesNoBufferFromThePool)
{
    const std::vector<Buffer> messages = {makeBuffer(1, 4, 1), makeBuffer(2, 4, 2),
                                          makeBuffer(2, 0, 3)};
    {
        std::vector<Buffer> free;
        kyNetBufferPool::popMany(8, free); // So many that taking one changes which is next.
    }
    kyNetBuffer* const next = nextOfPool();
    Queue queue = queueOf(messages);
    Buffer out;
    for (const Buffer& message : messages) {
        EXPECT_TRUE(kyNetBuffer::tryBundle(queue, out));
        EXPECT_EQ(out, message);
    }
    EXPECT_EQ(kyNetBufferPool::pop().get(), next);
}

TEST(kyNetBuffer, bundleIsARunOfWholeMessages)
{
    const std::vector<Buffer> messages = {makeBuffer(5, 1, 1), makeBuffer(5, 2, 2),
                                          makeBuffer(5, 300, 3)};
    const Buffer bundle = bundleOf(messages);
    EXPECT_EQ(std::string(bundle->getData(), bundle->getDataSize()),
              bytesOf(*messages[0]) + bytesOf(*messages[1]) + bytesOf(*messages[2]));
}

TEST(kyNetBuffer, bundleHasSourceDestinationAndSendModeOfItsFirst)
{
    const Buffer first = makeBuffer(5, 1, 11);
    first->setSendMode(kyNetBufferSendMode::Second);
    const Buffer bundle = bundleOf({first, makeBuffer(5, 2, 12)});
    EXPECT_EQ(bundle->getSource(), 111U);
    EXPECT_EQ(bundle->getDestination(), 5U);
    EXPECT_EQ(bundle->getSequence(), 0);
    EXPECT_EQ(bundle->getCompression(), kyNetCompression::None);
    EXPECT_EQ(bundle->getOriginalDataSize(), 0U);
    EXPECT_EQ(bundle->getDataSize(), 43U);
    EXPECT_EQ(bundle->getSendMode(), kyNetBufferSendMode::Second);
}

TEST(kyNetBuffer, bundlingLeavesTheMessagesAsTheyAre)
{
    const Buffer first = makeBuffer(5, 10, 1);
    const Buffer second = makeBuffer(5, 20, 2);
    const std::string firstBytes = bytesOf(*first);
    const std::string secondBytes = bytesOf(*second);
    bundleOf({first, second});
    EXPECT_EQ(bytesOf(*first), firstBytes);
    EXPECT_EQ(bytesOf(*second), secondBytes);
}

TEST(kyNetBuffer, anotherDestinationEndsTheRun)
{
    Queue queue = queueOf({makeBuffer(1, 4, 1), makeBuffer(1, 4, 2), makeBuffer(2, 4, 3)});
    const Buffer third = queue.back();
    Buffer out;
    EXPECT_TRUE(kyNetBuffer::tryBundle(queue, out));
    EXPECT_EQ(out->getDataSize(), 48U);
    ASSERT_EQ(queue.size(), 1U);
    EXPECT_EQ(queue.front(), third);
    EXPECT_TRUE(kyNetBuffer::tryBundle(queue, out));
    EXPECT_EQ(out, third);
}

TEST(kyNetBuffer, emptyBufferEndsTheRunAndStaysAlone)
{
    const Buffer first = makeBuffer(1, 4, 1);
    const Buffer empty = makeBuffer(1, 0, 2);
    const Buffer last = makeBuffer(1, 4, 3);
    Queue queue = queueOf({first, empty, last});
    Buffer out;
    for (const Buffer& expected : {first, empty, last}) {
        EXPECT_TRUE(kyNetBuffer::tryBundle(queue, out));
        EXPECT_EQ(out, expected);
    }
    EXPECT_TRUE(queue.empty());
}

// Intended: full to the last byte but one is the most.
TEST(kyNetBuffer, bundleNeverFillsTheCapacityExactly)
{
    // The first entry takes 20 + 1000 bytes, the second 20 and its data.
    constexpr std::uint64_t exact = s_capacity - 1020 - 20;
    for (const std::uint64_t size : {exact - 2, exact - 1, exact, exact + 1}) {
        Queue queue = queueOf({makeBuffer(1, 1000, 1), makeBuffer(1, size, 2)});
        Buffer out;
        EXPECT_TRUE(kyNetBuffer::tryBundle(queue, out));
        if (size < exact) {
            EXPECT_TRUE(queue.empty()) << size;
            EXPECT_EQ(out->getDataSize(), 1040 + size);
        } else {
            EXPECT_EQ(queue.size(), 1U) << size;
            EXPECT_EQ(out->getDataSize(), 1000U);
        }
    }
}

TEST(kyNetBuffer, thirdMessageIsHeldAgainstWhatTheBundleHas)
{
    // Two entries take 2040 bytes.
    constexpr std::uint64_t exact = s_capacity - 2040 - 20;
    for (const std::uint64_t size : {exact - 1, exact}) {
        Queue queue =
            queueOf({makeBuffer(1, 1000, 1), makeBuffer(1, 1000, 2), makeBuffer(1, size, 3)});
        Buffer out;
        EXPECT_TRUE(kyNetBuffer::tryBundle(queue, out));
        EXPECT_EQ(queue.size(), size < exact ? 0U : 1U);
        EXPECT_EQ(splitAll(*out).size(), size < exact ? 3U : 2U);
    }
}

TEST(kyNetBuffer, fullBufferIsNeverBundled)
{
    Queue queue = queueOf({makeBuffer(1, s_capacity, 1), makeBuffer(1, 1, 2)});
    Buffer out;
    EXPECT_TRUE(kyNetBuffer::tryBundle(queue, out));
    EXPECT_EQ(out->getDataSize(), s_capacity);
    EXPECT_EQ(queue.size(), 1U);
}

TEST(kyNetBuffer, absurdDataSizeIsNotBundled)
{
    const Buffer absurd = makeBuffer(1, 1, 2);
    absurd->setDataSize(0xffffffff);
    Queue behind = queueOf({makeBuffer(1, 1, 1), absurd});
    Buffer out;
    EXPECT_TRUE(kyNetBuffer::tryBundle(behind, out));
    EXPECT_EQ(out->getDataSize(), 1U);
    EXPECT_EQ(behind.size(), 1U);

    Queue before = queueOf({absurd, makeBuffer(1, 1, 1)});
    EXPECT_TRUE(kyNetBuffer::tryBundle(before, out));
    EXPECT_EQ(out, absurd);
    EXPECT_EQ(before.size(), 1U);
}

TEST(kyNetBuffer, bundlesInFrontAndBehindAreTakenFlat)
{
    const std::vector<Buffer> messages = {makeBuffer(1, 10, 1), makeBuffer(1, 20, 2),
                                          makeBuffer(1, 30, 3), makeBuffer(1, 40, 4),
                                          makeBuffer(1, 50, 5)};
    const Buffer front = bundleOf({messages[0], messages[1]});
    const Buffer back = bundleOf({messages[3], messages[4]});
    const Buffer all = bundleOf({front, messages[2], back});

    std::vector<std::string> expected;
    for (const Buffer& message : messages) {
        expected.push_back(bytesOf(*message));
    }
    EXPECT_EQ(all->getDataSize(), 150U + 5 * 20);
    EXPECT_EQ(splitAll(*all), expected);
}

TEST(kyNetBuffer, bundleInFrontCountsWithItsHeaderUntilItIsUnpacked)
{
    const Buffer front = bundleOf({makeBuffer(1, 460, 1), makeBuffer(1, 480, 2)}); // 980 bytes
    constexpr std::uint64_t exact = s_capacity - (980 + 20) - 20;
    for (const std::uint64_t size : {exact - 1, exact}) {
        Queue queue = queueOf({front, makeBuffer(1, size, 3)});
        Buffer out;
        EXPECT_TRUE(kyNetBuffer::tryBundle(queue, out));
        EXPECT_EQ(queue.empty(), size < exact);
        EXPECT_EQ(out == front, size == exact);
    }

    // Unpacked with a second message it takes 980 + 120 bytes.
    constexpr std::uint64_t behind = s_capacity - 1100 - 20;
    for (const std::uint64_t size : {behind - 1, behind}) {
        Queue queue = queueOf({front, makeBuffer(1, 100, 3), makeBuffer(1, size, 4)});
        Buffer out;
        EXPECT_TRUE(kyNetBuffer::tryBundle(queue, out));
        EXPECT_EQ(queue.empty(), size < behind);
    }
}

TEST(kyNetBuffer, addToBundleAppends)
{
    const Buffer bundle = makeBuffer(1, 0, 0);
    bundle->setType(kyNetMessageType::Bundle);
    const Buffer first = makeBuffer(1, 3, 1);
    const Buffer empty = makeBuffer(2, 0, 2);
    bundle->addToBundle(first);
    bundle->addToBundle(empty);
    EXPECT_EQ(splitAll(*bundle), (std::vector<std::string>{bytesOf(*first), bytesOf(*empty)}));

    const Buffer other = makeBuffer(1, 0, 0);
    other->setType(kyNetMessageType::Bundle);
    other->addToBundle(bundle);
    EXPECT_EQ(splitAll(*other), (std::vector<std::string>{bytesOf(*first), bytesOf(*empty)}));
}

TEST(kyNetBuffer, splitKeepsEveryFieldAndTheOrder)
{
    const std::vector<Buffer> messages = {makeBuffer(0, 1, 65535), makeBuffer(0, 70000, 2),
                                          makeBuffer(0, 11, 3)};
    const Buffer bundle = bundleOf(messages);
    const std::string before = bytesOf(*bundle);
    Queue parts;
    parts.push(messages[0]);
    bundle->split(parts);

    EXPECT_EQ(bytesOf(*bundle), before);
    ASSERT_EQ(parts.size(), 4U);
    EXPECT_EQ(parts.front(), messages[0]);
    parts.pop();
    for (const Buffer& message : messages) {
        EXPECT_NE(parts.front(), message);
        EXPECT_EQ(bytesOf(*parts.front()), bytesOf(*message));
        parts.pop();
    }
}

TEST(kyNetBuffer, partsAreRoutedAnewWhateverTheirBuffersWereUsedFor)
{
    const Buffer bundle = bundleOf({makeBuffer(1, 1, 1), makeBuffer(1, 1, 2)});
    bundle->setSendMode(kyNetBufferSendMode::Second);
    {
        std::vector<Buffer> used;
        kyNetBufferPool::popMany(20, used);
        for (const Buffer& buffer : used) {
            buffer->setSendMode(kyNetBufferSendMode::Second);
        }
    }
    Queue parts;
    bundle->split(parts);
    for (; !parts.empty(); parts.pop()) {
        EXPECT_EQ(parts.front()->getSendMode(), kyNetBufferSendMode::Automatic);
    }
}

TEST(kyNetBuffer, emptyBundleSplitsIntoNothing)
{
    EXPECT_EQ(splitAll(*rawBundle("")).size(), 0U);
}

TEST(kyNetBuffer, bundleFullOfEmptyEntriesIsSplit)
{
    std::string data;
    for (int i = 0; i < 6580; ++i) {
        data += entry(0, "");
    }
    EXPECT_EQ(splitAll(*rawBundle(data)).size(), 6580U);
}

TEST(kyNetBuffer, entryOfTheWholeCapacityIsSplit)
{
    const std::string data = entry(s_capacity - 20, std::string(s_capacity - 20, 'q'));
    const std::vector<std::string> parts = splitAll(*rawBundle(data));
    ASSERT_EQ(parts.size(), 1U);
    EXPECT_EQ(parts[0], data);
}

TEST(kyNetBuffer, bundleCutOffAnywhereIsRefused)
{
    const std::vector<std::string> entries = {entry(3, "abc"), entry(0, ""),
                                              entry(30, std::string(30, 'x'))};
    const std::string whole = entries[0] + entries[1] + entries[2];
    const std::set<std::size_t> ends = {0, entries[0].size(), entries[0].size() + entries[1].size(),
                                        whole.size()};
    for (std::size_t length = 0; length <= whole.size(); ++length) {
        const auto bundle = rawBundle(whole.substr(0, length));
        if (ends.count(length) != 0) {
            EXPECT_EQ(refusal(*bundle), std::nullopt) << length;
        } else {
            EXPECT_EQ(refusal(*bundle), s_invalidBundle) << length;
        }
    }
}

TEST(kyNetBuffer, entryThatClaimsMoreThanThereIsIsRefused)
{
    const std::string good = entry(5, "12345");
    for (const std::uint32_t claimed :
         {6U, 7U, 100U, 131582U, 131602U, 131603U, 0x7fffffffU, 0x80000000U, 0xffffffebU,
          0xffffffecU, 0xffffffedU, 0xfffffff0U, 0xfffffffeU, 0xffffffffU}) {
        EXPECT_EQ(refusal(*rawBundle(entry(claimed, "12345"))), s_invalidBundle) << claimed;
        EXPECT_EQ(refusal(*rawBundle(good + entry(claimed, "12345"))), s_invalidBundle) << claimed;
        EXPECT_EQ(refusal(*rawBundle(good + entry(claimed, ""))), s_invalidBundle) << claimed;
    }
}

TEST(kyNetBuffer, sizesThatWrapAroundToTheRightSumAreRefused)
{
    // In 32 bits both entries together have the size of the bundle: -20 - 20 + 40.
    const std::string data = entry(0xffffffd8, "") + entry(0, "");
    EXPECT_EQ(refusal(*rawBundle(data)), s_invalidBundle);
    // An entry of 20 + size = 0 would be read for ever.
    EXPECT_EQ(refusal(*rawBundle(entry(0xffffffec, "") + entry(0, ""))), s_invalidBundle);
}

TEST(kyNetBuffer, entryThatClaimsLessLeavesRubbishThatIsRefused)
{
    EXPECT_EQ(refusal(*rawBundle(entry(4, "12345"))), s_invalidBundle);
    // 20 bytes left are read as one more entry.
    EXPECT_EQ(refusal(*rawBundle(entry(0, std::string(20, '\0')))), std::nullopt);
    EXPECT_EQ(refusal(*rawBundle(entry(0, std::string(20, '\1')))), s_invalidBundle);
}

TEST(kyNetBuffer, bundleLargerThanABufferIsRefused)
{
    const Buffer bundle = makeBuffer(1, 0);
    std::memset(bundle->getData(), 0, s_capacity);
    bundle->setType(kyNetMessageType::Bundle);
    for (const std::uint64_t size :
         {s_capacity + 1, s_capacity + 18, std::uint64_t{0x7fffffff}, std::uint64_t{0xffffffff}}) {
        bundle->setDataSize(size);
        EXPECT_EQ(refusal(*bundle), s_invalidBundle) << size;
    }
    bundle->setDataSize(s_capacity);
    EXPECT_EQ(refusal(*bundle), s_invalidBundle) << "two bytes behind the last entry";
    bundle->setDataSize(s_capacity - 2);
    EXPECT_EQ(refusal(*bundle), std::nullopt);
}

TEST(kyNetBuffer, bundleThatIsRightButLargerThanABufferIsRefused)
{
    const auto dataOf = [](std::uint64_t size) {
        return entry(1, "a") +
               entry(static_cast<std::uint32_t>(size - 41), std::string(size - 41, 'b'));
    };
    EXPECT_EQ(refusal(*rawBundle(dataOf(s_capacity))), std::nullopt);
    EXPECT_EQ(refusal(*rawBundle(dataOf(s_capacity + 1))), s_invalidBundle);
    EXPECT_EQ(refusal(*rawBundle(dataOf(2 * s_capacity))), s_invalidBundle);
}

TEST(kyNetBuffer, refusedBundleLeavesWhatWasDelivered)
{
    Queue parts = queueOf({makeBuffer(1, 1)});
    EXPECT_THROW(rawBundle(entry(0, "") + entry(9, ""))->split(parts), kyNetError);
    EXPECT_EQ(parts.size(), 1U);
}

TEST(kyNetBuffer, randomBytesAreSplitExactlyOrRefused)
{
    Random pick(4711);
    int accepted = 0;
    for (int run = 0; run < 20000; ++run) {
        // Small claims, so that many a run comes close to being right.
        std::string data;
        const unsigned entries = pick(4);
        for (unsigned i = 0; i < entries; ++i) {
            const std::uint32_t claimed = pick(30);
            const bool lies = pick(4) == 0;
            data += entry(claimed, std::string(lies ? pick(50) : claimed, '\0'));
        }
        data.resize(data.size() - std::min<std::size_t>(data.size(), pick(8) == 0 ? 3 : 0));

        const auto bundle = rawBundle(data);
        Queue parts;
        try {
            bundle->split(parts);
        } catch (const kyNetError& error) {
            ASSERT_STREQ(error.what(), s_invalidBundle);
            ASSERT_TRUE(parts.empty());
            continue;
        }
        ++accepted;
        std::string joined;
        for (const std::string& part : drain(parts)) {
            joined += part;
        }
        ASSERT_EQ(joined, data);
    }
    EXPECT_GT(accepted, 1000);
    EXPECT_LT(accepted, 19000);
}

TEST(kyNetBuffer, everyMixOfBuffersComesThroughBundlesInOrder)
{
    Random pick(815);
    for (int run = 0; run < (kyTest::s_isSlow ? 20 : 60); ++run) {
        std::vector<std::string> expected;
        Queue queue;
        for (int i = 0; i < 60; ++i) {
            const std::uint32_t destination = pick(3);
            const std::uint32_t limits[] = {1, 40, 5000, 131603};
            const std::uint64_t size = pick(limits[pick(4)]);
            Buffer buffer = makeBuffer(destination, size, i);
            if (pick(5) == 0) {
                const Buffer second = makeBuffer(destination, 1 + pick(100), i + 1000);
                if (size != 0 && size < 100000) {
                    expected.push_back(bytesOf(*buffer));
                    buffer = bundleOf({buffer, second});
                    expected.push_back(bytesOf(*second));
                    queue.push(buffer);
                    continue;
                }
            }
            expected.push_back(bytesOf(*buffer));
            queue.push(buffer);
        }

        std::vector<std::string> received;
        Buffer out;
        while (kyNetBuffer::tryBundle(queue, out)) {
            ASSERT_LE(out->getDataSize(), s_capacity);
            if (out->getType() != kyNetMessageType::Bundle) {
                received.push_back(bytesOf(*out));
                continue;
            }
            ASSERT_LT(out->getDataSize(), s_capacity);
            for (std::string& message : splitAll(*out)) {
                received.push_back(std::move(message));
            }
        }
        ASSERT_EQ(received, expected);
    }
}

namespace {

std::string textOf(const void* address)
{
    std::ostringstream text;
    text << address;
    return text.str();
}

std::string dumpOf(const kyNetBuffer& buffer)
{
    testing::internal::CaptureStdout();
    buffer.writeToLog();
    return testing::internal::GetCapturedStdout();
}

std::string threadLine()
{
    std::ostringstream text;
    text << "Thread:" << std::this_thread::get_id() << "\n";
    return text.str();
}

} // namespace

TEST(kyNetBuffer, dumpShowsHeaderAndDataInHexadecimal)
{
    kyNetBuffer buffer;
    buffer.setSource(4000000000U);
    buffer.setSequence(65535);
    buffer.setDataSize(38);
    buffer.setCompression(kyNetCompression::None, 4294967295U);
    for (int i = 0; i < 38; ++i) {
        buffer.getData()[i] = static_cast<char>(i * 7);
    }
    EXPECT_EQ(dumpOf(buffer),
              threadLine() + "Rank:4000000000 Sequence:65535 Size:38 Uncompressed:4294967295\n" +
                  textOf(buffer.getData()) + " 00070e15 1c232a31 383f464d 545b6269\n" +
                  textOf(buffer.getData() + 16) + " 70777e85 8c939aa1 a8afb6bd c4cbd2d9\n" +
                  textOf(buffer.getData() + 32) + " e0e7eef5 fc03\n");
}

TEST(kyNetBuffer, dumpOfAFullLineEndsOnce)
{
    kyNetBuffer buffer;
    buffer.setSource(1);
    buffer.setSequence(2);
    buffer.setDataSize(16);
    buffer.setCompression(kyNetCompression::None, 3);
    std::memset(buffer.getData(), -1, 16);
    EXPECT_EQ(dumpOf(buffer), threadLine() + "Rank:1 Sequence:2 Size:16 Uncompressed:3\n" +
                                  textOf(buffer.getData()) +
                                  " ffffffff ffffffff ffffffff ffffffff\n");
}

TEST(kyNetBuffer, dumpOfNoDataIsItsHeader)
{
    kyNetBuffer buffer;
    buffer.setSource(1);
    buffer.setSequence(2);
    buffer.setDataSize(0);
    buffer.setCompression(kyNetCompression::None, 0);
    EXPECT_EQ(dumpOf(buffer), threadLine() + "Rank:1 Sequence:2 Size:0 Uncompressed:0\n");
}

TEST(kyNetBuffer, dumpEndsAtTheCapacity)
{
    kyNetBuffer buffer;
    std::memset(buffer.getBuffer(), 0, 20 + s_capacity);
    buffer.setDataSize(0xffffffff);
    const std::string dump = dumpOf(buffer);
    EXPECT_EQ(std::count(dump.begin(), dump.end(), '\n'), 2 + 8226);
    const std::string lastLine = "\n" + textOf(buffer.getData() + 131600) + " 0000\n";
    ASSERT_GT(dump.size(), lastLine.size());
    EXPECT_EQ(dump.substr(dump.size() - lastLine.size()), lastLine);
}

TEST(kyNetBuffer, dumpIsTheSameInEveryLocale)
{
    struct Grouping : std::numpunct<char>
    {
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };
    kyNetBuffer buffer;
    buffer.setSource(1234567);
    buffer.setSequence(2345);
    buffer.setDataSize(0);
    buffer.setCompression(kyNetCompression::None, 3456789);
    const std::string expected =
        threadLine() + "Rank:1234567 Sequence:2345 Size:0 Uncompressed:3456789\n";

    const std::locale before =
        std::locale::global(std::locale(std::locale::classic(), new Grouping));
    const std::string dump = dumpOf(buffer);
    std::locale::global(before);
    EXPECT_EQ(dump, expected);
}

TEST(kyNetBuffer, dumpsOfSeveralThreadsDoNotMix)
{
    constexpr int threads = 4;
    constexpr int dumps = 25;
    testing::internal::CaptureStdout();
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([t] {
            const Buffer buffer = makeBuffer(1, 64, t);
            for (int i = 0; i < dumps; ++i) {
                buffer->writeToLog();
            }
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    std::istringstream lines(testing::internal::GetCapturedStdout());
    int whole = 0;
    for (std::string line; std::getline(lines, line); ++whole) {
        ASSERT_EQ(line.rfind("Thread:", 0), 0U) << line;
        ASSERT_TRUE(std::getline(lines, line));
        ASSERT_EQ(line.rfind("Rank:", 0), 0U) << line;
        for (int i = 0; i < 4; ++i) {
            ASSERT_TRUE(std::getline(lines, line));
            ASSERT_EQ(line.size() - line.find(' '), 36U) << line;
        }
    }
    EXPECT_EQ(whole, threads * dumps);
}
