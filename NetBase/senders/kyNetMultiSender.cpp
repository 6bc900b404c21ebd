#include <NetBase/senders/kyNetMultiSender.h>

#include <NetBase/buffers/kyNetBuffer.h>

kyNetMultiSender::kyNetMultiSender(const std::vector<std::shared_ptr<kyNetSender>>& children)
    : kyNetSender(children)
{
}

std::shared_ptr<kyNetSender>
kyNetMultiSender::create(const std::vector<std::shared_ptr<kyNetSender>>& children)
{
    if (children.size() == 1) {
        return children.front();
    }
    return std::make_shared<kyNetMultiSender>(children);
}

void kyNetMultiSender::send(const std::shared_ptr<kyNetBuffer>& buffer)
{
    if (buffer->isMulticast()) {
        sendToAll(buffer);
    } else if (hasDestination(buffer->getDestination())) {
        sendToOne(buffer);
    }
}

void kyNetMultiSender::sendToOne(const std::shared_ptr<kyNetBuffer>& buffer)
{
    // One turn is enough: a rank that was removed from every child, but not here, has no child.
    const auto& children = getChildren();
    for (std::size_t tried = 0; tried < children.size(); ++tried) {
        m_next = (m_next + 1) % children.size();
        if (children[m_next]->hasDestination(buffer->getDestination())) {
            children[m_next]->send(buffer);
            return;
        }
    }
}

void kyNetMultiSender::sendToAll(const std::shared_ptr<kyNetBuffer>& buffer)
{
    for (const auto& child : getChildren()) {
        if (!child->hasDestination(buffer->getSource())) {
            child->send(buffer);
        }
    }
}
