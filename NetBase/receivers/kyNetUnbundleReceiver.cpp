#include <NetBase/receivers/kyNetUnbundleReceiver.h>

#include <utility>

#include <NetBase/buffers/kyNetBuffer.h>

kyNetUnbundleReceiver::kyNetUnbundleReceiver(const std::shared_ptr<kyNetReceiver>& source)
    : kyNetReceiver(source), m_source(source)
{
}

std::shared_ptr<kyNetReceiver>
kyNetUnbundleReceiver::create(const std::shared_ptr<kyNetReceiver>& source)
{
    return std::make_shared<kyNetUnbundleReceiver>(source);
}

void kyNetUnbundleReceiver::recv(std::shared_ptr<kyNetBuffer>& buffer)
{
    while (m_recvQueue.empty()) { // More than once after a bundle without entries.
        m_source->recv(buffer);
        if (buffer->getType() != kyNetMessageType::Bundle) {
            return;
        }
        buffer->split(m_recvQueue);
    }
    buffer = std::move(m_recvQueue.front());
    m_recvQueue.pop();
}
