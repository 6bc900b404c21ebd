#include <apps/TALORender/SyncGroup.h>

#include <NetBase/buffers/kyNetError.h>
#include <NetBase/receivers/kyNetMultiLinkReceiver.h>
#include <NetBase/senders/kyNetLinkSender.h>
#include <NetBase/senders/kyNetMultiSender.h>
#include <apps/TALORender/RemoteServer.h>
#include <apps/common/RenderProtocol.h>

namespace render {

SyncGroup::SyncGroup(const std::vector<std::shared_ptr<RemoteServer>>& members,
                     const std::vector<std::shared_ptr<kyNetLink>>& channels)
    : m_members(members)
{
    std::vector<std::shared_ptr<kyNetSender>> senders;
    for (std::size_t i = 0; i < members.size(); ++i) {
        senders.push_back(kyNetLinkSender::create(
            channels[i], {static_cast<unsigned int>(members[i]->getRank())}));
    }
    m_stream.setRank(s_applicationRank);
    m_stream.setSender(kyNetMultiSender::create(senders));
    m_stream.setReceiver(kyNetMultiLinkReceiver::create(channels));
}

void SyncGroup::synchronise(std::int32_t frame)
{
    m_stream.resetStatistics();
    m_stream.sendSync(frame);
    if (m_stream.waitSync() != frame) {
        throw kyNetError("The servers are out of step");
    }
    // What was sent once went to each of them; their answers are equally long.
    for (const auto& member : m_members) {
        member->addTraffic(m_stream.getSentBytes(), m_stream.getRecevedBytes() / m_members.size());
    }
}

} // namespace render
