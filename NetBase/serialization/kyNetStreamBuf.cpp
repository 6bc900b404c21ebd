#include <NetBase/serialization/kyNetStreamBuf.h>

#include <NetBase/buffers/kyNetError.h>
#include <NetBase/serialization/kyNetSerializer.h>

namespace {

constexpr std::streamoff s_noPosition = -1;
constexpr std::uint32_t s_endOfText = 0;

} // namespace

kyNetStreamBuf::kyNetStreamBuf(kyNetSerializer* serializer) : m_serializer(serializer) {}

kyNetStreamBuf::~kyNetStreamBuf()
{
    try {
        writeChunk();
    } catch (...) {
        // Nobody is left to tell.
    }
}

void kyNetStreamBuf::writeEOF()
{
    writeChunk();
    m_serializer->putValue(s_endOfText);
}

kyNetStreamBuf::int_type kyNetStreamBuf::underflow()
{
    std::uint32_t length = 0;
    m_serializer->getValue(length);
    if (length == s_endOfText) {
        m_chunkLength = 0;
        return traits_type::eof();
    }
    if (length > getCapacity()) {
        throw kyNetError("Datastream out of sync");
    }
    // Without a chunk until all of it is there: neither seeking nor ungetting reads a half one.
    setChunk(0);
    m_serializer->getBytes(m_input.data(), length);
    setChunk(length);
    return traits_type::to_int_type(*gptr());
}

kyNetStreamBuf::int_type kyNetStreamBuf::overflow(int_type character)
{
    writeChunk();
    if (traits_type::eq_int_type(character, traits_type::eof())) {
        return 0; // Not end-of-file: a flush without characters is no failure.
    }
    *pptr() = traits_type::to_char_type(character);
    pbump(1);
    return character;
}

int kyNetStreamBuf::sync()
{
    return traits_type::eq_int_type(overflow(traits_type::eof()), traits_type::eof()) ? -1 : 0;
}

kyNetStreamBuf::pos_type kyNetStreamBuf::seekoff(off_type offset, std::ios_base::seekdir direction,
                                                 std::ios_base::openmode sides)
{
    switch (direction) {
    case std::ios_base::beg:
        if (offset == 0 && (sides & std::ios_base::in) != 0) {
            setChunk(m_chunkLength);
        }
        return m_position = pos_type(offset);
    case std::ios_base::cur:
        // Intended: the beginning is no position to return to.
        return off_type(m_position) == 0 ? pos_type(s_noPosition) : m_position;
    case std::ios_base::end:
        return m_position = pos_type(s_noPosition);
    default:
        return pos_type(s_noPosition);
    }
}

/// Makes the first characters of the input buffer the ones to be read.
void kyNetStreamBuf::setChunk(std::uint32_t length)
{
    m_chunkLength = length;
    setg(m_input.data(), m_input.data(), m_input.data() + length);
}

/// Writes what has gathered and starts anew, also if that fails: the chunk is not written twice.
void kyNetStreamBuf::writeChunk()
{
    const auto length = static_cast<std::uint32_t>(pptr() - pbase());
    setp(m_output.data(), m_output.data() + m_output.size());
    if (length > 0) {
        m_serializer->putValue(length);
        m_serializer->putBytes(m_output.data(), length);
    }
}
