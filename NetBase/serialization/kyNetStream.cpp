#include <NetBase/serialization/kyNetStream.h>

#include <set>
#include <vector>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetBufferPool.h>
#include <NetBase/receivers/kyNetLinkReceiver.h>
#include <NetBase/senders/kyNetLinkSender.h>
#include <NetBase/serialization/kyNetMessage.h>

namespace {

constexpr int s_masterRank = 1;
constexpr int s_allRanks = 0;

/// The part of a chain that a call needs. A stream that has lost it is as good as closed.
template <class Chain> Chain& require(const std::shared_ptr<Chain>& chain)
{
    if (!chain) {
        throw kyConnectionClosed();
    }
    return *chain;
}

std::int32_t getInteger(kyNetMessage& message)
{
    std::int32_t value = 0;
    message.getValue(value);
    return value;
}

} // namespace

kyNetStream::kyNetStream() : kyNetSerializer(kyNetOptions::getStreamBufferSize()) {}

kyNetStream::kyNetStream(const std::shared_ptr<kyNetLink>& link) : kyNetStream()
{
    if (link) {
        m_sender = kyNetLinkSender::create(link);
        m_receiver = kyNetLinkReceiver::create(link);
    }
}

kyNetStream::~kyNetStream() = default;

void kyNetStream::setSender(const std::shared_ptr<kyNetSender>& sender)
{
    m_sender = sender;
    clearSendBuffer();
}

void kyNetStream::setReceiver(const std::shared_ptr<kyNetReceiver>& receiver)
{
    m_receiver = receiver;
    clearRecvBuffer();
}

int kyNetStream::getDestinationCount() const
{
    return m_sender ? static_cast<int>(m_sender->getDestinations().size()) : 0;
}

std::shared_ptr<kyNetLink> kyNetStream::getFirstLink() const
{
    const std::vector<std::shared_ptr<kyNetLink>> links = require(m_sender).getLinks();
    if (links.empty()) {
        throw kyConnectionClosed();
    }
    return links.front();
}

void kyNetStream::sendMessage(kyNetMessage& message, int destination, kyNetBufferSendMode mode)
{
    const std::shared_ptr<kyNetBuffer> buffer = message.takeSendBuffer();
    if (!buffer) {
        throw kyNetError("Unable to send a message without content");
    }
    buffer->setDestination(static_cast<std::uint32_t>(destination));
    buffer->setSendMode(mode);
    sendBuffer(buffer);
}

void kyNetStream::recvMessage(kyNetMessage& message)
{
    const std::shared_ptr<kyNetBuffer> buffer = recvAnyBuffer();
    if (buffer->getType() != message.getMessageType()) {
        throw kyNetError("Stream out of sync. Wrong message type");
    }
    message.setRecvBuffer(buffer);
    m_receivedBytes += buffer->getBufferSize();
}

void kyNetStream::sendSync(int value)
{
    kyNetMessage message;
    message.putValue(static_cast<std::int32_t>(value));
    sendMessage(message, m_rank == s_masterRank ? s_allRanks : s_masterRank,
                kyNetBufferSendMode::Automatic);
}

int kyNetStream::waitSync()
{
    kyNetMessage message;
    if (m_rank != s_masterRank) {
        recvMessage(message);
        return getInteger(message);
    }
    if (getDestinationCount() == 0) {
        return 0;
    }
    std::set<unsigned int> sources;
    while (sources.size() < static_cast<std::size_t>(getDestinationCount())) {
        recvMessage(message);
        if (!sources.insert(message.getSource()).second) {
            throw kyNetError("Synchronisation error: multiple responses from " +
                             std::to_string(message.getSource()));
        }
    }
    return getInteger(message);
}

kyNetStream& kyNetStream::sendSuccess()
{
    putValue(true);
    return *this;
}

kyNetStream& kyNetStream::sendException(const std::exception& exception)
{
    putValue(false);
    putValue(exception.what());
    return *this;
}

kyNetStream& kyNetStream::recvResult()
{
    bool success = false;
    getValue(success);
    if (!success) {
        std::string text;
        getValue(text);
        throw kyNetError(text);
    }
    return *this;
}

void kyNetStream::flush()
{
    flushSendBuffer();
}

kyNetSerializer& kyNetStream::flush(kyNetSerializer& stream)
{
    auto* self = dynamic_cast<kyNetStream*>(&stream);
    if (self == nullptr) {
        throw kyNetError("Unable to flush this type of stream");
    }
    self->flush();
    return stream;
}

std::uint64_t kyNetStream::getCompressedBytes() const
{
    return m_sender ? m_sender->getCompressedBytes() : 0;
}

void kyNetStream::resetStatistics()
{
    m_sentBytes = 0;
    m_receivedBytes = 0;
    if (m_sender) {
        m_sender->resetStatistics();
    }
}

void kyNetStream::waitAllDataTransfered()
{
    if (m_sender) {
        m_sender->waitAllDataTransfered();
    }
}

void kyNetStream::recvAll()
{
    kyNetReceiver& receiver = require(m_receiver);
    std::shared_ptr<kyNetBuffer> buffer = kyNetBufferPool::pop();
    for (;;) {
        receiver.recv(buffer);
    }
}

void kyNetStream::shutdown()
{
    if (m_sender) {
        m_sender->shutdown();
    }
    if (m_receiver) {
        m_receiver->shutdown();
    }
}

bool kyNetStream::isReadable()
{
    return kyNetSerializer::isReadable() || (m_receiver && m_receiver->isReadable());
}

std::string kyNetStream::getLinkName() const
{
    return require(m_receiver).getLinkName();
}

void kyNetStream::recvBuffer(std::shared_ptr<kyNetBuffer>& buffer)
{
    std::shared_ptr<kyNetBuffer> received = recvAnyBuffer();
    if (received->getType() != kyNetMessageType::StreamData) {
        throw kyNetError("Stream out of sync. Stream expected at " + std::to_string(m_rank) +
                         " from " + std::to_string(received->getSource()) + " to " +
                         std::to_string(received->getDestination()));
    }
    m_receivedBytes += received->getBufferSize();
    buffer = std::move(received);
}

void kyNetStream::sendBuffer(const std::shared_ptr<kyNetBuffer>& buffer)
{
    kyNetSender& sender = require(m_sender);
    const auto rank = static_cast<std::uint32_t>(m_rank);
    buffer->setSource(rank);
    buffer->setSequence(static_cast<int>(m_sequence & 0xffff));
    if (buffer->isMulticast()) {
        ++m_sequence;
    }
    const std::uint64_t size = buffer->getBufferSize(); // A sender may encode it in place.
    if (!buffer->isMulticast() && buffer->getDestination() == rank) {
        require(m_receiver).addToRecvQueue(buffer);
    } else {
        sender.send(buffer);
    }
    m_sentBytes += size;
}

std::shared_ptr<kyNetBuffer> kyNetStream::recvAnyBuffer()
{
    std::shared_ptr<kyNetBuffer> buffer;
    require(m_receiver).recv(buffer);
    return buffer;
}
