#pragma once

#include <cstddef>

#include <NetBase/senders/kyNetSender.h>

/// Spreads buffers over equivalent children, such as several links to one peer: each buffer goes
/// to the next child in turn, whatever its destination.
///
/// Buffers may overtake each other on their way. The turn is not locked.
class KY_NETBASE_EXPORT kyNetBalancedSender : public kyNetSender
{
public:
    /// Over these children; create is the usual way.
    explicit kyNetBalancedSender(const std::vector<std::shared_ptr<kyNetSender>>& children);

    /// A new balanced sender, or the child itself if there is only one.
    static std::shared_ptr<kyNetSender>
    create(const std::vector<std::shared_ptr<kyNetSender>>& children);

    /// Throws kyNetError if there are no children.
    void send(const std::shared_ptr<kyNetBuffer>& buffer) override;

private:
    std::size_t m_next = 0; ///< The child that got the last buffer.
};
