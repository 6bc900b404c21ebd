#include <NetBase/buffers/kyNetOptions.h>

#include <limits>

#include <gtest/gtest.h>

namespace {

/// Every test begins and ends with nothing set.
class kyNetOptionsTest : public testing::Test
{
protected:
    kyNetOptionsTest() { unset(); }
    ~kyNetOptionsTest() override { unset(); }

private:
    static void unset()
    {
        kyNetOptions::setDataCompression(static_cast<kyNetCompression>(-1));
        kyNetOptions::setImageCompression(static_cast<kyNetCompression>(-1));
        kyNetOptions::setStreamBufferSize(-1);
        kyNetOptions::setReceivePolling(-1);
    }
};

kyNetCompression method(int value)
{
    return static_cast<kyNetCompression>(value);
}

} // namespace

TEST(kyNetOptions, nothingIsSetAtFirst)
{
    EXPECT_EQ(kyNetOptions::getDataCompression(), method(2));
    EXPECT_EQ(kyNetOptions::getImageCompression(), method(0));
    EXPECT_EQ(kyNetOptions::getStreamBufferSize(), 131072);
    EXPECT_EQ(kyNetOptions::getReceivePolling(), 100);
}

TEST(kyNetOptions, fixedValues)
{
    EXPECT_EQ(kyNetOptions::getBufferSize(), 131602);
    EXPECT_EQ(kyNetOptions::getMaxStreamBufferSize(), 131072);
    EXPECT_EQ(kyNetOptions::getMaxIOBuffers(), 256);
    EXPECT_EQ(kyNetOptions::getCompressionThreshold(), 4096);
    EXPECT_EQ(kyNetOptions::getLowLatencyServerThreshold(), 1024);
    EXPECT_EQ(kyNetOptions::getConnectionTimeout(), 4.0);
    EXPECT_EQ(kyNetOptions::getDefaultServicePort(), 8889);
    EXPECT_EQ(kyNetOptions::getTilesPerNode(), 6);
    EXPECT_EQ(kyNetOptions::getSyncChannels(), 1);
    EXPECT_EQ(kyNetOptions::getImageChannels(), 4);
    EXPECT_EQ(kyNetOptions::getLowLatencyChannels(), 6);
    EXPECT_EQ(kyNetOptions::getMaxParallelCompressions(), 0);
    EXPECT_EQ(kyNetOptions::getMaxParallelDecompressions(), 0);
    EXPECT_EQ(kyNetOptions::getDefaultDataCompression(), method(2));
    EXPECT_EQ(kyNetOptions::getDefaultImageCompression(), method(0));
}

// Intended: no power of two.
TEST(kyNetOptions, lowLatencyClientThresholdIs8196)
{
    EXPECT_EQ(kyNetOptions::getLowLatencyClientThreshold(), 8196);
}

TEST_F(kyNetOptionsTest, dataCompressionZeroTurnsItOff)
{
    kyNetOptions::setDataCompression(kyNetCompression::None);
    EXPECT_EQ(kyNetOptions::getDataCompression(), kyNetCompression::None);
}

TEST_F(kyNetOptionsTest, compressionsAreStoredUnchanged)
{
    for (const int value : {0, 1, 2, 3, 4, 255, 256, 100000, std::numeric_limits<int>::max()}) {
        kyNetOptions::setDataCompression(method(value));
        EXPECT_EQ(kyNetOptions::getDataCompression(), method(value));
        kyNetOptions::setImageCompression(method(value));
        EXPECT_EQ(kyNetOptions::getImageCompression(), method(value));
    }
}

TEST_F(kyNetOptionsTest, negativeCompressionRestoresTheDefault)
{
    for (const int value : {-1, -2, std::numeric_limits<int>::min()}) {
        kyNetOptions::setDataCompression(method(1));
        kyNetOptions::setDataCompression(method(value));
        EXPECT_EQ(kyNetOptions::getDataCompression(), method(2));
        kyNetOptions::setImageCompression(method(1));
        kyNetOptions::setImageCompression(method(value));
        EXPECT_EQ(kyNetOptions::getImageCompression(), method(0));
    }
}

TEST_F(kyNetOptionsTest, compressionsAreSetApart)
{
    kyNetOptions::setDataCompression(method(7));
    EXPECT_EQ(kyNetOptions::getImageCompression(), method(0));
    kyNetOptions::setImageCompression(method(4));
    EXPECT_EQ(kyNetOptions::getDataCompression(), method(7));
}

TEST_F(kyNetOptionsTest, streamBufferSizeIsBounded)
{
    const int sizes[][2] = {{1, 1},           {1000, 1000},     {131071, 131071},
                            {131072, 131072}, {131073, 131072}, {200000, 131072},
                            {0, 131072},      {-1, 131072},     {-1000, 131072}};
    for (const auto& [set, read] : sizes) {
        kyNetOptions::setStreamBufferSize(5);
        kyNetOptions::setStreamBufferSize(set);
        EXPECT_EQ(kyNetOptions::getStreamBufferSize(), read) << set;
    }
}

TEST_F(kyNetOptionsTest, receivePollingIsBoundedAndCanBeTurnedOff)
{
    const int times[][2] = {{0, 0},         {1, 1},         {100, 100}, {9999, 9999},
                            {10000, 10000}, {10001, 10000}, {-1, 100},  {-1000, 100}};
    for (const auto& [set, read] : times) {
        kyNetOptions::setReceivePolling(5);
        kyNetOptions::setReceivePolling(set);
        EXPECT_EQ(kyNetOptions::getReceivePolling(), read) << set;
    }
}
