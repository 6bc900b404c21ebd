#pragma once

#include <memory>

#include <apps/common/BlockCompressor.h>

/// Compresses buffers with Zstandard: shorter than LZ4 makes them, at several times the effort, for
/// slow networks.
///
/// An object keeps the memory of the method, about 1 MiB, for as many threads as have used it at
/// once.
class ZstdCompressor final : public BlockCompressor
{
public:
    /// What headers say, and what is set in kyNetOptions.
    static constexpr kyNetCompression s_method = static_cast<kyNetCompression>(3);

    ZstdCompressor();
    ~ZstdCompressor();

private:
    struct Contexts;

    std::uint64_t shorten(char* out, std::uint64_t room, const char* in,
                          std::uint64_t size) const override;
    bool restore(char* out, std::uint64_t expected, const char* in,
                 std::uint64_t size) const override;

    const std::unique_ptr<Contexts> m_contexts;
};
