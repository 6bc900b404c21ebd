#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <apps/common/Scene.h>

namespace render {

/// A picture of linear colours that is filled tile by tile.
class Image
{
public:
    Image(std::uint32_t width, std::uint32_t height);

    std::uint32_t getWidth() const { return m_width; }
    std::uint32_t getHeight() const { return m_height; }

    /// Copies a tile's pixels, row by row, to their place. The tile must lie in the picture.
    void setTile(const Tile& tile, const std::vector<Vector>& pixels);

    const Vector& at(std::uint32_t x, std::uint32_t y) const
    {
        return m_pixels[std::size_t{y} * m_width + x];
    }

    /// What a screen shows: a film's response to the light, as red, green and blue bytes (sRGB).
    std::vector<std::uint8_t> develop() const;

private:
    std::uint32_t m_width;
    std::uint32_t m_height;
    std::vector<Vector> m_pixels;
};

} // namespace render
