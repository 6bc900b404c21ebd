#pragma once

#include <atomic>
#include <cstdint>

#include <NetBase/buffers/kyNetHeader.h>
#include <NetBase/kyNetBaseExport.h>

/// Every tuning number of the library, and four settings that the application may change.
///
/// Set them before streams and chains start: each part reads a setting when it needs it, so a
/// later change reaches a running chain at no particular moment. All members may be called from
/// any thread, never block and never throw.
class KY_NETBASE_EXPORT kyNetOptions
{
public:
    /// Bytes of data that a buffer holds: the largest stream buffer and room for what compression
    /// may add to data that does not compress.
    static constexpr int getBufferSize()
    {
        return getMaxStreamBufferSize() + getMaxStreamBufferSize() / 255 + 16;
    }

    /// Upper bound of the stream buffer size in bytes. Larger buffers save calls; smaller ones
    /// let sending begin while the rest is still written.
    static constexpr int getMaxStreamBufferSize() { return 131072; }

    /// Buffers that a bounded queue of a chain holds before its producer waits.
    static constexpr int getMaxIOBuffers() { return 256; }

    /// Bytes of data from which compressing a buffer pays.
    static constexpr int getCompressionThreshold() { return 4096; }

    /// Bytes up to which a client's buffer takes the low-latency channel. Intended: 8196.
    static constexpr int getLowLatencyClientThreshold() { return 8196; }

    /// Bytes up to which a server's buffer takes the low-latency channel.
    static constexpr int getLowLatencyServerThreshold() { return 1024; }

    /// Seconds that connecting may take.
    static constexpr double getConnectionTimeout() { return 4.0; }

    /// TCP port of the cluster service.
    static constexpr int getDefaultServicePort() { return 8889; }

    /// Tiles that a node is given at a time.
    static constexpr int getTilesPerNode() { return 6; }

    /// Links of a synchronisation connection.
    static constexpr int getSyncChannels() { return 1; }

    /// Links of an image connection.
    static constexpr int getImageChannels() { return 4; }

    /// Links of a low-latency connection.
    static constexpr int getLowLatencyChannels() { return 6; }

    /// Compressing threads of a chain, 0 for one per hardware thread.
    static constexpr int getMaxParallelCompressions() { return 0; }

    /// Decompressing threads of a chain, 0 for one per hardware thread.
    static constexpr int getMaxParallelDecompressions() { return 0; }

    /// The data compression that holds until one is set.
    static constexpr kyNetCompression getDefaultDataCompression()
    {
        return kyNetCompression::Standard;
    }

    /// The image compression that holds until one is set.
    static constexpr kyNetCompression getDefaultImageCompression()
    {
        return kyNetCompression::None;
    }

    /// The compression of all data but images.
    static kyNetCompression getDataCompression();

    /// Sets the compression of all data but images; None turns it off, a negative value restores
    /// the default.
    static void setDataCompression(kyNetCompression compression);

    /// The compression of image data.
    static kyNetCompression getImageCompression();

    /// Sets the compression of image data; a negative value restores the default.
    static void setImageCompression(kyNetCompression compression);

    /// Bytes of data that a stream writes into a buffer before it sends it, 1 to 131072.
    static int getStreamBufferSize();

    /// Sets the stream buffer size in bytes; larger values become 131072, and 0 or less restores
    /// the default of 131072.
    static void setStreamBufferSize(int size);

    /// Upper bound of the receive polling in microseconds.
    static constexpr int getMaxReceivePolling() { return 10000; }

    /// The receive polling that holds until one is set, in microseconds: what a peer on another
    /// processor takes to answer, and a few times of what waking a sleeping thread costs.
    static constexpr int getDefaultReceivePolling() { return 100; }

    /// Microseconds that a receive with nothing to receive asks again, yielding the processor
    /// between, before it sleeps; 0 if it sleeps at once. See kyPollWindow.
    static int getReceivePolling();

    /// Sets the receive polling in microseconds. 0 turns it off, for a machine whose processors
    /// have enough other work; larger values than 10000 become that, and a negative one restores
    /// the default of 100.
    static void setReceivePolling(int microseconds);

private:
    // Negative: not set.
    static std::atomic<std::int32_t> m_dataCompression;
    static std::atomic<std::int32_t> m_imageCompression;
    static std::atomic<std::int32_t> m_streamBufferSize;
    static std::atomic<std::int32_t> m_receivePolling;
};
