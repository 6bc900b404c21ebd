#include <NetBase/receivers/kyNetForwardReceiver.h>

#include <cstdint>
#include <utility>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/senders/kyNetSender.h>

kyNetForwardReceiver::kyNetForwardReceiver(const std::shared_ptr<kyNetReceiver>& source,
                                           const std::shared_ptr<kyNetSender>& forward, int rank)
    : kyNetReceiver(source), m_source(source), m_forward(forward), m_rank(rank)
{
}

std::shared_ptr<kyNetReceiver>
kyNetForwardReceiver::create(const std::shared_ptr<kyNetReceiver>& source,
                             const std::shared_ptr<kyNetSender>& forward, int rank)
{
    return std::shared_ptr<kyNetReceiver>(new kyNetForwardReceiver(source, forward, rank));
}

void kyNetForwardReceiver::recv(std::shared_ptr<kyNetBuffer>& buffer)
{
    while (m_recvQueue.empty()) {
        relayAvailable();
    }
    buffer = std::move(m_recvQueue.front());
    m_recvQueue.pop();
}

void kyNetForwardReceiver::relayAvailable()
{
    std::queue<std::shared_ptr<kyNetBuffer>> incoming;
    m_source->recvAvailable(incoming);

    std::queue<std::shared_ptr<kyNetBuffer>> onward;
    for (; !incoming.empty(); incoming.pop()) {
        const std::shared_ptr<kyNetBuffer>& buffer = incoming.front();
        const bool isForMe = buffer->getDestination() == static_cast<std::uint32_t>(m_rank);
        if (buffer->isMulticast() || isForMe) {
            m_recvQueue.push(buffer);
        }
        const bool isForOthers = buffer->isMulticast() || !isForMe;
        if (isForOthers && buffer->getDataSize() != 0) {
            onward.push(buffer);
        }
    }

    std::shared_ptr<kyNetBuffer> bundle;
    while (kyNetBuffer::tryBundle(onward, bundle)) {
        m_forward->send(bundle);
    }
}
