#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

#include <NetBase/buffers/kyNetFirstFailure.h>

class kyNetBuffer;

/// What stands between the callers of a threaded sender and its workers: the buffers that wait,
/// the count of those that are not passed on yet, and the first failure. Workers:
///
///     queue.startWorker([&] {
///         for (std::shared_ptr<kyNetBuffer> buffer; queue.pop(buffer);) {
///             ...
///             queue.release(1);
///         }
///     });
///
/// A worker that has failed goes on taking buffers and drops them, so that nobody waits for room
/// for ever.
///
/// A worker that sleeps is called when there is work for it that no other has been called for, and
/// a caller that waits for room when there is some; nobody else is. So callers that are faster than
/// the workers meet them once for all that waits.
///
/// Threads: any number of callers and workers. One at a time calls startWorker; who destroys the
/// queue is the last to use it.
class kyNetSendQueue
{
public:
    using Buffer = std::shared_ptr<kyNetBuffer>;

    /// What a worker has taken together. Kept by the worker for its memory.
    struct Taken
    {
        std::queue<Buffer> buffers;
        std::uint64_t size = 0; ///< Bytes on the wire.
    };

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

    /// Queues a buffer; blocks while there is no room. Throws the first failure, before it queues
    /// the buffer or if it had to wait; then a worker may still pass the buffer on.
    void push(const Buffer& buffer);

    /// Blocks, busy but yielding, until all that was queued is passed on. Throws the first failure,
    /// and does not wait any longer then.
    void waitUntilReleased() const;

    /// The first failure of a worker, for both sides.
    kyNetFirstFailure& getFailure() { return m_failure; }

    /// Takes the next buffer; blocks until there is one. False when the queue ends.
    bool pop(Buffer& buffer);

    /// Takes, into what is empty, a batch: those that wait, until they have `batch` bytes; blocks
    /// until there is one. Takes more batches, until they have `most` bytes, of what waits behind
    /// it beside one buffer for each other worker. An empty buffer is the last. False when the
    /// queue ends.
    ///
    /// Needs memory, and throws std::bad_alloc, only where it leaves something or meets an empty
    /// buffer.
    bool pop(Taken& taken, std::uint64_t batch, std::uint64_t most);

    /// Says that so many of the taken buffers are passed on, or dropped.
    void release(std::uint64_t count) { m_released += count; }

private:
    using Lock = std::unique_lock<std::mutex>;

    bool isIdle() const { return m_waiting.buffers.empty() && !m_isEnding; }
    bool awaitWaiting(Lock& lock);
    void lookForMore(Lock& lock);
    bool takeBatch(Taken& taken, std::uint64_t bytes, std::size_t left);
    void popFront(const kyNetBuffer& buffer);
    void endPop(Lock& lock, std::size_t room);
    bool mustCallWorker();

    const std::size_t m_capacity;
    kyNetFirstFailure m_failure;
    std::atomic<std::uint64_t> m_accepted{0}; ///< Buffers, those of callers that wait included.
    std::atomic<std::uint64_t> m_released{0};

    mutable std::mutex m_mutex; ///< Of all that follows.
    std::condition_variable m_work;
    std::condition_variable m_room;
    Taken m_waiting;
    std::size_t m_emptyBuffers = 0; ///< Among those that wait.
    bool m_isLooking = false;       ///< One worker, for more to wait.
    int m_sleepsUntilLook = 0;
    std::size_t m_sleepingWorkers = 0;
    std::size_t m_calledWorkers = 0; ///< Among those that sleep.
    std::uint64_t m_batch = 1;       ///< Bytes that one worker is called for.
    std::size_t m_waitingCallers = 0;
    bool m_isEnding = false;
    std::vector<std::thread> m_workers;
};
