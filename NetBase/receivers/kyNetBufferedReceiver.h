#pragma once

#include <memory>
#include <thread>
#include <vector>

#include <NetBase/receivers/kyNetReceiver.h>

class kyNetRecvQueue;

/// Reads ahead, so that the network is drained while the process is busy, and merges several
/// receivers, such as those of several links to the same peer, into one.
///
///     auto receiver = kyNetBufferedReceiver::create({kyNetLinkReceiver::create(first),
///                                                    kyNetLinkReceiver::create(second)});
///
/// A thread for each child receives from it, from construction on, and queues what comes.
///
/// Order: the buffers of one child stay in order; those of several mix as they arrive.
///
/// Limits: reads ahead without a bound; whoever sends has to wait for answers if the process may
/// be too slow.
///
/// Lifetime: destruction shuts down every link below, which ends the threads, and drops what is
/// still queued. A child that waits for something else than its links delays it. Without memory it
/// ends all the same.
///
/// Failures: what a child's recv throws, a time-out too, ends its thread. The first failure of all
/// is thrown by recv behind all that this child had delivered before, once for each child that
/// fails. Other children go on; when none is left, every recv throws it at once. Empty buffers of
/// children are delivered like all others.
class KY_NETBASE_EXPORT kyNetBufferedReceiver : public kyNetReceiver
{
public:
    /// Over these children; create is the usual way. Starts the threads; throws std::system_error
    /// if one cannot be started, and has then shut down the links.
    explicit kyNetBufferedReceiver(const std::vector<std::shared_ptr<kyNetReceiver>>& children);
    ~kyNetBufferedReceiver() override;

    kyNetBufferedReceiver(const kyNetBufferedReceiver&) = delete;
    kyNetBufferedReceiver& operator=(const kyNetBufferedReceiver&) = delete;

    /// A new buffered receiver, also over a single child.
    static std::shared_ptr<kyNetReceiver>
    create(const std::vector<std::shared_ptr<kyNetReceiver>>& children);

    /// The next buffer of any child; blocks until there is one. Throws the first failure, and
    /// kyConnectionClosed if there are no children.
    void recv(std::shared_ptr<kyNetBuffer>& buffer) override;

    /// All that has arrived, up to a failure; blocks and throws as recv.
    void recvAvailable(std::queue<std::shared_ptr<kyNetBuffer>>& queue) override;

private:
    void stop();

    std::unique_ptr<kyNetRecvQueue> m_queue;
    std::vector<std::shared_ptr<kyNetLink>> m_links; ///< Those that the end shuts down.
    std::vector<std::thread> m_threads;
};
