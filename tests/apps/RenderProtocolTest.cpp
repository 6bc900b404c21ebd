#include <apps/common/RenderProtocol.h>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyNetBuffer.h>
#include <tests/apps/kyTestFolder.h>
#include <tests/apps/kyTestSerializer.h>

using namespace render;

namespace {

/// Hands the written message to a reader, as the network does.
TileMessage transfer(TileMessage& written)
{
    TileMessage received;
    received.setRecvBuffer(written.takeSendBuffer());
    return received;
}

} // namespace

TEST(RenderProtocol, helloComesBackAsItWas)
{
    Hello hello;
    hello.type = kyNodeConnectionType::Image;
    hello.rank = 7;
    hello.session = 0x0123456789ABCDEFU;
    hello.bookingId = "night shift";
    hello.channels.setImageChannels(3);
    kyTest::Loop loop;
    loop << hello;
    loop.flush();
    Hello copy;
    loop >> copy;
    EXPECT_EQ(copy.protocolVersion, 1U);
    EXPECT_EQ(copy.type, kyNodeConnectionType::Image);
    EXPECT_EQ(copy.rank, 7);
    EXPECT_EQ(copy.session, 0x0123456789ABCDEFU);
    EXPECT_EQ(copy.bookingId, "night shift");
    EXPECT_EQ(copy.channels.getChannels(kyNodeConnectionType::Image), 3);
    EXPECT_TRUE(loop.isEmpty());
}

TEST(RenderProtocol, aHelloOfAnotherVersionIsReadNoFurther)
{
    kyTest::Loop loop;
    loop << std::uint32_t{2};
    loop.flush();
    Hello hello;
    EXPECT_EQ(kyTest::messageOf([&] { loop >> hello; }), "Unknown protocol version 2");
}

TEST(RenderProtocol, tilesTravelAsImageData)
{
    TileMessage message;
    message.putTile({1, 2, 1, 1}, {Vector(1.0F)});
    EXPECT_EQ(transfer(message).getType(), kyNetMessageType::ImageData);
}

TEST(RenderProtocol, aTileComesBackWithItsPixels)
{
    for (const Tile& tile : {Tile{0, 0, 1, 1}, Tile{3, 4, 32, 17}, Tile{9, 9, 100, 100}}) {
        std::vector<Vector> pixels(tile.pixelCount());
        for (std::size_t i = 0; i < pixels.size(); ++i) {
            pixels[i] = {static_cast<float>(i), 0.5F, -1.0F};
        }
        TileMessage message;
        message.putTile(tile, pixels);
        TileMessage received = transfer(message);
        Tile copy;
        EXPECT_EQ(received.getTile(copy), pixels);
        EXPECT_EQ(copy, tile);
    }
}

TEST(RenderProtocol, aTileWithoutExactlyItsPixelsIsRefused)
{
    const auto complaint = [](const Tile& tile, std::size_t pixels, std::size_t surplus) {
        TileMessage message;
        message.putTile(tile, std::vector<Vector>(pixels));
        for (std::size_t i = 0; i < surplus; ++i) {
            message << std::uint8_t{0};
        }
        TileMessage received = transfer(message);
        Tile ignored;
        return kyTest::messageOf([&] { received.getTile(ignored); });
    };
    EXPECT_EQ(complaint({0, 0, 2, 2}, 4, 0), "");
    EXPECT_EQ(complaint({0, 0, 2, 2}, 3, 0), "Received an invalid tile: 52 bytes");
    EXPECT_EQ(complaint({0, 0, 2, 2}, 5, 0), "Received an invalid tile: 76 bytes");
    EXPECT_EQ(complaint({0, 0, 2, 2}, 4, 1), "Received an invalid tile: 65 bytes");
    EXPECT_EQ(complaint({0, 0, ~0U, ~0U}, 1, 0), "Received an invalid tile: 28 bytes");
    EXPECT_EQ(complaint({0, 0, 101, 100}, 10100, 0), "Received an invalid tile: 121216 bytes");

    TileMessage shortMessage;
    shortMessage << std::uint32_t{1};
    TileMessage received = transfer(shortMessage);
    Tile ignored;
    EXPECT_EQ(kyTest::messageOf([&] { received.getTile(ignored); }),
              "Received an invalid tile: 4 bytes");
}
