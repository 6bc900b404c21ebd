#include <NetBase/serialization/kyNetStdOStream.h>

#include <NetBase/serialization/kyNetStreamBuf.h>

kyNetStdOStream::kyNetStdOStream(kyNetSerializer& serializer)
    : std::ostream(nullptr), m_buffer(std::make_unique<kyNetStreamBuf>(&serializer))
{
    rdbuf(m_buffer.get());
}

kyNetStdOStream::~kyNetStdOStream() = default;

void kyNetStdOStream::close()
{
    m_buffer->writeEOF();
}
