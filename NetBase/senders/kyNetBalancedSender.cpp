#include <NetBase/senders/kyNetBalancedSender.h>

#include <NetBase/buffers/kyNetError.h>

kyNetBalancedSender::kyNetBalancedSender(const std::vector<std::shared_ptr<kyNetSender>>& children)
    : kyNetSender(children)
{
}

std::shared_ptr<kyNetSender>
kyNetBalancedSender::create(const std::vector<std::shared_ptr<kyNetSender>>& children)
{
    if (children.size() == 1) {
        return children.front();
    }
    return std::make_shared<kyNetBalancedSender>(children);
}

void kyNetBalancedSender::send(const std::shared_ptr<kyNetBuffer>& buffer)
{
    const auto& children = getChildren();
    if (children.empty()) {
        throw kyNetError("Unable to send: balanced sender without children");
    }
    m_next = (m_next + 1) % children.size();
    children[m_next]->send(buffer);
}
