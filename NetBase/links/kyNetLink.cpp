#include <NetBase/links/kyNetLink.h>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetBufferPool.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/links/kyNetCipherBase.h>

namespace {

/// The first header field, the data size, travels in clear: the receiving link needs it to know
/// how much there is to decrypt.
constexpr std::uint64_t s_clearSize = sizeof(std::uint32_t);

std::uint8_t* getEncrypted(kyNetBuffer& buffer)
{
    return reinterpret_cast<std::uint8_t*>(buffer.getBuffer()) + s_clearSize;
}

std::uint64_t getEncryptedSize(const kyNetBuffer& buffer)
{
    return buffer.getBufferSize() - s_clearSize;
}

} // namespace

void kyNetLink::recvAvailable(std::queue<std::shared_ptr<kyNetBuffer>>& queue)
{
    std::shared_ptr<kyNetBuffer> buffer;
    recv(buffer);
    queue.push(std::move(buffer));
}

void kyNetLink::setRecvTimeout(double)
{
    throw kyNetError("Unable to set recv timeout");
}

std::string kyNetLink::getLinkName()
{
    return "unknown";
}

bool kyNetLink::pinRecvHandle(std::uint32_t& handle)
{
    handle = getRecvHandle();
    return true;
}

void kyNetLink::unpinRecvHandle() {}

void kyNetLink::sendMany(const std::vector<std::shared_ptr<kyNetBuffer>>& buffers)
{
    for (const auto& buffer : buffers) {
        send(buffer);
    }
}

std::shared_ptr<kyNetBuffer> kyNetLink::encryptBuffer(const std::shared_ptr<kyNetBuffer>& buffer)
{
    if (!m_cipher) {
        return buffer;
    }
    std::shared_ptr<kyNetBuffer> encrypted = kyNetBufferPool::pop();
    encrypted->copyHeaderFrom(*buffer);
    encrypted->setSendMode(kyNetBufferSendMode::Automatic); // It had the one of its last use.
    m_cipher->encrypt(getEncrypted(*encrypted), getEncrypted(*buffer), getEncryptedSize(*buffer));
    return encrypted;
}

void kyNetLink::decryptBuffer(std::shared_ptr<kyNetBuffer>& buffer)
{
    if (m_cipher) {
        std::uint8_t* bytes = getEncrypted(*buffer);
        m_cipher->decrypt(bytes, bytes, getEncryptedSize(*buffer));
    }
}
