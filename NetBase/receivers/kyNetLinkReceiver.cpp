#include <NetBase/receivers/kyNetLinkReceiver.h>

#include <NetBase/links/kyNetLink.h>

kyNetLinkReceiver::kyNetLinkReceiver(const std::shared_ptr<kyNetLink>& link) : m_link(link) {}

std::shared_ptr<kyNetReceiver> kyNetLinkReceiver::create(const std::shared_ptr<kyNetLink>& link)
{
    return std::make_shared<kyNetLinkReceiver>(link);
}

int kyNetLinkReceiver::getNodeAffinity()
{
    return m_link->getNodeAffinity();
}

void kyNetLinkReceiver::recv(std::shared_ptr<kyNetBuffer>& buffer)
{
    m_link->recv(buffer);
}

std::string kyNetLinkReceiver::getLinkName()
{
    return m_link->getLinkName();
}

void kyNetLinkReceiver::getLinks(std::vector<std::shared_ptr<kyNetLink>>& links)
{
    links.push_back(m_link);
}
