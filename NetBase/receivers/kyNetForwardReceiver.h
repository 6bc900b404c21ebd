#pragma once

#include <queue>

#include <NetBase/receivers/kyNetReceiver.h>

class kyNetSender;

/// Makes a node a relay of a distribution tree: keeps what is meant for this node and sends
/// everything else on.
///
///     stream.setReceiver(kyNetForwardReceiver::create(fromTheRoot, toTheLeaves, 2));
///
/// What is relayed is packed into bundles again. Empty buffers are not relayed, since they would
/// end a sending thread of the next relay.
///
/// Limits: relays only inside recv, so a node that stops receiving stops relaying. One rank at
/// most multicasts in a tree, since a bundle carries the source of its first message.
///
/// Ownership: shares source and sender; copies share them too and have their own queue of the same
/// buffers.
///
/// Threads: sends on the thread that receives. If others send through the same sender, let it be a
/// kyNetLockedSender or a kyNetBufferedSender.
class KY_NETBASE_EXPORT kyNetForwardReceiver : public kyNetReceiver
{
public:
    kyNetForwardReceiver(const kyNetForwardReceiver&) = default;
    kyNetForwardReceiver(kyNetForwardReceiver&&) = default;
    kyNetForwardReceiver& operator=(const kyNetForwardReceiver&) = default;
    kyNetForwardReceiver& operator=(kyNetForwardReceiver&&) = default;

    /// Relays from the source through the sender; `rank` is this node's.
    static std::shared_ptr<kyNetReceiver> create(const std::shared_ptr<kyNetReceiver>& source,
                                                 const std::shared_ptr<kyNetSender>& forward,
                                                 int rank);

    /// The next buffer for this node or for all; blocks as the source and the sender do. Throws
    /// what they throw: if it is the sender, the rest of what it was to relay is lost, and what is
    /// for this node is delivered by the next calls.
    void recv(std::shared_ptr<kyNetBuffer>& buffer) override;

private:
    kyNetForwardReceiver(const std::shared_ptr<kyNetReceiver>& source,
                         const std::shared_ptr<kyNetSender>& forward, int rank);

    void relayAvailable();

    std::shared_ptr<kyNetReceiver> m_source;
    std::shared_ptr<kyNetSender> m_forward;
    int m_rank;
    std::queue<std::shared_ptr<kyNetBuffer>> m_recvQueue;
};
