#include <NetBase/buffers/kyNetInterfaceOptions.h>

#include <string>
#include <utility>

#include <gtest/gtest.h>

#include <NetBase/serialization/kyNetMessage.h>
#include <tests/support/kyTestChains.h>

using kyTest::makeBuffer;
using kyTest::messageOf;
using kyTest::toHex;

namespace {

std::string encodeHex(const kyNetInterfaceOptions& options)
{
    kyNetMessage message;
    message << options;
    return toHex(*message.takeSendBuffer());
}

/// A record in which every field is set.
kyNetInterfaceOptions makeFull()
{
    kyNetInterfaceOptions options;
    options.setNodeAffinity(1);
    options.setIbDevice("mlx5");
    options.setIbPort(2);
    options.setSyncChannels(3);
    options.setImageChannels(4);
    options.setLowLatencyChannels(5);
    options.setEncrypted(true);
    return options;
}

constexpr const char* s_fullHex =
    "01 00 00 00 05 00 00 00 6d 6c 78 35 00 02 00 00 00 03 00 00 00 04 00 00 00 05 00 00 00 01";

int channels(const kyNetInterfaceOptions& options, int type)
{
    return options.getChannels(static_cast<kyNodeConnectionType>(type));
}

} // namespace

TEST(kyNetInterfaceOptions, nothingIsSetByDefault)
{
    const kyNetInterfaceOptions options;
    EXPECT_EQ(options.getNodeAffinity(), -1);
    EXPECT_EQ(options.getIbDevice(), "");
    EXPECT_EQ(options.getIbPort(), -1);
    EXPECT_EQ(options.getSyncChannels(), -1);
    EXPECT_EQ(options.getImageChannels(), -1);
    EXPECT_EQ(options.getLowLatencyChannels(), -1);
    EXPECT_FALSE(options.getEncrypted());
}

TEST(kyNetInterfaceOptions, keepsWhatIsSet)
{
    const kyNetInterfaceOptions options = makeFull();
    EXPECT_EQ(options.getNodeAffinity(), 1);
    EXPECT_EQ(options.getIbDevice(), "mlx5");
    EXPECT_EQ(options.getIbPort(), 2);
    EXPECT_EQ(options.getSyncChannels(), 3);
    EXPECT_EQ(options.getImageChannels(), 4);
    EXPECT_EQ(options.getLowLatencyChannels(), 5);
    EXPECT_TRUE(options.getEncrypted());
}

TEST(kyNetInterfaceOptions, channelsFallBackToTheLibrarysNumbers)
{
    kyNetInterfaceOptions options;
    for (const int unset : {-1, 0}) {
        options.setSyncChannels(unset);
        options.setImageChannels(unset);
        options.setLowLatencyChannels(unset);
        EXPECT_EQ(channels(options, 1), 1);
        EXPECT_EQ(channels(options, 2), 4);
        EXPECT_EQ(channels(options, 3), 6);
    }
}

TEST(kyNetInterfaceOptions, channelsAreTheSetOnes)
{
    kyNetInterfaceOptions options;
    options.setSyncChannels(1);
    options.setImageChannels(11);
    options.setLowLatencyChannels(12);
    EXPECT_EQ(channels(options, 1), 1);
    EXPECT_EQ(channels(options, 2), 11);
    EXPECT_EQ(channels(options, 3), 12);
    options.setSyncChannels(10);
    EXPECT_EQ(channels(options, 1), 10);
}

TEST(kyNetInterfaceOptions, otherTypesHaveFourChannelsWhateverIsSet)
{
    const kyNetInterfaceOptions unset;
    kyNetInterfaceOptions set = makeFull();
    set.setImageChannels(9);
    for (const int type : {-1, 0, 4, 1000}) {
        EXPECT_EQ(channels(unset, type), 4) << type;
        EXPECT_EQ(channels(set, type), 4) << type;
    }
}

TEST(kyNetInterfaceOptions, addTakesWhatIsSet)
{
    kyNetInterfaceOptions options;
    kyNetInterfaceOptions other = makeFull();
    other.setLowLatencyChannels(-1);
    options.add(other);
    EXPECT_EQ(encodeHex(options), encodeHex(other));
}

TEST(kyNetInterfaceOptions, addLeavesWhatIsNotSet)
{
    kyNetInterfaceOptions options = makeFull();
    options.add(kyNetInterfaceOptions());
    EXPECT_EQ(encodeHex(options), s_fullHex);

    kyNetInterfaceOptions zero;
    zero.setSyncChannels(0);
    zero.setImageChannels(0);
    zero.setLowLatencyChannels(0);
    options.add(zero);
    EXPECT_EQ(encodeHex(options), s_fullHex);
}

TEST(kyNetInterfaceOptions, addTakesZeroAsNodeAndPort)
{
    kyNetInterfaceOptions options = makeFull();
    kyNetInterfaceOptions other;
    other.setNodeAffinity(0);
    other.setIbPort(0);
    options.add(other);
    EXPECT_EQ(options.getNodeAffinity(), 0);
    EXPECT_EQ(options.getIbPort(), 0);
}

TEST(kyNetInterfaceOptions, addedLowLatencyChannelsBecomeImageChannels)
{
    kyNetInterfaceOptions options;
    options.setImageChannels(3);
    options.setLowLatencyChannels(2);
    kyNetInterfaceOptions other;
    other.setLowLatencyChannels(8);
    options.add(other);
    EXPECT_EQ(options.getImageChannels(), 8);
    EXPECT_EQ(options.getLowLatencyChannels(), 2);

    other.setImageChannels(5); // The cross-over comes last.
    options.add(other);
    EXPECT_EQ(options.getImageChannels(), 8);
    EXPECT_EQ(options.getLowLatencyChannels(), 2);
}

TEST(kyNetInterfaceOptions, addNeverEndsEncryption)
{
    kyNetInterfaceOptions options;
    kyNetInterfaceOptions encrypted;
    encrypted.setEncrypted(true);
    options.add(encrypted);
    EXPECT_TRUE(options.getEncrypted());
    options.add(kyNetInterfaceOptions());
    EXPECT_TRUE(options.getEncrypted());
}

TEST(kyNetInterfaceOptions, addOfItselfOnlyCrossesOver)
{
    kyNetInterfaceOptions options = makeFull();
    options.add(options);
    EXPECT_EQ(options.getIbDevice(), "mlx5");
    EXPECT_EQ(options.getImageChannels(), 5);
}

TEST(kyNetInterfaceOptions, travelsInDeclaredOrder)
{
    EXPECT_EQ(encodeHex(makeFull()), s_fullHex);
}

TEST(kyNetInterfaceOptions, emptyDeviceTravelsAsLengthOneAndZero)
{
    EXPECT_EQ(encodeHex(kyNetInterfaceOptions()),
              "ff ff ff ff 01 00 00 00 00 ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff 00");
}

TEST(kyNetInterfaceOptions, readsWhatWasWritten)
{
    kyNetMessage message;
    message << makeFull() << kyNetInterfaceOptions();
    message.setRecvBuffer(message.takeSendBuffer());
    kyNetInterfaceOptions options;
    message >> options;
    EXPECT_EQ(encodeHex(options), s_fullHex);
    message >> options;
    EXPECT_EQ(encodeHex(options), encodeHex(kyNetInterfaceOptions()));
}

TEST(kyNetInterfaceOptions, readsLengthZeroAndAnyTrue)
{
    kyNetMessage message;
    message.setRecvBuffer(makeBuffer(std::string(24, '\0') + "\x80"));
    kyNetInterfaceOptions options = makeFull();
    message >> options;
    EXPECT_EQ(options.getIbDevice(), "");
    EXPECT_EQ(options.getNodeAffinity(), 0);
    EXPECT_TRUE(options.getEncrypted());
}

TEST(kyNetInterfaceOptions, truncatedRecordIsAnError)
{
    kyNetMessage whole;
    whole << makeFull();
    const std::string data = kyTest::dataOf(*whole.takeSendBuffer());
    for (std::size_t size = 0; size < data.size(); ++size) {
        kyNetMessage message;
        message.setRecvBuffer(makeBuffer(data.substr(0, size)));
        kyNetInterfaceOptions options;
        EXPECT_EQ(messageOf([&] { message >> options; }),
                  "kyNetMessage: try to read beyond buffer end.")
            << size;
    }
}

TEST(kyNetInterfaceOptions, isAPlainValue)
{
    const kyNetInterfaceOptions full = makeFull();
    kyNetInterfaceOptions copy = full;
    EXPECT_EQ(encodeHex(copy), s_fullHex);
    const kyNetInterfaceOptions moved = std::move(copy);
    EXPECT_EQ(encodeHex(moved), s_fullHex);
    kyNetInterfaceOptions assigned;
    assigned = moved;
    EXPECT_EQ(encodeHex(assigned), s_fullHex);
}
