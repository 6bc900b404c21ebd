#pragma once

#include <istream>
#include <memory>

#include <NetBase/kyNetBaseExport.h>

class kyNetSerializer;
class kyNetStreamBuf;

/// Lets code that reads from a std::istream read what a kyNetStdOStream wrote.
///
///     kyNetStdIStream text(stream);
///     scene.read(text);
///
/// It ends with end-of-file where the writer closed the text. Read up to there, or the rest of the
/// text is what the serializer reads next. After clear() a further read reads the next text. Skip
/// a known number of characters with read: ignore looks at the one behind them, and may take the
/// end of the text without saying so.
///
/// A failure of the connection and a stream out of sync set badbit; for their exceptions call
/// exceptions(std::ios::badbit). seekg(0, std::ios::beg) goes back to the start of the current
/// chunk, not of the text, and no other seek goes anywhere, see kyNetStreamBuf.
///
/// Ownership and threads: the serializer belongs to the caller and lives longer; nobody else reads
/// from it meanwhile.
class KY_NETBASE_EXPORT kyNetStdIStream : public std::istream
{
public:
    explicit kyNetStdIStream(kyNetSerializer& serializer);
    ~kyNetStdIStream() override;

private:
    std::unique_ptr<kyNetStreamBuf> m_buffer;
};
