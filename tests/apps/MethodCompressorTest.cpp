#include <apps/common/MethodCompressor.h>

#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <zstd.h>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/buffers/kyNetOptions.h>
#include <tests/support/kyTestChains.h>

namespace {

using kyTest::Buffer;
using kyTest::dataOf;
using kyTest::makeBuffer;
using kyTest::messageOf;

constexpr auto s_zstd = ZstdCompressor::s_method;
constexpr std::size_t s_threshold = kyNetOptions::getCompressionThreshold();
constexpr std::size_t s_capacity = kyNetBuffer::getCapacity();

/// The settings as they were before.
class Settings
{
public:
    Settings() = default;
    ~Settings()
    {
        kyNetOptions::setDataCompression(m_data);
        kyNetOptions::setImageCompression(m_image);
    }

    Settings(const Settings&) = delete;
    Settings& operator=(const Settings&) = delete;

private:
    kyNetCompression m_data = kyNetOptions::getDataCompression();
    kyNetCompression m_image = kyNetOptions::getImageCompression();
};

/// Data that gets shorter, but not to nothing.
std::string makeText(std::size_t size)
{
    std::mt19937 random(7);
    std::string text;
    text.reserve(size + 8);
    while (text.size() < size) {
        text += "tile ";
        text += static_cast<char>('a' + random() % 26);
        text += ' ';
    }
    text.resize(size);
    return text;
}

std::string makeNoise(std::size_t size)
{
    std::mt19937 random(9);
    std::string noise(size, '\0');
    for (char& byte : noise) {
        byte = static_cast<char>(random() & 0xff);
    }
    return noise;
}

/// The buffer in a block that ends with its data, so that the sanitizer sees every read behind it.
Buffer makeExact(const kyNetBuffer& buffer)
{
    auto* header = static_cast<kyNetHeader*>(
        std::malloc(sizeof(kyNetHeader) + static_cast<std::size_t>(buffer.getDataSize())));
    *header = *buffer.getBuffer();
    char* data = reinterpret_cast<char*>(header) + sizeof(kyNetHeader);
    std::memcpy(data, buffer.getData(), buffer.getDataSize());
    return std::make_shared<kyNetBuffer>(header, data);
}

/// Decompresses foreign bytes: they are refused, or make what the header says.
void expectHarmless(kyNetCompressorBase& compressor, const Buffer& buffer)
{
    const std::uint64_t originalSize = buffer->getOriginalDataSize();
    try {
        const Buffer result = compressor.decompress(buffer);
        if (result != buffer) {
            EXPECT_EQ(result->getDataSize(), originalSize);
            EXPECT_LE(result->getDataSize(), s_capacity);
        }
    } catch (const kyNetError& e) {
        EXPECT_STRNE(e.what(), "");
    }
}

/// What becomes of data that arrives with that original size.
template <class Compressor>
std::string failureOf(const std::string& data, std::uint64_t originalSize)
{
    const Buffer buffer = makeBuffer(data);
    buffer->setCompression(Compressor::s_method, originalSize);
    return messageOf([&] { Compressor().decompress(makeExact(*buffer)); });
}

/// Data as a Zstandard frame, with one parameter set if need be.
std::string makeFrame(const std::string& data, ZSTD_cParameter parameter = ZSTD_c_contentSizeFlag,
                      int value = 1)
{
    const std::unique_ptr<ZSTD_CCtx, decltype(&ZSTD_freeCCtx)> context(ZSTD_createCCtx(),
                                                                       &ZSTD_freeCCtx);
    ZSTD_CCtx_setParameter(context.get(), parameter, value);
    std::string frame(ZSTD_compressBound(data.size()), '\0');
    frame.resize(
        ZSTD_compress2(context.get(), frame.data(), frame.size(), data.data(), data.size()));
    return frame;
}

constexpr const char* s_invalidData =
    "Received invalid compressed data. Possibly stream is out of sync.";
constexpr const char* s_invalidSize =
    "Received invalid size of compressed data. Possibly stream is out of sync.";

} // namespace

/// What holds for either method.
template <class Compressor> class BlockCompressorTest : public testing::Test
{
protected:
    Compressor m_compressor;
};

using Methods = testing::Types<Lz4Compressor, ZstdCompressor>;
TYPED_TEST_SUITE(BlockCompressorTest, Methods, );

TYPED_TEST(BlockCompressorTest, dataOfEverySizeComesBack)
{
    kyTest::soilPool();
    for (const std::size_t size :
         {s_threshold, s_threshold + 1, std::size_t{65535}, std::size_t{65536}, std::size_t{65537},
          std::size_t{131072}, s_capacity - 1, s_capacity}) {
        const std::string text = makeText(size);
        const Buffer buffer = makeBuffer(text);
        const Buffer compressed = this->m_compressor.compress(buffer);
        ASSERT_NE(compressed, buffer) << size;
        EXPECT_EQ(compressed->getCompression(), TypeParam::s_method);
        EXPECT_EQ(compressed->getOriginalDataSize(), size);
        EXPECT_LT(compressed->getDataSize(), size);
        EXPECT_EQ(dataOf(*buffer), text) << "the given buffer was changed";

        const Buffer restored = this->m_compressor.decompress(makeExact(*compressed));
        EXPECT_EQ(dataOf(*restored), text);
        EXPECT_EQ(restored->getCompression(), kyNetCompression::None);
        EXPECT_EQ(restored->getOriginalDataSize(), size);
    }
}

TYPED_TEST(BlockCompressorTest, headerAndSendModeAreKept)
{
    kyTest::soilPool();
    const Buffer buffer = makeBuffer(makeText(s_threshold), 12, 34, kyNetMessageType::ImageData);
    buffer->setSequence(65535);
    buffer->setSendMode(kyNetBufferSendMode::First);
    const Buffer compressed = this->m_compressor.compress(buffer);
    const Buffer restored = this->m_compressor.decompress(compressed);
    for (const Buffer& result : {compressed, restored}) {
        EXPECT_NE(result, buffer);
        EXPECT_EQ(result->getSource(), 12U);
        EXPECT_EQ(result->getDestination(), 34U);
        EXPECT_EQ(result->getType(), kyNetMessageType::ImageData);
        EXPECT_EQ(result->getSequence(), 65535);
        EXPECT_EQ(result->getSendMode(), kyNetBufferSendMode::First);
    }
}

TYPED_TEST(BlockCompressorTest, smallBuffersAreLeftAsTheyAre)
{
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, s_threshold - 1}) {
        const Buffer buffer = makeBuffer(std::string(size, 'x'));
        EXPECT_EQ(this->m_compressor.compress(buffer), buffer);
        EXPECT_EQ(buffer->getCompression(), kyNetCompression::None);
    }
}

TYPED_TEST(BlockCompressorTest, whatGetsNoShorterIsLeftAsItIs)
{
    for (const std::size_t size : {s_threshold, std::size_t{131072}, s_capacity}) {
        const std::string noise = makeNoise(size);
        const Buffer buffer = makeBuffer(noise);
        EXPECT_EQ(this->m_compressor.compress(buffer), buffer);
        EXPECT_EQ(buffer->getCompression(), kyNetCompression::None);
        EXPECT_EQ(dataOf(*buffer), noise);
    }
}

TYPED_TEST(BlockCompressorTest, compressedBufferIsNotCompressedAgain)
{
    const Buffer compressed = this->m_compressor.compress(makeBuffer(std::string(131072, 'x')));
    const Buffer buffer = makeBuffer(std::string(s_threshold, 'x'));
    buffer->setCompression(TypeParam::s_method, 100000);
    EXPECT_EQ(this->m_compressor.compress(compressed), compressed);
    EXPECT_EQ(this->m_compressor.compress(buffer), buffer);
}

TYPED_TEST(BlockCompressorTest, uncompressedBufferIsNotDecompressed)
{
    const Buffer buffer = makeBuffer("clear");
    EXPECT_EQ(this->m_compressor.decompress(buffer), buffer);
}

TYPED_TEST(BlockCompressorTest, otherMethodIsRefused)
{
    const Buffer buffer = makeBuffer("other");
    buffer->setCompression(static_cast<kyNetCompression>(200), 10);
    EXPECT_EQ(messageOf([&] { this->m_compressor.decompress(buffer); }),
              "Received buffer of compression method 200 instead of " +
                  std::to_string(static_cast<int>(TypeParam::s_method)));
}

TYPED_TEST(BlockCompressorTest, originalSizeThatIsNotTheRealOneIsRefused)
{
    const Buffer compressed = this->m_compressor.compress(makeBuffer(makeText(10000)));
    for (const std::uint64_t claimed : {compressed->getDataSize() + 1, std::uint64_t{9999},
                                        std::uint64_t{10001}, std::uint64_t{s_capacity}}) {
        const Buffer lying = makeExact(*compressed);
        lying->setCompression(TypeParam::s_method, claimed);
        EXPECT_EQ(messageOf([&] { this->m_compressor.decompress(lying); }), s_invalidData)
            << claimed;
    }
}

TYPED_TEST(BlockCompressorTest, dataThatWouldGetNoLongerIsRefusedUnread)
{
    const Buffer compressed = this->m_compressor.compress(makeBuffer(makeText(10000)));
    for (const std::uint64_t claimed :
         {std::uint64_t{0}, std::uint64_t{1}, compressed->getDataSize()}) {
        const Buffer lying = makeExact(*compressed);
        lying->setCompression(TypeParam::s_method, claimed);
        EXPECT_EQ(messageOf([&] { this->m_compressor.decompress(lying); }), s_invalidSize)
            << claimed;
    }
}

TYPED_TEST(BlockCompressorTest, sizesBeyondTheCapacityAreRefusedUnread)
{
    const Buffer compressed = this->m_compressor.compress(makeBuffer(makeText(10000)));
    for (const std::uint64_t claimed : {std::uint64_t{s_capacity} + 1, std::uint64_t{0x7fffffff},
                                        std::uint64_t{0x80000000}, std::uint64_t{0xffffffff}}) {
        const Buffer original = makeExact(*compressed);
        original->setCompression(TypeParam::s_method, claimed);
        EXPECT_EQ(messageOf([&] { this->m_compressor.decompress(original); }), s_invalidSize);
        const Buffer data = makeExact(*compressed);
        data->setDataSize(claimed);
        EXPECT_EQ(messageOf([&] { this->m_compressor.decompress(data); }), s_invalidSize);
    }
}

TYPED_TEST(BlockCompressorTest, dataCutOffAnywhereIsRefused)
{
    const Buffer compressed = this->m_compressor.compress(makeBuffer(makeText(s_threshold)));
    const std::string whole = dataOf(*compressed);
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const Buffer cut = makeBuffer(whole.substr(0, size));
        cut->setCompression(TypeParam::s_method, s_threshold);
        EXPECT_EQ(messageOf([&] { this->m_compressor.decompress(makeExact(*cut)); }), s_invalidData)
            << size;
    }
}

TYPED_TEST(BlockCompressorTest, anyBitMayBeWrong)
{
    const Buffer compressed = this->m_compressor.compress(makeBuffer(makeText(s_threshold)));
    const std::uint64_t size = compressed->getDataSize();
    for (std::uint64_t i = 0; i < size; ++i) {
        for (int bit = 0; bit < 8; ++bit) {
            const Buffer changed = makeExact(*compressed);
            changed->getData()[i] = static_cast<char>(changed->getData()[i] ^ (1 << bit));
            expectHarmless(this->m_compressor, changed);
        }
    }
}

TYPED_TEST(BlockCompressorTest, anyBytesMayCome)
{
    const std::string noise = makeNoise(300000);
    for (std::size_t i = 0; i < 3000; ++i) {
        const std::size_t size = i % 257;
        const Buffer buffer = makeBuffer(noise.substr(i * 31, size));
        buffer->setCompression(TypeParam::s_method, (i * 7919) % (s_capacity + 2));
        expectHarmless(this->m_compressor, makeExact(*buffer));
    }
}

TYPED_TEST(BlockCompressorTest, failureHarmsNoLaterBuffer)
{
    const std::string text = makeText(20000);
    const Buffer compressed = this->m_compressor.compress(makeBuffer(text));
    const Buffer broken = makeBuffer("broken");
    broken->setCompression(TypeParam::s_method, 100);
    EXPECT_THROW(this->m_compressor.decompress(broken), kyNetError);
    EXPECT_EQ(dataOf(*this->m_compressor.decompress(compressed)), text);
}

TYPED_TEST(BlockCompressorTest, severalThreadsShareOne)
{
    std::vector<std::future<bool>> results;
    for (std::size_t thread = 0; thread < 4; ++thread) {
        results.push_back(std::async(std::launch::async, [this, thread] {
            for (std::size_t i = 0; i < 50; ++i) {
                const std::string text = makeText(s_threshold + thread * 10000 + i);
                const Buffer compressed = this->m_compressor.compress(makeBuffer(text));
                if (dataOf(*this->m_compressor.decompress(compressed)) != text) {
                    return false;
                }
            }
            return true;
        }));
    }
    for (auto& result : results) {
        EXPECT_TRUE(result.get());
    }
}

TYPED_TEST(BlockCompressorTest, threadsMayComeAndGo)
{
    const std::string text = makeText(s_threshold);
    for (int i = 0; i < 100; ++i) {
        // At once, so that what one thread leaves stands in the way of what the others do.
        std::vector<std::future<bool>> results;
        for (int thread = 0; thread < 4; ++thread) {
            results.push_back(std::async(std::launch::async, [&] {
                const Buffer compressed = this->m_compressor.compress(makeBuffer(text));
                return dataOf(*this->m_compressor.decompress(compressed)) == text;
            }));
        }
        for (auto& result : results) {
            EXPECT_TRUE(result.get());
        }
    }
}

TYPED_TEST(BlockCompressorTest, localImagesAreCompressedAsThoseThatLeave)
{
    const Settings settings;
    kyNetOptions::setImageCompression(kyNetCompression::LocalImage);
    const Buffer image = makeBuffer("pixels", 1, 2, kyNetMessageType::ImageData);
    EXPECT_TRUE(this->m_compressor.shouldCompressLocal(image));
    kyNetOptions::setImageCompression(kyNetCompression::None);
    EXPECT_FALSE(this->m_compressor.shouldCompressLocal(image));
}

// --- What would be sound, and is never made ---

TEST(Lz4Compressor, emptyDataIsRefused)
{
    // As an empty buffer it would be the end of something in a chain.
    EXPECT_EQ(failureOf<Lz4Compressor>(std::string(1, '\0'), 0), s_invalidSize);
}

TEST(ZstdCompressor, emptyDataIsRefused)
{
    EXPECT_EQ(failureOf<ZstdCompressor>(makeFrame(""), 0), s_invalidSize);
    EXPECT_EQ(failureOf<ZstdCompressor>("", 0), s_invalidSize);
}

TEST(ZstdCompressor, anythingBesideTheFrameIsRefused)
{
    const std::string text = makeText(10000);
    const std::string frame = makeFrame(text);
    const std::string skipped("\x50\x2a\x4d\x18\3\0\0\0abc", 11);
    EXPECT_EQ(failureOf<ZstdCompressor>(frame, text.size()), "");
    EXPECT_EQ(failureOf<ZstdCompressor>(skipped + frame, text.size()), s_invalidData);
    EXPECT_EQ(failureOf<ZstdCompressor>(frame + skipped, text.size()), s_invalidData);
    EXPECT_EQ(failureOf<ZstdCompressor>(frame + makeFrame(""), text.size()), s_invalidData);
    EXPECT_EQ(failureOf<ZstdCompressor>(makeFrame("") + frame, text.size()), s_invalidData);
    EXPECT_EQ(failureOf<ZstdCompressor>(frame + frame, 2 * text.size()), s_invalidData);
    EXPECT_EQ(failureOf<ZstdCompressor>(frame + std::string(1, '\0'), text.size()), s_invalidData);
}

TEST(ZstdCompressor, frameThatDoesNotTellItsSizeIsRefused)
{
    const std::string text = makeText(10000);
    EXPECT_EQ(failureOf<ZstdCompressor>(makeFrame(text, ZSTD_c_contentSizeFlag, 0), text.size()),
              s_invalidData);
}

TEST(ZstdCompressor, frameThatNeedsADictionaryIsRefused)
{
    const std::string text = makeText(10000);
    std::string frame = makeFrame(text);
    // Descriptor: two bytes of size, here followed by a dictionary's id of one byte.
    frame[4] = static_cast<char>(frame[4] | 1);
    frame.insert((frame[4] & 0x20) != 0 ? 5 : 6, 1, '\7');
    ASSERT_EQ(ZSTD_getDictID_fromFrame(frame.data(), frame.size()), 7U);
    EXPECT_EQ(failureOf<ZstdCompressor>(frame, text.size()), s_invalidData);
}

TEST(ZstdCompressor, frameOfAnOldFormatIsRefused)
{
    // The last one before the present one: 10000 times the same byte, then the end.
    const std::string frame("\x27\xb5\x2f\xfd\xa0\x10\x27\0\0\x80\x27\x10x\xc0\0\0", 16);
    EXPECT_EQ(failureOf<ZstdCompressor>(frame, 10000), s_invalidData);
}

// --- All methods ---

TEST(MethodCompressor, theSettingOfWhatTheBufferHoldsDecides)
{
    const Settings settings;
    MethodCompressor compressor;
    const std::string text = makeText(10000);
    const Buffer data = makeBuffer(text);
    const Buffer image = makeBuffer(text, 1, 2, kyNetMessageType::ImageData);

    kyNetOptions::setDataCompression(kyNetCompression::Standard);
    kyNetOptions::setImageCompression(s_zstd);
    EXPECT_EQ(compressor.compress(data)->getCompression(), kyNetCompression::Standard);
    EXPECT_EQ(compressor.compress(image)->getCompression(), s_zstd);

    kyNetOptions::setDataCompression(s_zstd);
    kyNetOptions::setImageCompression(kyNetCompression::None);
    EXPECT_EQ(compressor.compress(data)->getCompression(), s_zstd);
    EXPECT_EQ(compressor.compress(image), image);

    kyNetOptions::setImageCompression(kyNetCompression::LocalImage);
    EXPECT_EQ(compressor.compress(image)->getCompression(), kyNetCompression::Standard);
    EXPECT_TRUE(compressor.shouldCompressLocal(image));
}

TEST(MethodCompressor, theHeaderDecidesWhatIsDecompressed)
{
    const Settings settings;
    kyNetOptions::setDataCompression(kyNetCompression::None);
    MethodCompressor compressor;
    Lz4Compressor lz4;
    ZstdCompressor zstd;
    const std::string text = makeText(10000);
    const Buffer buffer = makeBuffer(text);
    EXPECT_EQ(dataOf(*compressor.decompress(lz4.compress(buffer))), text);
    EXPECT_EQ(dataOf(*compressor.decompress(zstd.compress(buffer))), text);
    EXPECT_EQ(compressor.decompress(buffer), buffer);
}

TEST(MethodCompressor, zstandardMakesItShorter)
{
    // Its effort has to be worth it.
    const Buffer buffer = makeBuffer(makeText(131072));
    EXPECT_LT(ZstdCompressor().compress(buffer)->getDataSize(),
              Lz4Compressor().compress(buffer)->getDataSize());
}

TEST(MethodCompressor, unknownMethodsAreRefused)
{
    const Settings settings;
    MethodCompressor compressor;
    for (const int method : {1, 5, 255}) {
        const std::string text = "Unknown compression method " + std::to_string(method);
        kyNetOptions::setDataCompression(static_cast<kyNetCompression>(method));
        const Buffer buffer = makeBuffer(makeText(10000));
        EXPECT_EQ(messageOf([&] { compressor.compress(buffer); }), text);
        buffer->setCompression(static_cast<kyNetCompression>(method), 10);
        EXPECT_EQ(messageOf([&] { compressor.decompress(buffer); }), text);
    }
    // A setting, and no method.
    const Buffer buffer = makeBuffer("x");
    buffer->setCompression(kyNetCompression::LocalImage, 10);
    EXPECT_EQ(messageOf([&] { compressor.decompress(buffer); }), "Unknown compression method 4");
}
