#pragma once

#include <mutex>

#include <NetBase/senders/kyNetSender.h>

/// Lets any number of threads send through one chain, one after the other.
///
/// The lock is held for the whole of the child's send, which may block: all other threads wait as
/// long. It is not recursive: a child that sends back into it on the same thread deadlocks.
class KY_NETBASE_EXPORT kyNetLockedSender : public kyNetSender
{
public:
    static std::shared_ptr<kyNetSender> create(const std::shared_ptr<kyNetSender>& child);

    void send(const std::shared_ptr<kyNetBuffer>& buffer) override;

private:
    explicit kyNetLockedSender(const std::shared_ptr<kyNetSender>& child);

    std::shared_ptr<kyNetSender> m_child;
    std::mutex m_mutex;
};
