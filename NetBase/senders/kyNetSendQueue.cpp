#include <NetBase/senders/kyNetSendQueue.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetOptions.h>
#include <NetBase/platform/kyThreads.h>

namespace {

/// About as long as it takes to wake a thread.
constexpr std::chrono::microseconds s_lookTime{20};

/// Others want the processor if looking takes so much longer.
constexpr std::chrono::microseconds s_lostTime{100};
constexpr int s_sleepsBetweenLooks = 100;

/// Under the lock, others only read: that needs no atomic addition.
void count(std::atomic<std::uint64_t>& counter, int difference)
{
    counter.store(counter.load(std::memory_order_relaxed) + static_cast<std::uint64_t>(difference),
                  std::memory_order_release);
}

} // namespace

kyNetSendQueue::kyNetSendQueue(int capacity)
    : m_capacity(
          static_cast<std::size_t>(capacity > 0 ? capacity : kyNetOptions::getMaxIOBuffers()))
{
}

kyNetSendQueue::~kyNetSendQueue()
{
    {
        const Lock lock(m_mutex);
        while (!m_waiting.buffers.empty()) {
            m_waiting.buffers.pop();
        }
        m_isEnding = true;
    }
    m_work.notify_all();
    for (std::thread& worker : m_workers) {
        worker.join();
    }
}

void kyNetSendQueue::startWorker(std::function<void()> work)
{
    const Lock lock(m_mutex); // Workers count each other.
    m_workers.emplace_back([work = std::move(work)] {
        kyThreads::resetProcessors();
        work();
    });
}

void kyNetSendQueue::push(const Buffer& buffer)
{
    const std::uint64_t size = buffer->getBufferSize();
    const bool isEmpty = buffer->getDataSize() == 0;
    bool hasWaited = false;

    m_failure.rethrowIfSet();
    Lock lock(m_mutex);
    count(m_accepted, 1);
    while (m_waiting.buffers.size() >= m_capacity) {
        hasWaited = true;
        ++m_waitingCallers;
        m_room.wait(lock);
        --m_waitingCallers;
    }
    try {
        m_waiting.buffers.push(buffer);
    } catch (...) {
        count(m_accepted, -1);
        m_room.notify_one(); // For the next caller: this one may have been woken for the room.
        throw;
    }
    m_waiting.size += size;
    m_emptyBuffers += isEmpty ? 1 : 0;

    const bool calls = mustCallWorker();
    lock.unlock();
    if (calls) {
        m_work.notify_one();
    }
    // Who has waited may have been given room by a worker that drops everything.
    if (hasWaited) {
        m_failure.rethrowIfSet();
    }
}

void kyNetSendQueue::waitUntilReleased() const
{
    // What is released is looked at first: others may have more accepted and released in between.
    while (!m_failure.isSet()) {
        const std::uint64_t released = m_released;
        if (m_accepted == released) {
            break;
        }
        std::this_thread::yield();
    }
    m_failure.rethrowIfSet();
}

bool kyNetSendQueue::pop(Buffer& buffer)
{
    Lock lock(m_mutex);
    if (!awaitWaiting(lock)) {
        return false;
    }
    m_batch = 1;
    buffer = std::move(m_waiting.buffers.front());
    popFront(*buffer);
    endPop(lock, 1);
    return true;
}

bool kyNetSendQueue::pop(Taken& taken, std::uint64_t batch, std::uint64_t most)
{
    Lock lock(m_mutex);
    if (!awaitWaiting(lock)) {
        return false;
    }
    m_batch = batch;
    const std::size_t before = m_waiting.buffers.size();
    const std::size_t others = m_workers.size() - 1;
    const bool takesAll = m_waiting.size <= (others == 0 ? most : batch) && m_emptyBuffers == 0;
    if (takesAll || m_failure.isSet()) { // After a failure they are only dropped.
        std::swap(taken.buffers, m_waiting.buffers);
        std::swap(taken.size, m_waiting.size);
        m_emptyBuffers = 0;
    } else {
        bool hasMore = takeBatch(taken, batch, 0);
        while (hasMore && taken.size < most) {
            hasMore = takeBatch(taken, batch, others);
        }
    }
    endPop(lock, before - m_waiting.buffers.size());
    return true;
}

/// False when the queue ends.
bool kyNetSendQueue::awaitWaiting(Lock& lock)
{
    if (isIdle() && !m_isLooking) {
        lookForMore(lock);
    }
    while (isIdle()) {
        ++m_sleepingWorkers;
        m_work.wait(lock);
        --m_sleepingWorkers;
        m_calledWorkers -= m_calledWorkers > 0 ? 1 : 0;
    }
    return !m_isEnding;
}

/// Lets others have the processor a few times: a caller then goes on without having to wake
/// anybody. Where others keep it, sleeping is better: who is woken has it sooner than who waits for
/// it.
void kyNetSendQueue::lookForMore(Lock& lock)
{
    if (m_sleepsUntilLook > 0) {
        --m_sleepsUntilLook;
        return;
    }
    const std::uint64_t accepted = m_accepted;
    m_isLooking = true;
    lock.unlock();
    const auto begin = std::chrono::steady_clock::now();
    auto now = begin;
    while (now < begin + s_lookTime && m_accepted == accepted) {
        std::this_thread::yield();
        now = std::chrono::steady_clock::now();
    }
    lock.lock();
    m_isLooking = false;
    if (now > begin + s_lookTime + s_lostTime) {
        m_sleepsUntilLook = s_sleepsBetweenLooks;
    }
}

/// Takes buffers until they have so many bytes, and leaves so many. Answers whether more of them
/// may follow.
bool kyNetSendQueue::takeBatch(Taken& taken, std::uint64_t bytes, std::size_t left)
{
    const std::uint64_t end = taken.size + bytes;
    bool isEmpty = false;
    while (m_waiting.buffers.size() > left && !isEmpty) {
        taken.buffers.push(std::move(m_waiting.buffers.front()));
        const kyNetBuffer& buffer = *taken.buffers.back();
        taken.size += buffer.getBufferSize();
        isEmpty = buffer.getDataSize() == 0;
        popFront(buffer);
        if (taken.size >= end) {
            return !isEmpty;
        }
    }
    return false;
}

/// Forgets the front one, which is taken. Who has changed a size meanwhile does not put the sums
/// wrong for good.
void kyNetSendQueue::popFront(const kyNetBuffer& buffer)
{
    m_waiting.buffers.pop();
    if (m_waiting.buffers.empty()) {
        m_waiting.size = 0;
        m_emptyBuffers = 0;
        return;
    }
    m_waiting.size -= buffer.getBufferSize();
    m_emptyBuffers -= buffer.getDataSize() == 0 ? 1 : 0;
}

/// What is left is for those who sleep, and the room for those who wait for it.
void kyNetSendQueue::endPop(Lock& lock, std::size_t room)
{
    const bool calls = mustCallWorker();
    const std::size_t invited = std::min(room, m_waitingCallers);
    lock.unlock();
    if (calls) {
        m_work.notify_one();
    }
    for (std::size_t i = 0; i < invited; ++i) {
        m_room.notify_one();
    }
}

/// Whether more waits than those workers take that are called already; counts one more, then.
bool kyNetSendQueue::mustCallWorker()
{
    const std::size_t coming = m_calledWorkers + (m_isLooking ? 1 : 0);
    const bool calls = m_sleepingWorkers > m_calledWorkers && m_waiting.buffers.size() > coming &&
                       (coming == 0 || m_waiting.size > coming * m_batch);
    m_calledWorkers += calls ? 1 : 0;
    return calls;
}
