#include <apps/TALORender/PngEncoder.h>

#include <string>

#include <png.h>

#include <NetBase/buffers/kyNetError.h>

namespace render {

std::vector<std::uint8_t> encodePng(std::uint32_t width, std::uint32_t height,
                                    const std::vector<std::uint8_t>& pixels)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = width;
    image.height = height;
    image.format = PNG_FORMAT_RGB;

    // The first call only asks how large the file will be.
    png_alloc_size_t size = 0;
    std::vector<std::uint8_t> file;
    if (png_image_write_get_memory_size(image, size, 0, pixels.data(), 0, nullptr) != 0) {
        file.resize(size);
        if (png_image_write_to_memory(&image, file.data(), &size, 0, pixels.data(), 0, nullptr) !=
            0) {
            file.resize(size);
            return file;
        }
    }
    throw kyNetError("Unable to encode the picture: " + std::string(image.message));
}

} // namespace render
