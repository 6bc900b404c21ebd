#include <apps/TALORender/SyncGroup.h>

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/receivers/kyNetMultiLinkReceiver.h>
#include <NetBase/senders/kyNetMultiSender.h>
#include <apps/TALORender/RemoteServer.h>
#include <apps/TALORender/Watchdog.h>
#include <apps/common/RenderProtocol.h>

namespace render {

/// Notes who has answered.
class SyncGroup::Attendance : public kyNetReceiver
{
public:
    explicit Attendance(const std::shared_ptr<kyNetReceiver>& child)
        : kyNetReceiver(child), m_child(child)
    {
    }

    void recv(std::shared_ptr<kyNetBuffer>& buffer) override
    {
        m_child->recv(buffer);
        m_present.insert(buffer->getSource());
    }

    void clear() { m_present.clear(); }
    bool isPresent(std::int32_t rank) const
    {
        return m_present.count(static_cast<std::uint32_t>(rank)) != 0;
    }

private:
    std::shared_ptr<kyNetReceiver> m_child;
    std::set<std::uint32_t> m_present;
};

SyncGroup::SyncGroup(const Servers& members,
                     const std::vector<std::vector<std::shared_ptr<kyNetLink>>>& channels,
                     std::shared_ptr<Watchdog> watchdog)
    : m_members(members), m_watchdog(std::move(watchdog))
{
    std::vector<std::shared_ptr<kyNetSender>> senders;
    std::vector<std::shared_ptr<kyNetLink>> links;
    for (std::size_t i = 0; i < members.size(); ++i) {
        const auto rank = static_cast<unsigned int>(members[i]->getRank());
        senders.push_back(kyNetSender::createBundle(channels[i], false, {rank}));
        links.insert(links.end(), channels[i].begin(), channels[i].end());
    }
    m_attendance = std::make_shared<Attendance>(kyNetMultiLinkReceiver::create(links));
    m_stream.setRank(s_applicationRank);
    m_stream.setSender(kyNetMultiSender::create(senders));
    m_stream.setReceiver(m_attendance);
}

SyncGroup::Servers SyncGroup::synchronise(std::int32_t frame, double limit)
{
    m_attendance->clear();
    const Watchdog::Guard guard(*m_watchdog, limit, [this] { m_stream.shutdown(); });
    try {
        m_stream.sendSync(frame);
        if (m_stream.waitSync() != frame) {
            throw kyNetError("The servers are out of step");
        }
        return {};
    } catch (const std::exception&) {
        if (!guard.hasExpired()) {
            throw;
        }
        return findAbsent();
    }
}

SyncGroup::Servers SyncGroup::findAbsent() const
{
    Servers absent;
    std::copy_if(
        m_members.begin(), m_members.end(), std::back_inserter(absent),
        [this](const auto& member) { return !m_attendance->isPresent(member->getRank()); });
    return absent;
}

} // namespace render
