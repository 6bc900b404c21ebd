#include <NetBase/senders/kyNetSender.h>

#include <NetBase/links/kyNetLink.h>
#include <NetBase/senders/kyNetBalancedSender.h>
#include <NetBase/senders/kyNetBufferedSender.h>
#include <NetBase/senders/kyNetLinkSender.h>

kyNetSender::kyNetSender() = default;

kyNetSender::kyNetSender(const std::set<unsigned int>& destinations) : m_destinations(destinations)
{
}

kyNetSender::kyNetSender(const std::vector<std::shared_ptr<kyNetSender>>& children)
    : m_children(children)
{
    for (const auto& child : m_children) {
        m_destinations.insert(child->m_destinations.begin(), child->m_destinations.end());
    }
}

kyNetSender::kyNetSender(const std::shared_ptr<kyNetSender>& child)
    : kyNetSender(std::vector<std::shared_ptr<kyNetSender>>{child})
{
}

kyNetSender::kyNetSender(const std::shared_ptr<kyNetSender>& first,
                         const std::shared_ptr<kyNetSender>& second)
    : kyNetSender(std::vector<std::shared_ptr<kyNetSender>>{first, second})
{
}

kyNetSender::~kyNetSender() = default;

std::shared_ptr<kyNetSender>
// Intended: a list of its own. NOLINTNEXTLINE(performance-unnecessary-value-param)
kyNetSender::createBundle(std::vector<std::shared_ptr<kyNetLink>> links, bool buffered,
                          const std::set<unsigned int>& destinations)
{
    std::vector<std::shared_ptr<kyNetSender>> leaves;
    leaves.reserve(links.size());
    for (const auto& link : links) {
        leaves.push_back(kyNetLinkSender::create(link, destinations));
    }
    return buffered ? kyNetBufferedSender::create(leaves, -1) : kyNetBalancedSender::create(leaves);
}

void kyNetSender::getLinks(std::vector<std::shared_ptr<kyNetLink>>& links)
{
    for (const auto& child : m_children) {
        child->getLinks(links);
    }
}

std::vector<std::shared_ptr<kyNetLink>> kyNetSender::getLinks()
{
    std::vector<std::shared_ptr<kyNetLink>> links;
    getLinks(links);
    return links;
}

int kyNetSender::getNodeAffinity()
{
    for (const auto& child : m_children) {
        if (child->getNodeAffinity() >= 0) {
            return child->getNodeAffinity(); // Asked again, which is intended.
        }
    }
    return -1;
}

void kyNetSender::resetStatistics()
{
    for (const auto& child : m_children) {
        child->resetStatistics();
    }
}

std::uint64_t kyNetSender::getCompressedBytes()
{
    std::uint64_t bytes = 0;
    for (const auto& child : m_children) {
        bytes += child->getCompressedBytes();
    }
    return bytes;
}

void kyNetSender::waitAllDataTransfered()
{
    for (const auto& child : m_children) {
        child->waitAllDataTransfered();
    }
}

void kyNetSender::sendMany(const std::vector<std::shared_ptr<kyNetBuffer>>& buffers)
{
    for (const auto& buffer : buffers) {
        send(buffer);
    }
}

void kyNetSender::shutdown()
{
    for (const auto& link : getLinks()) {
        link->shutdown();
    }
}
