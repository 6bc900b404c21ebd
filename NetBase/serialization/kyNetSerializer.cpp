#include <NetBase/serialization/kyNetSerializer.h>

#include <algorithm>
#include <limits>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetBufferPool.h>
#include <NetBase/buffers/kyNetError.h>

namespace {

[[noreturn]] void refuseReference(std::uint64_t size, std::uint64_t accessible)
{
    throw kyNetError("Unable to get " + std::to_string(size) +
                     " bytes in buffer. Max accessible bytes " + std::to_string(accessible));
}

} // namespace

kyNetSerializer::kyNetSerializer(int sendThreshold)
{
    setSendThreshold(sendThreshold);
}

kyNetSerializer::kyNetSerializer(kyNetSerializer&& other) noexcept
    : m_recv(std::exchange(other.m_recv, {})),
      m_send(std::exchange(other.m_send, {})),
      m_sendThreshold(other.m_sendThreshold)
{
}

kyNetSerializer& kyNetSerializer::operator=(kyNetSerializer&& other) noexcept
{
    // By way of temporaries, so that assigning an object to itself changes nothing.
    Area recv = std::exchange(other.m_recv, {});
    Area send = std::exchange(other.m_send, {});
    m_recv = std::move(recv);
    m_send = std::move(send);
    m_sendThreshold = other.m_sendThreshold;
    return *this;
}

void kyNetSerializer::setSendThreshold(int sendThreshold)
{
    m_sendThreshold = std::clamp(sendThreshold, 0, kyNetOptions::getBufferSize());
}

void kyNetSerializer::putBytes(const void* source, std::uint64_t size)
{
    const char* bytes = static_cast<const char*>(source);
    while (size > 0) {
        if (!m_send.buffer) {
            setEmptySendBuffer();
        }
        const std::uint64_t count = std::min(size, m_send.getSize());
        m_send.position = std::copy_n(bytes, count, m_send.position);
        bytes += count;
        size -= count;
        if (size == 0) {
            return;
        }
        if (m_sendThreshold == 0) {
            throw kyNetError("Send buffer size exceeded");
        }
        finishSendBuffer();
    }
}

void kyNetSerializer::getBytes(void* target, std::uint64_t size)
{
    char* bytes = static_cast<char*>(target);
    for (;;) {
        const std::uint64_t count = std::min(size, m_recv.getSize());
        bytes = std::copy_n(m_recv.position, count, bytes);
        m_recv.position += count;
        size -= count;
        if (m_recv.getSize() == 0) {
            clearRecvBuffer();
        }
        if (size == 0) {
            return;
        }
        fetchRecvBuffer();
    }
}

void kyNetSerializer::putSplitText(const char* text, std::uint64_t size)
{
    if (size > std::numeric_limits<std::uint32_t>::max()) {
        throw kyNetError("Unable to send a text of " + std::to_string(size - 1) + " bytes");
    }
    putValue(static_cast<std::uint32_t>(size));
    putBytes(text, size);
}

void kyNetSerializer::getValue(bool& value)
{
    std::uint8_t byte = 0;
    getValue(byte);
    value = byte != 0;
}

void kyNetSerializer::getSplitText(std::string& text)
{
    std::uint32_t left = 0;
    getValue(left);
    text.clear();
    // Straight out of the buffers: a text is never larger than what has arrived of it, so that a
    // length alone costs nothing.
    while (left > 1) {
        if (m_recv.getSize() == 0) {
            fetchRecvBuffer();
        }
        const auto count =
            static_cast<std::uint32_t>(std::min<std::uint64_t>(left - 1, m_recv.getSize()));
        text.append(m_recv.position, count);
        m_recv.position += count;
        left -= count;
    }
    if (left == 1) {
        char zero; // Not checked.
        getBytes(&zero, 1);
    }
}

void kyNetSerializer::putValueSize(const std::uint64_t& size)
{
    putValue(size);
}

void kyNetSerializer::getValueSize(std::uint64_t& size)
{
    getValue(size);
}

std::uint64_t kyNetSerializer::getValueSize()
{
    std::uint64_t size = 0;
    getValue(size);
    return size;
}

void* kyNetSerializer::getOutputReference(std::uint64_t size)
{
    if (!m_send.buffer) {
        setEmptySendBuffer();
    }
    if (size > m_send.getSize()) {
        refuseReference(size, m_send.getSize());
    }
    return std::exchange(m_send.position, m_send.position + size);
}

void* kyNetSerializer::getInputReference(std::uint64_t size)
{
    // Intended: what counts is what was there before the next buffer came, so that asking at the
    // very end of a buffer fails once.
    const std::uint64_t available = m_recv.getSize();
    if (size != 0 && available == 0) {
        fetchRecvBuffer();
    }
    if (size > available) {
        refuseReference(size, m_recv.getSize());
    }
    return std::exchange(m_recv.position, m_recv.position + size);
}

std::shared_ptr<kyNetBuffer> kyNetSerializer::takeSendBuffer()
{
    if (m_send.buffer) {
        setFinishedSize();
    }
    return std::exchange(m_send, {}).buffer;
}

void kyNetSerializer::clearSendBuffer()
{
    m_send = {};
}

void kyNetSerializer::clearRecvBuffer()
{
    m_recv = {};
}

void kyNetSerializer::setRecvBuffer(const std::shared_ptr<kyNetBuffer>& buffer)
{
    m_recv.buffer = buffer;
    resetRecvPosition();
}

kyNetMessageType kyNetSerializer::getMessageType()
{
    return kyNetMessageType::StreamData;
}

unsigned int kyNetSerializer::getSource() const
{
    return m_recv.buffer ? m_recv.buffer->getSource() : 0;
}

kyNetMessageType kyNetSerializer::getType() const
{
    return m_recv.buffer ? m_recv.buffer->getType() : kyNetMessageType::StreamData;
}

std::uint64_t kyNetSerializer::getDataSize() const
{
    return m_recv.buffer ? m_recv.buffer->getDataSize() : 0;
}

bool kyNetSerializer::isReadable()
{
    return m_recv.getSize() > 0;
}

void kyNetSerializer::flushSendBuffer()
{
    if (m_send.buffer) {
        finishSendBuffer();
    }
}

void kyNetSerializer::setEmptySendBuffer()
{
    m_send.buffer = kyNetBufferPool::pop();
    kyNetBuffer& buffer = *m_send.buffer;
    buffer.setDestination(0);
    buffer.setSendMode(kyNetBufferSendMode::Automatic);
    buffer.setType(getMessageType());
    buffer.setCompression(kyNetCompression::None, 0);
    m_send.position = buffer.getData();
    m_send.end = m_send.position + (m_sendThreshold != 0
                                        ? m_sendThreshold
                                        : static_cast<std::int64_t>(kyNetBuffer::getCapacity()));
}

void kyNetSerializer::finishSendBuffer()
{
    setFinishedSize();
    m_send.buffer->setSource(0);
    m_send.buffer->setSequence(0);
    sendBuffer(m_send.buffer);
    clearSendBuffer();
}

void kyNetSerializer::setFinishedSize()
{
    kyNetBuffer& buffer = *m_send.buffer;
    buffer.setDataSize(static_cast<std::uint64_t>(m_send.position - buffer.getData()));
    buffer.setCompression(kyNetCompression::None, buffer.getDataSize());
}

void kyNetSerializer::fetchRecvBuffer()
{
    clearRecvBuffer();
    recvBuffer(m_recv.buffer);
    resetRecvPosition();
}

void kyNetSerializer::resetRecvPosition()
{
    const std::shared_ptr<kyNetBuffer>& buffer = m_recv.buffer;
    m_recv.position = buffer ? buffer->getData() : nullptr;
    m_recv.end = buffer ? m_recv.position + buffer->getDataSize() : nullptr;
}
