#include <apps/common/MethodCompressor.h>

#include <string>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetError.h>

bool MethodCompressor::knows(kyNetCompression method)
{
    return method == kyNetCompression::None || method == kyNetCompression::LocalImage ||
           method == Lz4Compressor::s_method || method == ZstdCompressor::s_method;
}

std::shared_ptr<kyNetBuffer> MethodCompressor::compress(const std::shared_ptr<kyNetBuffer>& buffer)
{
    const kyNetCompression requested = getRequestedCompression(buffer);
    switch (requested) {
    case kyNetCompression::None:
        return buffer;
    case kyNetCompression::LocalImage:
        // It says what is compressed, not how.
        return m_lz4.compress(buffer);
    default:
        return select(requested).compress(buffer);
    }
}

std::shared_ptr<kyNetBuffer>
MethodCompressor::decompress(const std::shared_ptr<kyNetBuffer>& buffer)
{
    const kyNetCompression method = buffer->getCompression();
    return method == kyNetCompression::None ? buffer : select(method).decompress(buffer);
}

bool MethodCompressor::shouldCompressLocal(const std::shared_ptr<kyNetBuffer>& buffer)
{
    return shouldCompress(buffer);
}

BlockCompressor& MethodCompressor::select(kyNetCompression method)
{
    if (method == Lz4Compressor::s_method) {
        return m_lz4;
    }
    if (method == ZstdCompressor::s_method) {
        return m_zstd;
    }
    throw kyNetError("Unknown compression method " + std::to_string(static_cast<int>(method)));
}
