#include <apps/common/Lz4Compressor.h>

#include <lz4.h>

std::uint64_t Lz4Compressor::shorten(char* out, std::uint64_t room, const char* in,
                                     std::uint64_t size) const
{
    const int shortened =
        LZ4_compress_default(in, out, static_cast<int>(size), static_cast<int>(room));
    return static_cast<std::uint64_t>(shortened);
}

bool Lz4Compressor::restore(char* out, std::uint64_t expected, const char* in,
                            std::uint64_t size) const
{
    const int restored =
        LZ4_decompress_safe(in, out, static_cast<int>(size), static_cast<int>(expected));
    return restored == static_cast<int>(expected);
}
