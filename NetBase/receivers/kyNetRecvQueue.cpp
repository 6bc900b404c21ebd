#include <NetBase/receivers/kyNetRecvQueue.h>

#include <new>
#include <utility>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyNetBuffer.h>

kyNetRecvQueue::Source::Source(kyNetRecvQueue& queue) : m_queue(queue)
{
    const Lock lock(m_queue.m_mutex);
    ++m_queue.m_sources;
}

kyNetRecvQueue::Source::~Source()
{
    {
        // Before the reader is woken, or it might look too early and wait again.
        const Lock lock(m_queue.m_mutex);
        --m_queue.m_sources;
    }
    m_queue.pushFailure();
}

void kyNetRecvQueue::push(Buffer buffer)
{
    Lock lock(m_mutex);
    m_arrived.push(std::move(buffer));
    wakeReader(lock);
}

void kyNetRecvQueue::pushFailure() noexcept
{
    try {
        // Not an empty buffer: such come from peers, too, and take memory.
        push(nullptr);
    } catch (const std::bad_alloc&) {
        Lock lock(m_mutex);
        m_isFailureUntold = true; // Wakes a waiting reader all the same.
        wakeReader(lock);
    }
}

void kyNetRecvQueue::recv(Buffer& buffer)
{
    if (m_taken.empty() && (std::exchange(m_isFailureBehind, false) || !takeArrived())) {
        throwEnd();
    }
    Buffer next = std::move(m_taken.front());
    m_taken.pop();
    if (!next) {
        throwEnd();
    }
    buffer = std::move(next);
}

void kyNetRecvQueue::recvAvailable(std::queue<Buffer>& queue)
{
    do {
        Buffer buffer;
        recv(buffer);
        queue.push(std::move(buffer));
        // Who calls with a queue of its own would lose it by a failure behind these.
    } while (!m_taken.empty() && m_taken.front());
}

bool kyNetRecvQueue::isReadable()
{
    const Lock lock(m_mutex);
    return !m_taken.empty() || m_isFailureBehind || !m_arrived.empty() || m_isFailureUntold ||
           (m_sources == 0 && m_failure.isSet());
}

/// Blocks until something has arrived; false if nothing can come any more.
bool kyNetRecvQueue::takeArrived()
{
    Lock lock(m_mutex);
    while (m_arrived.empty() && m_sources != 0 && !m_isFailureUntold) {
        m_isReaderAsleep = true;
        m_arrival.wait(lock);
    }
    m_isReaderAsleep = false;
    std::swap(m_taken, m_arrived);
    m_isFailureBehind = std::exchange(m_isFailureUntold, false) && !m_taken.empty();
    return !m_taken.empty();
}

void kyNetRecvQueue::wakeReader(Lock& lock)
{
    const bool isAsleep = std::exchange(m_isReaderAsleep, false);
    lock.unlock();
    if (isAsleep) {
        m_arrival.notify_one();
    }
}

void kyNetRecvQueue::throwEnd() const
{
    m_failure.rethrowIfSet();
    throw kyConnectionClosed();
}
