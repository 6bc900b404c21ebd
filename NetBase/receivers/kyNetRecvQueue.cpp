#include <NetBase/receivers/kyNetRecvQueue.h>

#include <new>
#include <utility>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyNetBuffer.h>

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
        // Not an empty buffer: such come from peers, too, and take memory.
        push(nullptr);
    } catch (const std::bad_alloc&) {
        m_arrived.abort(); // Wakes a waiting reader all the same.
    }
}

void kyNetRecvQueue::recv(Buffer& buffer)
{
    takeArrived();
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
    Buffer buffer;
    if (m_taken.empty() && m_arrived.try_pop(buffer)) {
        m_taken.push(std::move(buffer));
    }
    return !m_taken.empty() || isAtEnd();
}

void kyNetRecvQueue::takeArrived()
{
    if (!m_taken.empty()) {
        return;
    }
    Buffer buffer;
    if (m_sources != 0) {
        awaitArrival(buffer);
    } else if (!m_arrived.try_pop(buffer)) {
        throwEnd();
    }
    m_taken.push(std::move(buffer));

    // What comes meanwhile is left for the next time, or a fast peer would keep the reader here.
    for (auto left = m_arrived.size(); left > 0 && m_arrived.try_pop(buffer); --left) {
        m_taken.push(std::move(buffer));
    }
}

void kyNetRecvQueue::awaitArrival(Buffer& buffer)
{
    try {
        m_arrived.pop(buffer);
    } catch (const tbb::user_abort&) {
        throwEnd();
    }
}

void kyNetRecvQueue::throwEnd() const
{
    m_failure.rethrowIfSet();
    throw kyConnectionClosed();
}
