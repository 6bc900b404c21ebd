#include <apps/TALORender/PngEncoder.h>

#include <gtest/gtest.h>

#include <tests/apps/kyTestPng.h>

using namespace render;

TEST(PngEncoder, everyPixelComesBack)
{
    for (const auto& [width, height] :
         {std::pair<std::uint32_t, std::uint32_t>{1, 1}, {7, 5}, {256, 3}, {1, 300}}) {
        std::vector<std::uint8_t> pixels(std::size_t{width} * height * 3);
        for (std::size_t i = 0; i < pixels.size(); ++i) {
            pixels[i] = static_cast<std::uint8_t>(i * 37 + i / 256);
        }
        const std::vector<std::uint8_t> file = encodePng(width, height, pixels);
        const kyTest::Picture picture = kyTest::decodePng({file.begin(), file.end()});
        EXPECT_EQ(picture.width, width);
        EXPECT_EQ(picture.height, height);
        EXPECT_EQ(picture.pixels, pixels);
    }
}
