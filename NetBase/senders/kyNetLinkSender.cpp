#include <NetBase/senders/kyNetLinkSender.h>

#include <NetBase/links/kyNetLink.h>

kyNetLinkSender::kyNetLinkSender(const std::shared_ptr<kyNetLink>& link,
                                 const std::set<unsigned int>& destinations)
    : kyNetSender(destinations), m_link(link)
{
}

std::shared_ptr<kyNetSender> kyNetLinkSender::create(const std::shared_ptr<kyNetLink>& link,
                                                     const std::set<unsigned int>& destinations)
{
    return std::make_shared<kyNetLinkSender>(link, destinations);
}

std::shared_ptr<kyNetSender> kyNetLinkSender::create(const std::shared_ptr<kyNetLink>& link)
{
    return create(link, {});
}

int kyNetLinkSender::getNodeAffinity()
{
    return m_link->getNodeAffinity();
}

void kyNetLinkSender::send(const std::shared_ptr<kyNetBuffer>& buffer)
{
    m_link->send(buffer);
}

void kyNetLinkSender::sendMany(const std::vector<std::shared_ptr<kyNetBuffer>>& buffers)
{
    m_link->sendMany(buffers);
}

void kyNetLinkSender::getLinks(std::vector<std::shared_ptr<kyNetLink>>& links)
{
    links.push_back(m_link);
}
