#include <apps/TALOClusterServer/ImageChannels.h>

#include <NetBase/buffers/kyNetError.h>
#include <NetBase/links/kyNetLink.h>
#include <NetBase/senders/kyNetBalancedSender.h>
#include <NetBase/senders/kyNetLinkSender.h>

namespace render {

void ImageChannels::add(const std::shared_ptr<kyNetLink>& link, std::int32_t rank, int limit)
{
    const std::scoped_lock guard(m_sendLock, m_linksLock);
    if (m_links.size() >= static_cast<std::size_t>(limit)) {
        throw kyNetError("There are " + std::to_string(limit) + " image channels already");
    }
    m_links.push_back(link);
    std::vector<std::shared_ptr<kyNetSender>> senders;
    for (const auto& each : m_links) {
        senders.push_back(kyNetLinkSender::create(each, {s_applicationRank}));
    }
    m_stream.setRank(rank);
    m_stream.setSender(kyNetBalancedSender::create(senders));
}

void ImageChannels::send(TileMessage& message)
{
    const std::lock_guard<std::mutex> guard(m_sendLock);
    m_stream.sendMessage(message, s_applicationRank, kyNetBufferSendMode::Automatic);
}

void ImageChannels::close()
{
    const std::lock_guard<std::mutex> guard(m_linksLock);
    for (const auto& link : m_links) {
        link->shutdown();
    }
}

} // namespace render
