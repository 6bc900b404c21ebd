#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <png.h>

namespace kyTest {

/// Red, green and blue bytes, row by row.
struct Picture
{
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::vector<std::uint8_t> pixels;

    friend bool operator==(const Picture& a, const Picture& b)
    {
        return a.width == b.width && a.height == b.height && a.pixels == b.pixels;
    }
};

/// Reads the bytes of a PNG file; throws std::runtime_error if they are none.
inline Picture decodePng(const std::string& bytes)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (png_image_begin_read_from_memory(&image, bytes.data(), bytes.size()) == 0) {
        throw std::runtime_error(image.message);
    }
    image.format = PNG_FORMAT_RGB;
    Picture picture{image.width, image.height, std::vector<std::uint8_t>(PNG_IMAGE_SIZE(image))};
    if (png_image_finish_read(&image, nullptr, picture.pixels.data(), 0, nullptr) == 0) {
        throw std::runtime_error(image.message);
    }
    return picture;
}

} // namespace kyTest
