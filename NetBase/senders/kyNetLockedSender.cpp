#include <NetBase/senders/kyNetLockedSender.h>

kyNetLockedSender::kyNetLockedSender(const std::shared_ptr<kyNetSender>& child)
    : kyNetSender(child), m_child(child)
{
}

std::shared_ptr<kyNetSender> kyNetLockedSender::create(const std::shared_ptr<kyNetSender>& child)
{
    return std::shared_ptr<kyNetSender>(new kyNetLockedSender(child));
}

void kyNetLockedSender::send(const std::shared_ptr<kyNetBuffer>& buffer)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_child->send(buffer);
}
