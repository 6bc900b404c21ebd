#pragma once

#include <apps/common/BlockCompressor.h>

/// Compresses buffers with LZ4: fast enough for a network that is fast itself.
class Lz4Compressor final : public BlockCompressor
{
public:
    /// What headers say, and what is set in kyNetOptions: the library's default.
    static constexpr kyNetCompression s_method = kyNetCompression::Standard;

    Lz4Compressor() : BlockCompressor(s_method) {}

private:
    std::uint64_t shorten(char* out, std::uint64_t room, const char* in,
                          std::uint64_t size) const override;
    bool restore(char* out, std::uint64_t expected, const char* in,
                 std::uint64_t size) const override;
};
