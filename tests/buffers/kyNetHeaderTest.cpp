#include <NetBase/buffers/kyNetHeader.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <type_traits>

#include <gtest/gtest.h>

TEST(kyNetHeader, everyFieldHasItsPlaceOnTheWire)
{
    const kyNetHeader header = {0x04030201, 0x14131211, 0x2221, 0x31, 0x41, 0x54535251, 0x64636261};
    const std::array<unsigned char, 20> expected = {0x01, 0x02, 0x03, 0x04, 0x11, 0x12, 0x13,
                                                    0x14, 0x21, 0x22, 0x31, 0x41, 0x51, 0x52,
                                                    0x53, 0x54, 0x61, 0x62, 0x63, 0x64};

    std::array<unsigned char, sizeof header> bytes{};
    std::memcpy(bytes.data(), &header, sizeof header);
    EXPECT_EQ(bytes, expected);
}

TEST(kyNetHeader, standsAtAnyAddress)
{
    EXPECT_EQ(alignof(kyNetHeader), 1U);
    EXPECT_TRUE(std::is_trivially_copyable_v<kyNetHeader>);
}

TEST(kyNetHeader, onlyDestinationZeroIsMulticast)
{
    kyNetHeader header{};
    EXPECT_TRUE(header.isMulticast());
    for (const std::uint32_t rank : {1U, 2U, 0x100U, 0x10000U, 0x80000000U, 0xffffffffU}) {
        header.destination = rank;
        EXPECT_FALSE(header.isMulticast()) << rank;
    }
}

// Intended: the answer for an uncompressed buffer is not its data size.
TEST(kyNetHeader, compressedSizeOfAnUncompressedBufferIsItsOriginalSize)
{
    kyNetHeader header{};
    header.dataSize = 5;
    header.originalDataSize = 7;
    EXPECT_EQ(header.getCompressedDataSize(), 7U);
    for (int compression = 1; compression < 256; ++compression) {
        header.compression = static_cast<std::uint8_t>(compression);
        EXPECT_EQ(header.getCompressedDataSize(), 5U) << compression;
    }
}

TEST(kyNetHeader, valuesOfTheEnumerationsAreWireFormat)
{
    EXPECT_EQ(static_cast<int>(kyNetMessageType::StreamData), 0);
    EXPECT_EQ(static_cast<int>(kyNetMessageType::Message), 1);
    EXPECT_EQ(static_cast<int>(kyNetMessageType::ImageData), 2);
    EXPECT_EQ(static_cast<int>(kyNetMessageType::Bundle), 3);
    EXPECT_EQ(static_cast<int>(kyNetCompression::None), 0);
    EXPECT_EQ(static_cast<int>(kyNetBufferSendMode::Automatic), 0);
    EXPECT_EQ(static_cast<int>(kyNetBufferSendMode::First), 1);
    EXPECT_EQ(static_cast<int>(kyNetBufferSendMode::Second), 2);
    EXPECT_EQ(sizeof(kyNetBufferSendMode), 4U);
}
