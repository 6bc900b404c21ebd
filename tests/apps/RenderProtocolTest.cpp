#include <apps/common/RenderProtocol.h>

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyNetBuffer.h>
#include <tests/apps/kyTestSerializer.h>
#include <tests/support/kyTestMessage.h>

using namespace render;

namespace {

/// Hands the written message to a reader, as the network does.
AnswerMessage transfer(AnswerMessage& written)
{
    AnswerMessage received;
    received.setRecvBuffer(written.takeSendBuffer());
    return received;
}

Answer transfer(const Answer& answer)
{
    AnswerMessage message;
    message.putAnswer(answer);
    return transfer(message).getAnswer();
}

Answer makeTileAnswer(const Tile& tile, std::size_t pixels)
{
    Answer answer;
    answer.order = Order::RenderTile;
    answer.frame = 3;
    answer.tile = tile;
    answer.pixels.resize(pixels);
    for (std::size_t i = 0; i < pixels; ++i) {
        answer.pixels[i] = {static_cast<float>(i), 0.5F, -1.0F};
    }
    return answer;
}

} // namespace

TEST(RenderProtocol, helloComesBackAsItWas)
{
    Hello hello;
    hello.type = kyNodeConnectionType::Image;
    hello.rank = 7;
    hello.source = 3;
    hello.session = 0x0123456789ABCDEFU;
    hello.bookingId = "night shift";
    hello.channels.setImageChannels(3);
    kyTest::Loop loop;
    loop << hello;
    loop.flush();
    Hello copy;
    loop >> copy;
    EXPECT_EQ(copy.protocolVersion, 3U);
    EXPECT_EQ(copy.type, kyNodeConnectionType::Image);
    EXPECT_EQ(copy.rank, 7);
    EXPECT_EQ(copy.source, 3);
    EXPECT_EQ(copy.session, 0x0123456789ABCDEFU);
    EXPECT_EQ(copy.bookingId, "night shift");
    EXPECT_EQ(copy.channels.getChannels(kyNodeConnectionType::Image), 3);
    EXPECT_TRUE(loop.isEmpty());
}

TEST(RenderProtocol, aHelloIsTheApplicationsUnlessItSaysOtherwise)
{
    EXPECT_EQ(Hello().source, s_applicationRank);
    EXPECT_EQ(render::Setup().sceneSource, s_applicationRank);
}

TEST(RenderProtocol, aHelloOfAnotherVersionIsReadNoFurther)
{
    for (const std::uint32_t version : {2U, 4U}) {
        kyTest::Loop loop;
        loop << version;
        loop.flush();
        Hello hello;
        EXPECT_EQ(kyTest::messageOf([&] { loop >> hello; }),
                  "Unknown protocol version " + std::to_string(version));
    }
}

TEST(RenderProtocol, setupComesBackAsItWas)
{
    render::Setup setup;
    setup.imageCompression = kyNetCompression::Standard;
    setup.sceneSource = 4;
    setup.servicePort = 65535;
    setup.relayTargets = {{5, 17}, {6, 0xFFFFFFFFU}};
    kyTest::Loop loop;
    loop << setup;
    loop.flush();
    render::Setup copy;
    copy.relayTargets.resize(9);
    loop >> copy;
    EXPECT_EQ(copy.imageCompression, kyNetCompression::Standard);
    EXPECT_EQ(copy.sceneSource, 4);
    EXPECT_EQ(copy.servicePort, 65535);
    ASSERT_EQ(copy.relayTargets.size(), 2U);
    EXPECT_EQ(copy.relayTargets[0].rank, 5);
    EXPECT_EQ(copy.relayTargets[0].serverId, 17U);
    EXPECT_EQ(copy.relayTargets[1].rank, 6);
    EXPECT_EQ(copy.relayTargets[1].serverId, 0xFFFFFFFFU);
    EXPECT_TRUE(loop.isEmpty());
}

TEST(RenderProtocol, aSetupMayHave64RelayTargets)
{
    const auto complaint = [](std::uint32_t claimed, std::size_t sent) {
        kyTest::Loop loop;
        loop << kyNetCompression::None << std::int32_t{1} << std::uint16_t{0} << claimed;
        for (std::size_t i = 0; i < sent; ++i) {
            loop << std::int32_t{2} << std::uint32_t{1};
        }
        loop.flush();
        render::Setup setup;
        return kyTest::messageOf([&] { loop >> setup; });
    };
    EXPECT_EQ(complaint(64, 64), "");
    EXPECT_EQ(complaint(65, 65), "65 servers are too many to relay to");
    EXPECT_EQ(complaint(~0U, 0), "4294967295 servers are too many to relay to");
    EXPECT_EQ(complaint(64, 63), "Connection closed");
}

TEST(RenderProtocol, answersTravelAsImageData)
{
    AnswerMessage message;
    message.putAnswer({});
    EXPECT_EQ(transfer(message).getType(), kyNetMessageType::ImageData);
}

TEST(RenderProtocol, aTileComesBackWithItsPixels)
{
    for (const Tile& tile : {Tile{0, 0, 1, 1}, Tile{3, 4, 32, 17}, Tile{9, 9, 100, 100}}) {
        Answer answer = makeTileAnswer(tile, tile.pixelCount());
        answer.seconds = 0.25;
        const Answer copy = transfer(answer);
        EXPECT_EQ(copy.order, Order::RenderTile);
        EXPECT_EQ(copy.frame, 3);
        EXPECT_EQ(copy.tile, tile);
        EXPECT_EQ(copy.failure, "");
        EXPECT_EQ(copy.seconds, 0.25);
        EXPECT_EQ(copy.pixels, answer.pixels);
    }
}

TEST(RenderProtocol, aReportOfTrafficComesBackAsItWas)
{
    Answer answer;
    answer.order = Order::ReportTraffic;
    answer.sentBytes = 1ULL << 40;
    answer.compressedBytes = 1ULL << 39;
    const Answer copy = transfer(answer);
    EXPECT_EQ(copy.order, Order::ReportTraffic);
    EXPECT_EQ(copy.sentBytes, 1ULL << 40);
    EXPECT_EQ(copy.compressedBytes, 1ULL << 39);
}

TEST(RenderProtocol, aFailureComesBackWithoutPixels)
{
    Answer answer = makeTileAnswer({1, 2, 3, 4}, 0);
    answer.failure = "no scene";
    const Answer copy = transfer(answer);
    EXPECT_EQ(copy.order, Order::RenderTile);
    EXPECT_EQ(copy.tile, (Tile{1, 2, 3, 4}));
    EXPECT_EQ(copy.failure, "no scene");
    EXPECT_TRUE(copy.pixels.empty());
}

TEST(RenderProtocol, aFailureTextOfMoreThan4096BytesIsCut)
{
    Answer answer;
    for (const std::size_t size : {4095U, 4096U, 4097U, 1'000'000U}) {
        answer.failure = std::string(size, 'x');
        EXPECT_EQ(transfer(answer).failure.size(), std::min<std::size_t>(size, 4096));
    }
}

TEST(RenderProtocol, aFailureTextThatTheOtherSideHasNotCutIsCut)
{
    for (const std::size_t size : {4096U, 4097U, 100'000U}) {
        AnswerMessage message;
        message << Order::LoadScene << std::int32_t{0} << Tile{} << std::string(size, 'x') << 0.0
                << std::uint64_t{0} << std::uint64_t{0};
        EXPECT_EQ(transfer(message).getAnswer().failure, std::string(4096, 'x'));
    }
}

TEST(RenderProtocol, theLargestTileFitsIntoABufferWithTheLongestFailure)
{
    Answer answer = makeTileAnswer({0, 0, 100, 100}, 10'000);
    answer.failure = std::string(5000, 'x');
    AnswerMessage message;
    EXPECT_EQ(kyTest::messageOf([&] { message.putAnswer(answer); }), "");
}

TEST(RenderProtocol, aTileWithoutExactlyItsPixelsIsRefused)
{
    const auto complaint = [](const Tile& tile, std::size_t pixels) {
        return kyTest::messageOf([&] { transfer(makeTileAnswer(tile, pixels)); });
    };
    EXPECT_EQ(complaint({0, 0, 2, 2}, 4), "");
    EXPECT_EQ(complaint({0, 0, 2, 2}, 3), "kyNetMessage: try to read beyond buffer end.");
    EXPECT_EQ(complaint({0, 0, 2, 2}, 5), "Received an answer with more than belongs to it");
    EXPECT_EQ(complaint({0, 0, ~0U, ~0U}, 1), "Received a tile of 18446744065119617025 pixels");
    EXPECT_EQ(complaint({0, 0, 101, 100}, 10'000), "Received a tile of 10100 pixels");
    EXPECT_EQ(complaint({0, 0, 0, 5}, 0), "") << "whoever ordered a tile knows that it has pixels";
}

TEST(RenderProtocol, anAnswerToNothingThatCouldBeOrderedIsRefused)
{
    for (const std::uint32_t order : {0U, 1U, 2U, 4U}) {
        Answer answer;
        answer.order = static_cast<Order>(order);
        EXPECT_EQ(static_cast<std::uint32_t>(transfer(answer).order), order);
    }
    for (const std::uint32_t order : {5U, ~0U}) {
        Answer answer;
        answer.order = static_cast<Order>(order);
        EXPECT_EQ(kyTest::messageOf([&] { transfer(answer); }),
                  "Received an answer to order " + std::to_string(order));
    }
}

TEST(RenderProtocol, anAnswerThatIsCutShortIsRefused)
{
    AnswerMessage message;
    message << Order::LoadScene << std::int32_t{0};
    AnswerMessage received = transfer(message);
    EXPECT_EQ(kyTest::messageOf([&] { received.getAnswer(); }),
              "kyNetMessage: try to read beyond buffer end.");
}
