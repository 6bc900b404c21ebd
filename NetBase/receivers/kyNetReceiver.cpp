#include <NetBase/receivers/kyNetReceiver.h>

#include <NetBase/buffers/kyNetError.h>
#include <NetBase/links/kyNetLink.h>

kyNetReceiver::kyNetReceiver() = default;

kyNetReceiver::kyNetReceiver(const std::shared_ptr<kyNetReceiver>& child) : m_children{child} {}

kyNetReceiver::kyNetReceiver(const std::vector<std::shared_ptr<kyNetReceiver>>& children)
    : m_children(children)
{
}

kyNetReceiver::~kyNetReceiver() = default;

int kyNetReceiver::getNodeAffinity()
{
    for (const auto& child : m_children) {
        if (child->getNodeAffinity() >= 0) {
            return child->getNodeAffinity(); // Asked again, which is intended.
        }
    }
    return -1;
}

void kyNetReceiver::getLinks(std::vector<std::shared_ptr<kyNetLink>>& links)
{
    for (const auto& child : m_children) {
        child->getLinks(links);
    }
}

std::vector<std::shared_ptr<kyNetLink>> kyNetReceiver::getLinks()
{
    std::vector<std::shared_ptr<kyNetLink>> links;
    getLinks(links);
    return links;
}

void kyNetReceiver::recvAvailable(std::queue<std::shared_ptr<kyNetBuffer>>& queue)
{
    std::shared_ptr<kyNetBuffer> buffer;
    recv(buffer);
    queue.push(std::move(buffer));
}

void kyNetReceiver::addToRecvQueue(const std::shared_ptr<kyNetBuffer>&)
{
    throw kyNetError("Adding buffer to queue not supported by this receiver");
}

bool kyNetReceiver::isReadable()
{
    return true;
}

std::string kyNetReceiver::getLinkName()
{
    return "unknown";
}

void kyNetReceiver::shutdown()
{
    for (const auto& link : getLinks()) {
        link->shutdown();
    }
}
