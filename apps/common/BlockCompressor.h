#pragma once

#include <cstdint>
#include <memory>

#include <NetBase/senders/kyNetCompressorBase.h>

/// What the compressors of the programs have in common: the buffers around a compression method
/// that turns a block of bytes into a shorter one.
///
/// Buffers of less than kyNetOptions::getCompressionThreshold() bytes, those that are compressed
/// already, and those that do not get shorter are returned as they are. Otherwise the result is a
/// buffer from the pool with the same sequence, source, destination, type and send mode.
///
/// Foreign bytes: nothing is written beyond a buffer, whatever header and data say, and what comes
/// out must have exactly the size that the header tells.
///
/// Threads: any number at once.
class BlockCompressor : public kyNetCompressorBase
{
public:
    std::shared_ptr<kyNetBuffer> compress(const std::shared_ptr<kyNetBuffer>& buffer) final;

    /// A buffer that is not compressed is returned as it is. Throws kyNetError if it is compressed
    /// by another method, or if its sizes or its data are not what compress() makes.
    std::shared_ptr<kyNetBuffer> decompress(const std::shared_ptr<kyNetBuffer>& buffer) final;

    /// As for what leaves the process.
    bool shouldCompressLocal(const std::shared_ptr<kyNetBuffer>& buffer) final;

protected:
    /// `method` is what the headers of compressed buffers say.
    explicit BlockCompressor(kyNetCompression method) : m_method(method) {}
    BlockCompressor(const BlockCompressor&) = default;
    BlockCompressor& operator=(const BlockCompressor&) = default;
    ~BlockCompressor() = default;

private:
    /// Compresses `size` bytes into at most `room`; the bytes written, 0 if they do not fit.
    virtual std::uint64_t shorten(char* out, std::uint64_t room, const char* in,
                                  std::uint64_t size) const = 0;

    /// Decompresses `size` bytes; whether they are sound and make exactly `expected` bytes.
    virtual bool restore(char* out, std::uint64_t expected, const char* in,
                         std::uint64_t size) const = 0;

    kyNetCompression m_method;
};
