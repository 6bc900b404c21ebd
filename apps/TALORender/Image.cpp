#include <apps/TALORender/Image.h>

namespace render {

namespace {

/// Rolls off towards white as film does: steep in the shadows, gentle in the highlights
/// (a fit of the filmic curve that motion pictures are graded with).
float film(float light)
{
    const float x = std::min(std::max(0.0F, light), 1000.0F) * 0.8F;
    return std::clamp((x * (2.51F * x + 0.03F)) / (x * (2.43F * x + 0.59F) + 0.14F), 0.0F, 1.0F);
}

std::uint8_t encode(float linear)
{
    const float display =
        linear <= 0.0031308F ? 12.92F * linear : 1.055F * std::pow(linear, 1.0F / 2.4F) - 0.055F;
    return static_cast<std::uint8_t>(display * 255.0F + 0.5F);
}

} // namespace

Image::Image(std::uint32_t width, std::uint32_t height)
    : m_width(width), m_height(height), m_pixels(std::size_t{width} * height)
{
}

void Image::setTile(const Tile& tile, const std::vector<Vector>& pixels)
{
    for (std::uint32_t row = 0; row < tile.height; ++row) {
        std::copy_n(pixels.begin() + std::ptrdiff_t{row} * tile.width, tile.width,
                    m_pixels.begin() + std::ptrdiff_t{tile.y + row} * m_width + tile.x);
    }
}

std::vector<std::uint8_t> Image::develop() const
{
    std::vector<std::uint8_t> bytes;
    bytes.reserve(m_pixels.size() * 3);
    for (const Vector& pixel : m_pixels) {
        for (const float channel : {pixel.x, pixel.y, pixel.z}) {
            bytes.push_back(encode(film(channel)));
        }
    }
    return bytes;
}

} // namespace render
