#pragma once

#include <memory>

#include <NetBase/senders/kyNetCompressorBase.h>
#include <apps/common/Lz4Compressor.h>
#include <apps/common/ZstdCompressor.h>

/// The compressor of the programs' chains: all methods they know.
///
///     sender = kyNetCompressSender::create(std::make_shared<MethodCompressor>(), sender);
///
/// What leaves is compressed by the method that kyNetOptions names for it: LZ4 for Standard and
/// LocalImage, Zstandard for ZstdCompressor::s_method. What arrives is decompressed by the method
/// that its header names, so the two sides need not have the same setting.
///
/// Threads: any number at once.
class MethodCompressor final : public kyNetCompressorBase
{
public:
    /// Whether the method is one of the above, or None.
    static bool knows(kyNetCompression method);

    /// Throws kyNetError if the method that is set for the buffer is none of the above; for None,
    /// and where BlockCompressor says so, the buffer is returned as it is.
    std::shared_ptr<kyNetBuffer> compress(const std::shared_ptr<kyNetBuffer>& buffer) override;

    /// Throws kyNetError for an unknown method, and for sizes and data that are not sound. A
    /// buffer that is not compressed is returned as it is.
    std::shared_ptr<kyNetBuffer> decompress(const std::shared_ptr<kyNetBuffer>& buffer) override;

    /// As for what leaves the process.
    bool shouldCompressLocal(const std::shared_ptr<kyNetBuffer>& buffer) override;

private:
    BlockCompressor& select(kyNetCompression method);

    Lz4Compressor m_lz4;
    ZstdCompressor m_zstd;
};
