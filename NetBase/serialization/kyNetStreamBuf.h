#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <ios>
#include <streambuf>

#include <NetBase/kyNetBaseExport.h>

class kyNetSerializer;

/// Carries the characters of a standard stream inside the values of a serializer.
///
/// kyNetStdOStream and kyNetStdIStream are the usual way to have one. A text travels in chunks and
/// ends with one of length 0:
///
///     | length, 4 | characters | length, 4 | characters | 0, 4 |
///
/// A chunk is written when 1 MiB of characters has gathered and when the standard stream is
/// flushed; none is longer. Reading waits for a whole chunk. The end of a text is end-of-file to
/// the reader; whoever clears that reads the next text, which may follow at once.
///
/// Writing a chunk does not send it: flush the serializer, too, when the reader waits.
///
/// Failures: kyNetError "Datastream out of sync" for a chunk longer than 1 MiB, and whatever the
/// serializer throws. Standard streams turn both into badbit, unless they are told to throw it. A
/// chunk that could not be written is gone and is not written again; one of which only a part has
/// come is never read.
///
/// Limits: an object takes 2 MiB; keep it on the heap.
///
/// Ownership: the serializer belongs to the caller and lives longer.
///
/// Threads: one may write while another one reads; nothing here locks.
class KY_NETBASE_EXPORT kyNetStreamBuf : public std::streambuf
{
    using Characters = std::array<char, 1048576>;

public:
    /// The most characters of a chunk: 1 MiB.
    static constexpr std::size_t getCapacity() { return std::tuple_size<Characters>::value; }

    /// Writes to and reads from this serializer.
    explicit kyNetStreamBuf(kyNetSerializer* serializer);

    kyNetStreamBuf(const kyNetStreamBuf&) = delete;
    kyNetStreamBuf& operator=(const kyNetStreamBuf&) = delete;

    /// Writes what has gathered as one last chunk, but does not end the text. A failure is
    /// swallowed: flush before, to learn of it.
    ~kyNetStreamBuf() override;

    /// Writes what has gathered and ends the text. What is written later is a new text.
    void writeEOF();

protected:
    /// Takes the next chunk off the serializer and gives its first character; end-of-file at the
    /// end of a text. Each call reads one length. Blocks and throws as the serializer does.
    int_type underflow() override;

    /// Writes what has gathered as a chunk, nothing if that is nothing, and makes room for
    /// `character`. Answers it, or 0 for end-of-file. Blocks and throws as the serializer does.
    int_type overflow(int_type character) override;

    /// Writes what has gathered. Answers 0.
    int sync() override;

    /// Keeps a record of positions and moves nowhere, with one exception: 0 from the beginning of
    /// the input reads the current chunk again. From the beginning the offset is the new
    /// position, from the end that is -1, and from the current position the answer is the
    /// record, whatever the offset, or -1 if it is 0.
    pos_type seekoff(off_type offset, std::ios_base::seekdir direction,
                     std::ios_base::openmode sides) override;

private:
    void setChunk(std::uint32_t length);
    void writeChunk();

    Characters m_input{};
    Characters m_output{};
    kyNetSerializer* m_serializer;
    pos_type m_position{0};
    std::uint32_t m_chunkLength = 0;
};
