#include <NetBase/senders/kyNetSendQueue.h>

#include <utility>

#include <NetBase/buffers/kyNetBufferPool.h>
#include <NetBase/buffers/kyNetOptions.h>
#include <NetBase/platform/kyThreads.h>

namespace {

// So many that no end marker ever waits for room.
constexpr int s_endingCapacity = 10000;

} // namespace

kyNetSendQueue::kyNetSendQueue(int capacity) : m_endMarker(kyNetBufferPool::pop())
{
    m_endMarker->setDataSize(0);
    m_buffers.set_capacity(capacity > 0 ? capacity : kyNetOptions::getMaxIOBuffers());
}

kyNetSendQueue::~kyNetSendQueue()
{
    dropWaiting();
    m_isEnding = true;
    m_buffers.set_capacity(s_endingCapacity);

    for (std::size_t i = 0; i < m_workers.size(); ++i) {
        enqueue(m_endMarker);
    }
    for (std::thread& worker : m_workers) {
        enqueue(m_endMarker); // Intended: one to spare for each.
        worker.join();
    }
}

void kyNetSendQueue::startWorker(std::function<void()> work)
{
    m_workers.emplace_back([work = std::move(work)] {
        kyThreads::resetProcessors();
        work();
    });
}

void kyNetSendQueue::push(const Buffer& buffer)
{
    m_failure.rethrowIfSet();
    // Who has waited may have been given room by a worker that drops everything.
    if (enqueue(buffer)) {
        m_failure.rethrowIfSet();
    }
}

void kyNetSendQueue::waitUntilReleased() const
{
    while (!m_failure.isSet() && m_pending != 0) {
        std::this_thread::yield();
    }
    m_failure.rethrowIfSet();
}

bool kyNetSendQueue::enqueue(const Buffer& buffer)
{
    // Counted first, or the worker might be done with it before.
    ++m_pending;
    try {
        if (m_buffers.try_push(buffer)) {
            return false;
        }
        m_buffers.push(buffer);
        return true;
    } catch (...) {
        --m_pending;
        throw;
    }
}

void kyNetSendQueue::dropWaiting()
{
    Buffer dropped;
    while (tryPop(dropped)) {
        release(1);
    }
}
