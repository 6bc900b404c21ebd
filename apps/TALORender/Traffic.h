#pragma once

#include <cstdint>

namespace render {

/// Bytes that went over channels in one direction, headers included.
struct Traffic
{
    std::uint64_t raw = 0;        ///< as they were written
    std::uint64_t compressed = 0; ///< as they travelled

    Traffic& operator+=(const Traffic& other)
    {
        raw += other.raw;
        compressed += other.compressed;
        return *this;
    }
};

} // namespace render
