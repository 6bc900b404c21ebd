#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include <apps/TALOClusterServer/PathTracer.h>

namespace kyTest {

/// What a render that nobody stops watches.
inline const std::atomic<bool> s_go{false};

/// A picture made from tiles of the given edge, rendered in the given order.
inline std::vector<render::Vector> renderTiled(const render::PathTracer& tracer,
                                               const render::Frame& frame, std::uint32_t edge,
                                               unsigned int shuffle)
{
    std::vector<render::Tile> tiles;
    for (std::uint32_t y = 0; y < frame.height; y += edge) {
        for (std::uint32_t x = 0; x < frame.width; x += edge) {
            tiles.push_back(
                {x, y, std::min(edge, frame.width - x), std::min(edge, frame.height - y)});
        }
    }
    std::shuffle(tiles.begin(), tiles.end(), std::mt19937(shuffle));
    std::vector<render::Vector> picture(std::size_t{frame.width} * frame.height);
    for (const render::Tile& tile : tiles) {
        const std::vector<render::Vector> pixels = tracer.render(frame, tile, s_go);
        for (std::uint32_t row = 0; row < tile.height; ++row) {
            std::copy_n(pixels.begin() + row * tile.width, tile.width,
                        picture.begin() + (tile.y + row) * frame.width + tile.x);
        }
    }
    return picture;
}

} // namespace kyTest
