#pragma once

#include <memory>
#include <ostream>

#include <NetBase/kyNetBaseExport.h>

class kyNetSerializer;
class kyNetStreamBuf;

/// Lets code that writes to a std::ostream write into a serializer.
///
///     kyNetStdOStream text(stream);
///     scene.write(text);
///     text.close();
///     stream.flush();
///
/// The other end reads it with kyNetStdIStream; how it travels stands in kyNetStreamBuf.
/// Neither flush nor close sends: they pass the characters to the serializer, which may keep them.
/// Values written into the serializer before or after the text stand before or after it, those
/// written in between destroy it.
///
/// A failure sets badbit; for its exception call exceptions(std::ios::badbit). With std::unitbuf
/// the flush behind an operation throws nothing, the next operation then throws std::ios::failure.
///
/// Destruction passes on what was not flushed, but does not end the text: close it, or the reader
/// waits.
///
/// Ownership and threads: the serializer belongs to the caller and lives longer; nobody else
/// writes into it meanwhile.
class KY_NETBASE_EXPORT kyNetStdOStream : public std::ostream
{
public:
    explicit kyNetStdOStream(kyNetSerializer& serializer);
    ~kyNetStdOStream() override;

    /// Passes on what was written and ends the text; what is written later is a new text. Throws
    /// what the serializer throws, whatever exceptions() says.
    void close();

private:
    std::unique_ptr<kyNetStreamBuf> m_buffer;
};
