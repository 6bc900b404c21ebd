#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <queue>
#include <utility>

#include <NetBase/buffers/kyNetAffinityManager.h>
#include <NetBase/buffers/kyNetFirstFailure.h>
#include <NetBase/platform/kyThreads.h>
#include <NetBase/receivers/kyNetReceiver.h>

class kyNetBuffer;

/// What stands between the workers of a threaded receiver and the thread that receives: the
/// buffers that have arrived, the first failure, and whether more can come.
///
/// Every child is a source, from before its thread is started until all that it has delivered is
/// pushed, also by other threads; the last of them lets go of it:
///
///     std::thread([queue, child, source = queue->addSource()] {
///         queue->readFrom(*child, [queue](Buffer&& buffer) { queue->push(std::move(buffer)); });
///     });
///
/// A source only ends by a failure, and the reader is told of it behind everything that came
/// before. Once all sources have ended and nothing is left, nobody waits.
///
/// The reader takes all that has arrived at once, and is only woken where it sleeps: one that is
/// slower than the sources meets them once for all that it then delivers.
///
/// Threads: any number push; one at a time calls recv, recvAvailable and isReadable.
class kyNetRecvQueue
{
public:
    using Buffer = std::shared_ptr<kyNetBuffer>;

    /// Something that more can come from while it lives.
    class Source
    {
    public:
        explicit Source(kyNetRecvQueue& queue);
        ~Source();

        Source(const Source&) = delete;
        Source& operator=(const Source&) = delete;

    private:
        kyNetRecvQueue& m_queue;
    };

    /// A source that has to end before the queue does.
    std::shared_ptr<Source> addSource() { return std::make_shared<Source>(*this); }

    void push(Buffer buffer);

    /// What a step of a worker throws is kept by this: the first is the failure.
    kyNetFirstFailure& getFailure() { return m_failure; }

    /// Tells the reader, behind all that was pushed before, that something has failed.
    void pushFailure() noexcept;

    /// The work of a thread that reads ahead: gives all that the child receives to `deliver`, until
    /// one of them fails.
    template <class Deliver> void readFrom(kyNetReceiver& child, const Deliver& deliver) noexcept
    {
        m_failure.attempt([&] {
            kyThreads::resetProcessors();
            kyNetAffinityManager::setNodeAffinity(child.getNodeAffinity());
            for (;;) {
                Buffer buffer;
                child.recv(buffer);
                deliver(std::move(buffer));
            }
        });
    }

    /// The next buffer; blocks until there is one. Throws the first failure for each that is told,
    /// and every time once nothing can come any more; without sources that is kyConnectionClosed.
    /// `buffer` is left alone then.
    void recv(Buffer& buffer);

    /// Appends all that has arrived, up to the first failure; blocks and throws as recv.
    void recvAvailable(std::queue<Buffer>& queue);

    /// Whether recv would deliver or throw at once.
    bool isReadable();

private:
    using Lock = std::unique_lock<std::mutex>;

    bool takeArrived();
    void wakeReader(Lock& lock);
    [[noreturn]] void throwEnd() const;

    std::queue<Buffer> m_taken;     ///< The reader's part of what has arrived.
    bool m_isFailureBehind = false; ///< Behind that part, a failure is to be told.
    kyNetFirstFailure m_failure;

    std::mutex m_mutex; ///< Of all that follows.
    std::condition_variable m_arrival;
    std::queue<Buffer> m_arrived; ///< A null pointer tells of a failure.
    int m_sources = 0;
    bool m_isReaderAsleep = false;
    bool m_isFailureUntold = false; ///< There was no memory to queue it.
};
