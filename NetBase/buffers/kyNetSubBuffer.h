#pragma once

#include <cstdint>
#include <memory>

#include <NetBase/buffers/kyNetBuffer.h>

/// One message inside another buffer's storage, read and written in place.
///
/// Keeps that buffer alive; copies look at the same message. Everything is read from and written
/// to the message's own header, never the header of the buffer around it. Header and data must
/// stand inside that buffer, and the caller has checked that they do.
///
/// Threads: as the buffer itself, one at a time.
class KY_NETBASE_EXPORT kyNetSubBuffer
{
public:
    /// A view of the message with the given header and data inside `owner`.
    kyNetSubBuffer(const std::shared_ptr<kyNetBuffer>& owner, kyNetHeader* header, char* data)
        : m_owner(owner), m_header(header), m_data(data)
    {
    }

    /// The first byte of data.
    char* getData() { return m_data; }
    const char* getData() const { return m_data; }

    /// Bytes of data.
    std::uint64_t getDataSize() const { return m_header->dataSize; }

    /// Sets the bytes of data; the low 32 bits are stored.
    void setDataSize(std::uint64_t size) { m_header->dataSize = static_cast<std::uint32_t>(size); }

    /// Number in the order of the source, 0 to 65535.
    int getSequence() const { return m_header->sequence; }

    /// Rank that produced the message.
    std::uint32_t getSource() const { return m_header->source; }

    /// Rank that the message is for, 0 for all.
    std::uint32_t getDestination() const { return m_header->destination; }

    /// Whether the message is for all ranks.
    bool isMulticast() const { return m_header->isMulticast(); }

    /// What the data is.
    kyNetMessageType getType() const { return static_cast<kyNetMessageType>(m_header->type); }

    /// How the data is compressed.
    kyNetCompression getCompression() const
    {
        return static_cast<kyNetCompression>(m_header->compression);
    }

    /// Bytes of data without compression.
    std::uint64_t getOriginalDataSize() const { return m_header->originalDataSize; }

    /// Bytes of data in compressed form; of an uncompressed message its original data size.
    std::uint64_t getCompressedDataSize() const { return m_header->getCompressedDataSize(); }

private:
    std::shared_ptr<kyNetBuffer> m_owner;
    kyNetHeader* m_header;
    char* m_data;
};
