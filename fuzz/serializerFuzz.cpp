// Reads any bytes as values and records. What is read does not depend on where the buffers ended,
// never grows beyond what has come, and is the same after it was written and read again.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetInterfaceOptions.h>
#include <NetBase/serialization/kyNetSerializer.h>
#include <NetBase/service/kyNetServiceStatus.h>
#include <fuzz/kyFuzz.h>

namespace {

using kyFuzz::require;

/// A buffer whose block ends with its data, so that the sanitizer sees every read behind it.
std::shared_ptr<kyNetBuffer> makeBuffer(const std::string& data)
{
    auto* header = static_cast<kyNetHeader*>(std::malloc(sizeof(kyNetHeader) + data.size()));
    require(header != nullptr, "out of memory");
    *header = {};
    header->dataSize = static_cast<std::uint32_t>(data.size());
    char* begin = reinterpret_cast<char*>(header) + sizeof(kyNetHeader);
    std::memcpy(begin, data.data(), data.size());
    return std::make_shared<kyNetBuffer>(header, begin);
}

/// Reads a text of bytes in pieces of one size, then the connection is closed; keeps what is
/// written.
class Pieces : public kyNetSerializer
{
public:
    Pieces(const std::string& data, std::size_t pieceSize)
        : kyNetSerializer(static_cast<int>(pieceSize)), m_unread(data), m_pieceSize(pieceSize)
    {
    }

    std::string getWritten()
    {
        flushSendBuffer();
        return m_written;
    }

protected:
    void recvBuffer(std::shared_ptr<kyNetBuffer>& buffer) override
    {
        if (m_unread.empty()) {
            throw kyConnectionClosed();
        }
        buffer = makeBuffer(m_unread.substr(0, m_pieceSize));
        m_unread.erase(0, m_pieceSize);
    }
    void sendBuffer(const std::shared_ptr<kyNetBuffer>& buffer) override
    {
        m_written.append(buffer->getData(), buffer->getDataSize());
    }

private:
    std::string m_unread;
    std::string m_written;
    std::size_t m_pieceSize;
};

/// Reads one value and writes it again.
template <class T> void copy(Pieces& pieces)
{
    T value{};
    pieces >> value;
    pieces << value;
}

void copyText(Pieces& pieces, std::size_t available)
{
    std::string text;
    pieces >> text;
    require(text.size() <= available, "a text longer than all that has come");
    pieces << text;
}

/// Reads values as the bytes before each of them say, until they are at an end; answers all that
/// was read, written again.
std::string copyAll(const std::string& data, std::size_t pieceSize)
{
    Pieces pieces(data, pieceSize);
    try {
        for (;;) {
            std::uint8_t kind = 0;
            pieces >> kind;
            kind = static_cast<std::uint8_t>(kind % 8);
            pieces << kind;
            switch (kind) {
            case 0:
                copy<bool>(pieces);
                break;
            case 1:
                copy<std::int16_t>(pieces);
                break;
            case 2:
                copy<std::int32_t>(pieces);
                break;
            case 3:
                copy<std::uint64_t>(pieces);
                break;
            case 4:
                pieces.putValueSize(pieces.getValueSize());
                break;
            case 5:
                copyText(pieces, data.size());
                break;
            case 6:
                copy<kyNetInterfaceOptions>(pieces);
                break;
            default:
                copy<kyNetServiceStatus>(pieces);
                break;
            }
        }
    } catch (const kyConnectionClosed&) {
        return pieces.getWritten();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    constexpr std::size_t s_longest = 65536;
    if (size == 0 || size > s_longest) {
        return 0;
    }
    const std::size_t pieceSize = 1 + data[0];
    const std::string values(data + 1, data + size);

    const std::string whole = copyAll(values, s_longest);
    require(copyAll(values, pieceSize) == whole, "another value where a buffer ended");

    // A text is written up to its first zero byte, so two keys of a record may become one.
    const std::string again = copyAll(whole, pieceSize);
    require(again.size() <= whole.size(), "more than was written before");
    require(copyAll(again, pieceSize) == again, "another value when read again");
    return 0;
}
