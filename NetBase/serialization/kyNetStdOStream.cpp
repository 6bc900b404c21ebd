#include <NetBase/serialization/kyNetStdOStream.h>

#include <NetBase/serialization/kyNetStreamBuf.h>

namespace {

/// A stream with std::unitbuf flushes in a destructor, where the process ends if anything is
/// thrown; so nothing is.
class DiscreetStreamBuf final : public kyNetStreamBuf
{
public:
    DiscreetStreamBuf(kyNetSerializer* serializer, std::ostream& stream)
        : kyNetStreamBuf(serializer), m_stream(stream)
    {
    }

protected:
    int sync() override
    {
        if ((m_stream.flags() & std::ios::unitbuf) == 0) {
            return kyNetStreamBuf::sync();
        }
        try {
            return kyNetStreamBuf::sync();
        } catch (...) {
            setBad();
            return 0; // Or the destructor would set it again, and throw.
        }
    }

private:
    void setBad()
    {
        try {
            m_stream.setstate(std::ios::badbit);
        } catch (const std::ios::failure&) {
            // It is set all the same, so the next operation throws.
        }
    }

    std::ostream& m_stream;
};

} // namespace

kyNetStdOStream::kyNetStdOStream(kyNetSerializer& serializer)
    : std::ostream(nullptr), m_buffer(std::make_unique<DiscreetStreamBuf>(&serializer, *this))
{
    rdbuf(m_buffer.get());
}

kyNetStdOStream::~kyNetStdOStream() = default;

void kyNetStdOStream::close()
{
    m_buffer->writeEOF();
}
