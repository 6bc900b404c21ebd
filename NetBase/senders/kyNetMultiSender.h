#pragma once

#include <cstddef>

#include <NetBase/senders/kyNetSender.h>

/// Routes each buffer to where its destination is.
///
/// A buffer for one rank goes to one of the children that reach it, to each of them in turn; one
/// for a rank that is not reached is dropped silently. A buffer for all ranks goes to every
/// child except those that reach its source, so it never returns to where it came from.
///
/// The turn is shared by all destinations and not locked.
class KY_NETBASE_EXPORT kyNetMultiSender : public kyNetSender
{
public:
    /// Over these children; create is the usual way.
    explicit kyNetMultiSender(const std::vector<std::shared_ptr<kyNetSender>>& children);

    /// A new multi sender, or the child itself if there is only one.
    static std::shared_ptr<kyNetSender>
    create(const std::vector<std::shared_ptr<kyNetSender>>& children);

    void send(const std::shared_ptr<kyNetBuffer>& buffer) override;

private:
    void sendToOne(const std::shared_ptr<kyNetBuffer>& buffer);
    void sendToAll(const std::shared_ptr<kyNetBuffer>& buffer);

    std::size_t m_next = 0;
};
