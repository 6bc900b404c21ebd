#include <NetBase/receivers/kyNetRecvQueue.h>

#include <new>
#include <utility>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetBufferPool.h>

kyNetRecvQueue::Source::Source(kyNetRecvQueue& queue) : m_queue(queue)
{
    ++m_queue.m_sources;
}

kyNetRecvQueue::Source::~Source()
{
    // Before the reader is woken, or it might look too early and wait again.
    --m_queue.m_sources;
    m_queue.pushFailure();
}

void kyNetRecvQueue::pushFailure() noexcept
{
    try {
        Buffer empty = kyNetBufferPool::pop();
        empty->setDataSize(0);
        push(std::move(empty));
    } catch (const std::bad_alloc&) {
        m_arrived.abort(); // Wakes a waiting reader without memory.
    }
}

void kyNetRecvQueue::recv(Buffer& buffer)
{
    takeArrived();
    const bool isFailure = isFailureNext();
    buffer = std::move(m_taken.front());
    m_taken.pop();
    if (isFailure) {
        m_failure.rethrowIfSet();
    }
}

void kyNetRecvQueue::recvAvailable(std::queue<Buffer>& queue)
{
    do {
        Buffer buffer;
        recv(buffer);
        queue.push(std::move(buffer));
        // Who calls with a queue of its own would lose it by a failure behind these.
    } while (!m_taken.empty() && !isFailureNext());
}

bool kyNetRecvQueue::isReadable()
{
    Buffer buffer;
    if (m_taken.empty() && m_arrived.try_pop(buffer)) {
        m_taken.push(std::move(buffer));
    }
    return !m_taken.empty() || isAtEnd();
}

bool kyNetRecvQueue::isFailureNext() const
{
    return m_taken.front()->getDataSize() == 0 && m_failure.isSet();
}

void kyNetRecvQueue::takeArrived()
{
    if (!m_taken.empty()) {
        return;
    }
    Buffer buffer;
    if (m_sources != 0) {
        m_arrived.pop(buffer);
    } else if (!m_arrived.try_pop(buffer)) {
        throwEnd();
    }
    m_taken.push(std::move(buffer));

    // What comes meanwhile is left for the next time, or a fast peer would keep the reader here.
    for (auto left = m_arrived.size(); left > 0 && m_arrived.try_pop(buffer); --left) {
        m_taken.push(std::move(buffer));
    }
}

void kyNetRecvQueue::throwEnd() const
{
    m_failure.rethrowIfSet();
    throw kyConnectionClosed();
}
