// Receives buffers from a peer that sends any bytes and closes. The first byte says whether the
// link has a cipher, the others travel. Every whole buffer is delivered as it came, a size above
// the capacity is refused, and a buffer that is cut off ends the link.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/links/kyBoundSocketLink.h>
#include <NetBase/links/kyNetCipherBase.h>
#include <NetBase/links/kySocketLink.h>
#include <NetBase/platform/kySockets.h>
#include <fuzz/kyFuzz.h>

namespace {

using kyFuzz::require;

/// Fits into what the system keeps of a connection that nobody reads yet.
constexpr std::size_t s_longest = 150000;
constexpr std::size_t s_headerSize = 20;
constexpr std::size_t s_clearSize = 4;

class XorCipher final : public kyNetCipherBase
{
public:
    void encrypt(std::uint8_t* out, const std::uint8_t* in, std::uint64_t length) override
    {
        std::transform(in, in + length, out,
                       [](std::uint8_t byte) { return static_cast<std::uint8_t>(byte ^ 0x5a); });
    }
    void decrypt(std::uint8_t* out, const std::uint8_t* in, std::uint64_t length) override
    {
        encrypt(out, in, length);
    }
};

/// A link that vanishes when it is closed, so that a million runs leave no ports waiting.
class AbruptLink : public kySocketLink
{
public:
    template <class... Arguments>
    explicit AbruptLink(Arguments&&... arguments)
        : kySocketLink(std::forward<Arguments>(arguments)...)
    {
        setLinger(true, 0);
    }
};

/// What the link has to make of the bytes: the next buffer, or how it ends.
class Model
{
public:
    Model(std::string bytes, bool isCiphered) : m_bytes(std::move(bytes)), m_isCiphered(isCiphered)
    {
    }

    bool hasHeader() const { return m_bytes.size() >= s_headerSize; }
    bool isTooLong() const { return hasHeader() && getSize() > kyNetBuffer::getCapacity(); }
    bool hasBuffer() const { return hasHeader() && m_bytes.size() - s_headerSize >= getSize(); }

    std::string takeBuffer()
    {
        const std::size_t length = s_headerSize + getSize();
        std::string buffer = m_bytes.substr(0, length);
        m_bytes.erase(0, length);
        if (m_isCiphered) {
            auto* bytes = reinterpret_cast<std::uint8_t*>(buffer.data()) + s_clearSize;
            XorCipher().decrypt(bytes, bytes, length - s_clearSize);
        }
        return buffer;
    }

private:
    std::uint32_t getSize() const
    {
        std::uint32_t size = 0;
        std::memcpy(&size, m_bytes.data(), sizeof(size));
        return size;
    }

    std::string m_bytes;
    bool m_isCiphered;
};

std::string bytesOf(const kyNetBuffer& buffer)
{
    return {reinterpret_cast<const char*>(buffer.getBuffer()),
            static_cast<std::size_t>(buffer.getBufferSize())};
}

void requireRefusal(kySocketLink& link)
{
    std::shared_ptr<kyNetBuffer> buffer;
    try {
        link.recv(buffer);
        require(false, "a buffer that is too long was taken");
    } catch (const kyNetError& error) {
        require(std::string(error.what()) ==
                    "Received invalid buffer size. Possibly stream is out of sync.",
                "refused with another text");
        require(buffer && buffer->getDataSize() == 0, "the claimed size was left behind");
    }
}

void requireEnd(kySocketLink& link)
{
    std::shared_ptr<kyNetBuffer> buffer;
    try {
        link.recv(buffer);
        require(false, "a buffer was received that was never sent");
    } catch (const kyConnectionClosed&) {
        require(buffer && buffer->getDataSize() == 0, "the claimed size was left behind");
        require(link.getDescriptor() == s_invalidSocketHandle, "the link is still open");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0 || size > s_longest) {
        return 0;
    }
    const bool isCiphered = (data[0] & 1) != 0;
    const std::string bytes(data + 1, data + size);

    kyBoundSocketLink listening(0);
    AbruptLink peer(kySocketAddress("127.0.0.1", listening.getAddress().getPort()), 10.0);
    AbruptLink link(listening);
    if (isCiphered) {
        link.setCipher(std::make_shared<XorCipher>());
    }
    peer.send(bytes.data(), bytes.size());
    kySockets::shutdownBoth(peer.getDescriptor());

    Model model(bytes, isCiphered);
    while (!model.isTooLong() && model.hasBuffer()) {
        std::shared_ptr<kyNetBuffer> buffer;
        link.recv(buffer);
        require(bytesOf(*buffer) == model.takeBuffer(), "other bytes were received than sent");
    }
    if (model.isTooLong()) {
        requireRefusal(link);
    } else {
        requireEnd(link);
    }
    return 0;
}
