#pragma once

#include <apps/common/BlockCompressor.h>

/// Compresses buffers with Zstandard: shorter than LZ4 makes them, at several times the effort, for
/// slow networks.
///
/// Each thread that uses any such object keeps the memory of the method, about 1 MiB, until it
/// ends.
class ZstdCompressor final : public BlockCompressor
{
public:
    /// What headers say, and what is set in kyNetOptions.
    static constexpr kyNetCompression s_method = static_cast<kyNetCompression>(3);

    ZstdCompressor() : BlockCompressor(s_method) {}

private:
    std::uint64_t shorten(char* out, std::uint64_t room, const char* in,
                          std::uint64_t size) const override;
    bool restore(char* out, std::uint64_t expected, const char* in,
                 std::uint64_t size) const override;
};
