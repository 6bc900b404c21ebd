#pragma once

#include <cstdint>
#include <vector>

namespace render {

/// The bytes of a PNG file of 8-bit red, green and blue rows. Throws kyNetError if there is no
/// memory for it.
std::vector<std::uint8_t> encodePng(std::uint32_t width, std::uint32_t height,
                                    const std::vector<std::uint8_t>& pixels);

} // namespace render
