#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
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
///             auto turn = queue.awaitTurn();
///             queue.pop(buffer);
///             turn.unlock();
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

    /// Room for `capacity` buffers; the usual 256 if it is 0 or less. Holds one of the pool.
    explicit kyNetSendQueue(int capacity);

    /// Drops what still waits, ends the workers and waits for them.
    ~kyNetSendQueue();

    kyNetSendQueue(const kyNetSendQueue&) = delete;
    kyNetSendQueue& operator=(const kyNetSendQueue&) = delete;

    /// Runs the work, which throws nothing, on a new thread that may use every processor. Throws
    /// std::system_error.
    void startWorker(std::function<void()> work);
    std::size_t countWorkers() const { return m_workers.size(); }

    /// Queues a buffer; blocks while there is no room. Throws the first failure, before it queues
    /// the buffer or if it had to wait; then a worker may still pass the buffer on.
    void push(const Buffer& buffer);

    /// Blocks, busy but yielding, until all that was queued is passed on. Throws the first failure,
    /// and does not wait any longer then.
    void waitUntilReleased() const;

    /// The first failure of a worker, for both sides.
    kyNetFirstFailure& getFailure() { return m_failure; }

    /// Waits until the calling worker may take buffers; it does so while it keeps the result. With
    /// several waiting for buffers at once each is promised one of the next, and all wait for the
    /// slowest to wake up: four idle workers took six times the processor time.
    std::unique_lock<std::mutex> awaitTurn() { return std::unique_lock<std::mutex>(m_turn); }

    /// Takes the next buffer; blocks until there is one.
    void pop(Buffer& buffer) { m_buffers.pop(buffer); }

    /// Takes the next buffer if there is one.
    bool tryPop(Buffer& buffer) { return m_buffers.try_pop(buffer); }

    /// How many wait, callers that wait for room included, as far as can be told at any moment.
    std::uint64_t countWaiting() const
    {
        const std::ptrdiff_t count = m_buffers.size(); // Negative if workers wait.
        return count > 0 ? static_cast<std::uint64_t>(count) : 0;
    }

    /// Says that so many of the taken buffers are passed on, or dropped.
    void release(std::uint64_t count) { m_pending -= count; }

    /// Whether an empty buffer ends its worker: after a failure one that a caller has sent does
    /// not, since others may still wait for room.
    bool letsWorkersEnd() const { return m_isEnding || !m_failure.isSet(); }

private:
    /// Whether it had to wait for room.
    bool enqueue(const Buffer& buffer);

    void dropWaiting();

    const Buffer m_endMarker; // Taken first: at the end there may be no memory for one.
    tbb::concurrent_bounded_queue<Buffer> m_buffers;
    std::atomic<std::uint64_t> m_pending{0};
    kyNetFirstFailure m_failure;
    std::atomic<bool> m_isEnding{false};
    std::mutex m_turn;
    std::vector<std::thread> m_workers;
};
