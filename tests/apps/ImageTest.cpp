#include <apps/TALORender/Image.h>

#include <limits>

#include <gtest/gtest.h>

using namespace render;

TEST(Image, aTileGoesToItsPlace)
{
    Image image(5, 4);
    std::vector<Vector> pixels;
    for (int i = 0; i < 6; ++i) {
        pixels.emplace_back(static_cast<float>(i + 1));
    }
    image.setTile({2, 1, 3, 2}, pixels);
    for (std::uint32_t y = 0; y < 4; ++y) {
        for (std::uint32_t x = 0; x < 5; ++x) {
            const bool isInTile = x >= 2 && y >= 1 && y <= 2;
            const auto expected = isInTile ? static_cast<float>(1 + (x - 2) + 3 * (y - 1)) : 0.0F;
            EXPECT_EQ(image.at(x, y), Vector(expected)) << x << "," << y;
        }
    }
}

TEST(Image, developsBlackToBlackAndBrightLightToWhite)
{
    Image image(3, 1);
    image.setTile({0, 0, 3, 1}, {Vector(0.0F), Vector(0.2F), Vector(1000.0F)});
    const std::vector<std::uint8_t> bytes = image.develop();
    ASSERT_EQ(bytes.size(), 9U);
    EXPECT_EQ(bytes[0], 0);
    EXPECT_GT(bytes[3], 80);
    EXPECT_LT(bytes[3], 180);
    EXPECT_EQ(bytes[8], 255);
}

TEST(Image, moreLightIsNeverDarker)
{
    Image image(1000, 1);
    for (std::uint32_t x = 0; x < 1000; ++x) {
        image.setTile({x, 0, 1, 1}, {Vector(static_cast<float>(x) * 0.01F)});
    }
    const std::vector<std::uint8_t> bytes = image.develop();
    for (std::size_t i = 3; i < bytes.size(); ++i) {
        ASSERT_GE(bytes[i], bytes[i - 3]);
    }
}

TEST(Image, whatIsNoNumberDevelopsToAByteToo)
{
    Image image(4, 1);
    const float infinity = std::numeric_limits<float>::infinity();
    image.setTile({0, 0, 4, 1}, {Vector(-infinity), Vector(infinity),
                                 Vector(std::numeric_limits<float>::quiet_NaN()), Vector(-1.0F)});
    const std::vector<std::uint8_t> bytes = image.develop();
    EXPECT_EQ(bytes[0], 0);
    EXPECT_EQ(bytes[9], 0);
}
