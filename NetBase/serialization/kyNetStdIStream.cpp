#include <NetBase/serialization/kyNetStdIStream.h>

#include <NetBase/serialization/kyNetStreamBuf.h>

kyNetStdIStream::kyNetStdIStream(kyNetSerializer& serializer)
    : std::istream(nullptr), m_buffer(std::make_unique<kyNetStreamBuf>(&serializer))
{
    rdbuf(m_buffer.get());
}

kyNetStdIStream::~kyNetStdIStream() = default;
