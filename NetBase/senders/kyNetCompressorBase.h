#pragma once

#include <memory>

#include <NetBase/buffers/kyNetHeader.h>
#include <NetBase/kyNetBaseExport.h>

class kyNetBuffer;

/// The compression of a chain, supplied by the application: see kyNetCompressSender and
/// kyNetDecompressReceiver.
///
/// The base decides which buffers are compressed, by the settings of kyNetOptions; the formats,
/// and from which size on they pay, are the derived class's.
///
/// Foreign bytes: what is decompressed comes from a peer. Check its sizes before they are used,
/// and throw kyNetError if they do not fit.
///
/// Threads: one object serves all threads of its chains, so every member is called by several
/// threads at once. What it throws becomes the failure of the chain.
///
/// Ownership: the destructor is neither public nor virtual. Hold the concrete object by a
/// std::shared_ptr that was made with its own type, as std::make_shared does.
class KY_NETBASE_EXPORT kyNetCompressorBase
{
public:
    /// A buffer with the compressed data and the same header, in which compression and original
    /// data size are set. Does not change the given one, which may be the result itself if
    /// compressing it does not pay.
    virtual std::shared_ptr<kyNetBuffer> compress(const std::shared_ptr<kyNetBuffer>& buffer) = 0;

    /// The inverse: a buffer with the original data and the same header, not compressed.
    virtual std::shared_ptr<kyNetBuffer> decompress(const std::shared_ptr<kyNetBuffer>& buffer) = 0;

    /// Whether a buffer that the own process puts into a receive chain is compressed there. Only
    /// asked while the image compression is kyNetCompression::LocalImage.
    virtual bool shouldCompressLocal(const std::shared_ptr<kyNetBuffer>& buffer) = 0;

    /// Whether the buffer is to be compressed on its way out: it is neither compressed already
    /// nor a bundle, and a compression is set for what it holds.
    bool shouldCompress(const std::shared_ptr<kyNetBuffer>& buffer);

    /// The compression that is set for what the buffer holds: the image compression for image
    /// data, else the data compression.
    kyNetCompression getRequestedCompression(const std::shared_ptr<kyNetBuffer>& buffer);

protected:
    kyNetCompressorBase() = default;
    kyNetCompressorBase(const kyNetCompressorBase&) = default;
    kyNetCompressorBase& operator=(const kyNetCompressorBase&) = default;
    ~kyNetCompressorBase() = default;
};
