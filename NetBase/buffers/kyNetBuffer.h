#pragma once

#include <cstdint>
#include <memory>
#include <queue>

#include <NetBase/buffers/kyNetHeader.h>
#include <NetBase/buffers/kyNetOptions.h>
#include <NetBase/kyNetBaseExport.h>

/// The unit that everything in the library moves: a header and its data, in one block.
///
///     getBuffer()      getData()
///     | header, 20     | data, getDataSize() of getCapacity() bytes           |
///     |<---------- getBufferSize(): what goes on the wire ------->|
///
/// Serializers fill the data, senders and receivers pass whole buffers by shared pointer, links
/// write and read header and data as one piece. Take buffers from kyNetBufferPool: a buffer has
/// the same fixed size always, so one that is released is as good as a new one.
///
/// Small buffers for the same destination travel packed into one, a bundle: its data is a run of
/// entries, each a header and that many bytes of data, without count or padding. Bundles are
/// never nested: one that is added to another contributes its entries.
///
/// Ownership: the block belongs to the object. Assignment is shallow: both objects then share one
/// block, which lives as long as the last of them.
///
/// Threads: one thread uses a buffer at a time; nothing but writeToLog locks.
class KY_NETBASE_EXPORT kyNetBuffer
{
public:
    /// Allocates header and data; nothing of either is initialised. Throws std::bad_alloc.
    kyNetBuffer();

    /// Takes a block from std::malloc that begins with a header; the data stands in the same
    /// block and has room for getCapacity() bytes. Bundling requires it right behind the header.
    kyNetBuffer(kyNetHeader* header, char* data);

    kyNetBuffer(const kyNetBuffer&) = delete;

    /// Makes this object share the other's block, and copies send mode and flag.
    kyNetBuffer& operator=(const kyNetBuffer&) = default;

    /// Bytes of the header on the wire: 20.
    static constexpr std::uint64_t getHeaderSize() { return sizeof(kyNetHeader); }

    /// Bytes of data that a buffer has room for.
    static constexpr std::uint64_t getCapacity()
    {
        return static_cast<std::uint64_t>(kyNetOptions::getBufferSize());
    }

    /// The header, where the bytes for the wire begin.
    kyNetHeader* getBuffer() { return m_header.get(); }
    const kyNetHeader* getBuffer() const { return m_header.get(); }

    /// Bytes that go on the wire: header and data.
    std::uint64_t getBufferSize() const { return getDataSize() + getHeaderSize(); }

    /// The first byte of data.
    char* getData() { return m_data; }
    const char* getData() const { return m_data; }

    /// Bytes of data. Comes from the peer in a received buffer: links bound it by the capacity,
    /// whoever fills a buffer otherwise has to.
    std::uint64_t getDataSize() const { return m_header->dataSize; }

    /// Sets the bytes of data; the low 32 bits are stored.
    void setDataSize(std::uint64_t size) { m_header->dataSize = static_cast<std::uint32_t>(size); }

    /// Number in the order of the source, 0 to 65535.
    int getSequence() const { return m_header->sequence; }

    /// Sets the sequence number; the low 16 bits are stored.
    void setSequence(int sequence) { m_header->sequence = static_cast<std::uint16_t>(sequence); }

    /// Rank that produced the buffer.
    std::uint32_t getSource() const { return m_header->source; }
    void setSource(std::uint32_t rank) { m_header->source = rank; }

    /// Rank that the buffer is for, 0 for all.
    std::uint32_t getDestination() const { return m_header->destination; }
    void setDestination(std::uint32_t rank) { m_header->destination = rank; }

    /// Whether the buffer is for all ranks.
    bool isMulticast() const { return m_header->isMulticast(); }

    /// What the data is.
    kyNetMessageType getType() const { return static_cast<kyNetMessageType>(m_header->type); }

    /// Sets what the data is; the low 8 bits are stored.
    void setType(kyNetMessageType type) { m_header->type = static_cast<std::uint8_t>(type); }

    /// How the data is compressed.
    kyNetCompression getCompression() const
    {
        return static_cast<kyNetCompression>(m_header->compression);
    }

    /// Sets how the data is compressed (low 8 bits) and how many bytes it has without compression
    /// (low 32 bits). The data size stays.
    void setCompression(kyNetCompression compression, std::uint64_t originalDataSize)
    {
        m_header->originalDataSize = static_cast<std::uint32_t>(originalDataSize);
        m_header->compression = static_cast<std::uint8_t>(compression);
    }

    /// Bytes of data without compression.
    std::uint64_t getOriginalDataSize() const { return m_header->originalDataSize; }

    /// Bytes of data in compressed form; of an uncompressed buffer its original data size.
    std::uint64_t getCompressedDataSize() const { return m_header->getCompressedDataSize(); }

    /// Which child of a switch sender takes the buffer; never sent.
    kyNetBufferSendMode getSendMode() const { return m_sendMode; }
    void setSendMode(kyNetBufferSendMode mode) { m_sendMode = mode; }

    /// A mark for whoever holds the buffer, false in a new one; never sent, and the library
    /// itself neither reads nor resets it.
    bool getFlag() const { return m_flag; }
    void setFlag(bool flag) { m_flag = flag; }

    /// Copies the other's header, data size included. Data, send mode and flag stay.
    void copyHeaderFrom(const kyNetBuffer& other) { *m_header = *other.m_header; }

    /// Takes at least one buffer from the front of the queue: the longest run of non-empty ones
    /// for one destination that fits into a bundle, as that bundle, or else the front one as it
    /// is. Never reorders. False, and `out` stays, if the queue is empty.
    ///
    /// A bundle never fills the capacity to the last byte. It has the source, the destination
    /// and the send mode of its first buffer. Throws std::bad_alloc; the first buffer is then
    /// in `out`, the others are still queued.
    static bool tryBundle(std::queue<std::shared_ptr<kyNetBuffer>>& queue,
                          std::shared_ptr<kyNetBuffer>& out);

    /// Appends another buffer (the entries of it, if it is a bundle) to this bundle. The caller
    /// sees to it that there is room.
    void addToBundle(const std::shared_ptr<kyNetBuffer>& other);

    /// Appends the messages of this bundle to `out`, each in a buffer from the pool, in the order
    /// in which they were packed. The bundle stays as it is.
    ///
    /// The bundle may come from anyone: one whose entries do not fill its data exactly, or whose
    /// data exceeds the capacity, throws kyNetError and nothing of it is delivered. A bundle of
    /// empty entries asks for several thousand buffers: split one at a time, never ahead.
    void split(std::queue<std::shared_ptr<kyNetBuffer>>& out) const;

    /// Prints thread, rank, sequence, sizes and the data in hexadecimal to standard output, for
    /// diagnosis. Dumps of several threads do not mix: blocks while another one prints.
    void writeToLog() const;

private:
    std::shared_ptr<kyNetHeader> m_header;
    kyNetBufferSendMode m_sendMode = kyNetBufferSendMode::Automatic;
    char* m_data;
    bool m_flag = false;
};
