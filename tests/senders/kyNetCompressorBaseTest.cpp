#include <NetBase/senders/kyNetCompressorBase.h>

#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyNetOptions.h>
#include <tests/support/kyTestChains.h>
#include <tests/support/kyTestCompression.h>

using kyTest::Buffer;
using kyTest::CompressionSetting;
using kyTest::makeBuffer;

namespace {

/// A compressor with nothing but the policy of its base.
class Policy : public kyNetCompressorBase
{
public:
    Buffer compress(const Buffer& buffer) override { return buffer; }
    Buffer decompress(const Buffer& buffer) override { return buffer; }
    bool shouldCompressLocal(const Buffer&) override { return true; }
};

kyNetCompression method(int value)
{
    return static_cast<kyNetCompression>(value);
}

kyNetMessageType type(int value)
{
    return static_cast<kyNetMessageType>(value);
}

} // namespace

static_assert(std::is_abstract_v<kyNetCompressorBase>);

TEST(kyNetCompressorBase, imagesHaveTheirOwnSetting)
{
    const CompressionSetting setting(method(5), method(6));
    Policy policy;
    for (int value = 0; value < 256; ++value) {
        const Buffer buffer = makeBuffer("x", 0, 0, type(value));
        EXPECT_EQ(policy.getRequestedCompression(buffer), method(value == 2 ? 6 : 5)) << value;
    }
}

TEST(kyNetCompressorBase, defaultCompressesAllButImages)
{
    Policy policy;
    EXPECT_TRUE(policy.shouldCompress(makeBuffer("x")));
    EXPECT_TRUE(policy.shouldCompress(makeBuffer("x", 0, 0, kyNetMessageType::Message)));
    EXPECT_FALSE(policy.shouldCompress(makeBuffer("x", 0, 0, kyNetMessageType::ImageData)));
}

TEST(kyNetCompressorBase, settingOfNoneTurnsItOff)
{
    const CompressionSetting setting(kyNetCompression::None, method(1));
    Policy policy;
    EXPECT_FALSE(policy.shouldCompress(makeBuffer("x")));
    EXPECT_TRUE(policy.shouldCompress(makeBuffer("x", 0, 0, kyNetMessageType::ImageData)));
}

TEST(kyNetCompressorBase, bundleIsNeverCompressed)
{
    const CompressionSetting setting(method(2), method(2));
    Policy policy;
    for (int value = 0; value < 256; ++value) {
        EXPECT_EQ(policy.shouldCompress(makeBuffer("x", 0, 0, type(value))), value != 3) << value;
    }
}

TEST(kyNetCompressorBase, compressedBufferIsNotCompressedAgain)
{
    Policy policy;
    for (int value = 0; value < 256; ++value) {
        const Buffer buffer = makeBuffer("x");
        buffer->setCompression(method(value), 1);
        EXPECT_EQ(policy.shouldCompress(buffer), value == 0) << value;
    }
}

TEST(kyNetCompressorBase, bufferThatWasLargerOnceIsNotCompressed)
{
    Policy policy;
    const Buffer buffer = makeBuffer("12345");
    for (const auto& [original, isCompressed] :
         {std::pair{0u, true}, {4u, true}, {5u, true}, {6u, false}, {0xffffffffu, false}}) {
        buffer->setCompression(kyNetCompression::None, original);
        EXPECT_EQ(policy.shouldCompress(buffer), isCompressed) << original;
    }
}

// Intended: from which size on it pays is the compressor's to say.
TEST(kyNetCompressorBase, sizeIsNoReason)
{
    Policy policy;
    EXPECT_TRUE(policy.shouldCompress(makeBuffer("")));
    EXPECT_TRUE(policy.shouldCompress(makeBuffer(std::string(kyNetBuffer::getCapacity(), 'x'))));
}
