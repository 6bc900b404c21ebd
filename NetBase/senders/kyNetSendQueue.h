#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include <tbb/concurrent_queue.h>

#include <NetBase/buffers/kyNetFirstFailure.h>

class kyNetBuffer;

/// What stands between the callers of a threaded sender and its workers: the buffers that wait,
/// the count of those that are not passed on yet, and the first failure.
///
/// An empty buffer ends the worker that takes it. Workers:
///
///     queue.startWorker([&] {
///         std::shared_ptr<kyNetBuffer> buffer;
///         do {
///             queue.pop(buffer);
///             ...
///             queue.release(1);
///         } while (!(isEmpty && queue.letsWorkersEnd()));
///     });
///
/// A worker that has failed goes on taking buffers and drops them, so that nobody waits for room
/// for ever.
///
/// Threads: any number of callers and workers. One at a time calls startWorker; who destroys the
/// queue is the last to use it.
class kyNetSendQueue
{
public:
    using Buffer = std::shared_ptr<kyNetBuffer>;

    /// Room for `capacity` buffers; the usual 256 if it is 0 or less.
    explicit kyNetSendQueue(int capacity);

    /// Drops what still waits, ends the workers and waits for them.
    ~kyNetSendQueue();

    kyNetSendQueue(const kyNetSendQueue&) = delete;
    kyNetSendQueue& operator=(const kyNetSendQueue&) = delete;

    /// Runs the work, which throws nothing, on a new thread that may use every processor. Throws
    /// std::system_error.
    void startWorker(std::function<void()> work);
    std::size_t countWorkers() const { return m_workers.size(); }

    /// Queues a buffer; blocks while there is no room. Throws the first failure, also one that
    /// happens meanwhile; the buffer may be dropped then.
    void push(const Buffer& buffer);

    /// Blocks, busy but yielding, until all that was queued is passed on. Throws the first failure,
    /// and does not wait any longer then.
    void waitUntilReleased() const;

    void rethrowFailure() const { m_failure.rethrowIfSet(); }

    /// Takes the next buffer; blocks until there is one.
    void pop(Buffer& buffer) { m_buffers.pop(buffer); }

    /// Takes the next buffer if there is one.
    bool tryPop(Buffer& buffer) { return m_buffers.try_pop(buffer); }

    /// Says that so many of the taken buffers are passed on, or dropped.
    void release(std::uint64_t count) { m_pending -= count; }

    /// Runs a step of a worker. What it throws is the failure, and the result false.
    template <class Step> bool attempt(const Step& step) noexcept
    {
        try {
            step();
            return true;
        } catch (...) {
            m_failure.store(std::current_exception());
            return false;
        }
    }

    bool hasFailed() const { return m_failure.isSet(); }

    /// Whether an empty buffer ends its worker: after a failure one that a caller has sent does
    /// not, since others may still wait for room.
    bool letsWorkersEnd() const { return m_isEnding || !hasFailed(); }

private:
    void enqueue(const Buffer& buffer);
    void dropWaiting();

    tbb::concurrent_bounded_queue<Buffer> m_buffers;
    std::atomic<std::uint64_t> m_pending{0};
    kyNetFirstFailure m_failure;
    std::atomic<bool> m_isEnding{false};
    std::vector<std::thread> m_workers;
};
