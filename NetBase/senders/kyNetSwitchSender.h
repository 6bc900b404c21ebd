#pragma once

#include <cstdint>

#include <NetBase/senders/kyNetSender.h>

/// Keeps two kinds of traffic apart, such as bulk data and small messages that must not wait for
/// it: each buffer takes the child that its send mode names, and in Automatic mode the first
/// child if it has more data than the threshold, else the second.
class KY_NETBASE_EXPORT kyNetSwitchSender : public kyNetSender
{
public:
    /// Over these two; `threshold` is in bytes of data.
    kyNetSwitchSender(const std::shared_ptr<kyNetSender>& first,
                      const std::shared_ptr<kyNetSender>& second, std::uint64_t threshold);

    static std::shared_ptr<kyNetSender> create(const std::shared_ptr<kyNetSender>& first,
                                               const std::shared_ptr<kyNetSender>& second,
                                               std::uint64_t threshold);

    void send(const std::shared_ptr<kyNetBuffer>& buffer) override;

private:
    bool takesFirst(const kyNetBuffer& buffer) const;

    std::shared_ptr<kyNetSender> m_first;
    std::shared_ptr<kyNetSender> m_second;
    std::uint64_t m_threshold;
};
