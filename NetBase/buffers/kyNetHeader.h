#pragma once

#include <cstdint>

/// What a buffer's data is. Travels as one byte; other values pass through unchanged.
enum class kyNetMessageType : std::int32_t
{
    StreamData = 0, ///< a piece of a stream
    Message = 1,    ///< a message that fits into one buffer
    ImageData = 2,  ///< pixels; compressed by the image compression setting
    Bundle = 3      ///< several small buffers packed into one
};

/// How a buffer's data is compressed. Travels as one byte; the methods behind the values are the
/// application's, so values without a name are as good as the named ones.
enum class kyNetCompression : std::int32_t
{
    None = 0,
    Standard = 2,  ///< the default method for data
    LocalImage = 4 ///< as image setting: what the local side injects is compressed, too
};

/// Which child of a switch sender takes a buffer. Held in memory, never sent; every other value
/// acts as Second.
enum class kyNetBufferSendMode : std::int32_t
{
    Automatic = 0, ///< by size
    First = 1,
    Second = 2
};

#pragma pack(push, 1)

/// The 20 bytes that stand before the data of each buffer on the wire, and before each entry
/// inside a bundle.
///
///      0             4               8        10     11            12       16            20
///      | data size   | original size | sequence | type | compression | source | destination |
///
/// All numbers are unsigned and little-endian, without padding. Inside a bundle a header stands
/// at any address: read and write its fields by value, never bind a reference to one.
struct kyNetHeader
{
    /// Bytes of data that follow, as they travel (compressed, if they are).
    std::uint32_t dataSize;
    /// Bytes of data once they are uncompressed.
    std::uint32_t originalDataSize;
    /// Number of the buffer in the order of its source.
    std::uint16_t sequence;
    /// A kyNetMessageType.
    std::uint8_t type;
    /// A kyNetCompression.
    std::uint8_t compression;
    /// Rank that produced the buffer.
    std::uint32_t source;
    /// Rank that the buffer is for, 0 for all.
    std::uint32_t destination;

    /// Whether the buffer is for all ranks.
    bool isMulticast() const { return destination == 0; }

    /// Bytes of data in compressed form. Intended: an uncompressed buffer answers its original
    /// size, whatever its data size says.
    std::uint32_t getCompressedDataSize() const
    {
        return compression != 0 ? dataSize : originalDataSize;
    }
};

#pragma pack(pop)

static_assert(sizeof(kyNetHeader) == 20 && alignof(kyNetHeader) == 1, "the header is wire format");
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "headers travel as they stand in memory");
