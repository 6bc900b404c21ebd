#pragma once

#include <memory>
#include <vector>

#include <NetBase/senders/kyNetSender.h>

class kyNetSendQueue;

/// Frees the sending thread from the network: send only queues the buffer, and a thread for each
/// child, such as one of several links to the same peer, takes buffers from the queue and sends
/// them.
///
///     auto sender = kyNetBufferedSender::create({kyNetLinkSender::create(first, {2}),
///                                                kyNetLinkSender::create(second, {2})}, -1);
///     ...
///     sender->waitAllDataTransfered(); // or what is still queued is lost with the sender
///
/// Whichever thread is free takes the next buffers: as many as are there, up to half the stream
/// buffer size, and packs small ones into bundles. It never waits for more. If more wait behind
/// them than the other threads can take, it takes further batches of those, up to 512 KiB, and
/// hands all to its child together: a socket link then moves them with one call of the system.
/// What comes meanwhile has its turn later.
///
/// Order: buffers that one child sends leave in the order in which they were queued; with several
/// children they overtake each other.
///
/// Lifetime: destruction drops what is queued and waits for what the threads have taken to be
/// sent; shutdown ends that. Without a thread, as without children, nothing is sent: a full queue
/// and waiting for what is queued block for ever.
///
/// Threads: any number may send and wait at once; the last of them has returned before
/// destruction. Each child is used by one thread of its own, unless it stands here twice.
///
/// Failures: what a child's send throws ends the work of all threads, and what they still take is
/// dropped. The first failure is thrown by every send and waitAllDataTransfered from then on, also
/// by those that wait at that moment. A send that has waited may throw although its buffer was
/// sent before the failure.
class KY_NETBASE_EXPORT kyNetBufferedSender : public kyNetSender
{
public:
    /// Over these children, with room for `capacity` waiting buffers, 256 if it is 0 or less.
    /// Starts the threads; throws std::system_error if one cannot be started, and leaves none
    /// behind. create is the usual way.
    kyNetBufferedSender(const std::vector<std::shared_ptr<kyNetSender>>& children, int capacity);
    ~kyNetBufferedSender() override;

    /// A new buffered sender, also over a single child.
    static std::shared_ptr<kyNetSender>
    create(const std::vector<std::shared_ptr<kyNetSender>>& children, int capacity);
    static std::shared_ptr<kyNetSender> create(const std::shared_ptr<kyNetSender>& child,
                                               int capacity);

    /// Queues the buffer; blocks while the queue is full. Throws the first failure.
    ///
    /// An empty buffer is not sent: it ends the thread that takes it, and that child is given
    /// nothing more.
    void send(const std::shared_ptr<kyNetBuffer>& buffer) override;

    /// Blocks, busy but yielding, until every buffer is handed to a child, and then until the
    /// children have passed it on. Throws the first failure, or what a child's waiting throws.
    void waitAllDataTransfered() override;

private:
    std::unique_ptr<kyNetSendQueue> m_queue;
};
