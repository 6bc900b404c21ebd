#include <NetBase/senders/kyNetBufferedSender.h>

#include <cstdint>
#include <queue>
#include <utility>

#include <NetBase/buffers/kyNetAffinityManager.h>
#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetOptions.h>
#include <NetBase/senders/kyNetSendQueue.h>

namespace {

using Buffer = std::shared_ptr<kyNetBuffer>;

/// The thread of one child.
class Worker
{
public:
    Worker(kyNetSendQueue& queue, const std::shared_ptr<kyNetSender>& child)
        : m_queue(queue), m_failure(queue.getFailure()), m_child(child)
    {
    }

    void run()
    {
        m_failure.attempt(
            [this] { kyNetAffinityManager::setNodeAffinity(m_child->getNodeAffinity()); });
        do {
            m_taken = 0;
            m_failure.attempt([this] {
                popUntilMaxSize(
                    static_cast<std::uint64_t>(kyNetOptions::getStreamBufferSize() / 2));
                sendBatch();
            });
            dropBatch();
            m_queue.release(m_taken);
        } while (!m_hasTakenEmpty || !m_queue.letsWorkersEnd());
    }

private:
    /// Takes one buffer, and with it those that are there, until they exceed the size or one is
    /// empty.
    void popUntilMaxSize(std::uint64_t maxSize)
    {
        const auto turn = m_queue.awaitTurn();
        Buffer buffer;
        m_queue.pop(buffer);
        std::uint64_t size = addToBatch(buffer);
        while (size < maxSize && !m_failure.isSet() && !m_hasTakenEmpty && m_queue.tryPop(buffer)) {
            size += addToBatch(buffer);
        }
    }

    /// Bytes of the buffer on the wire. What was taken is known even if there is no memory left.
    std::uint64_t addToBatch(Buffer& buffer)
    {
        const std::uint64_t size = buffer->getBufferSize();
        ++m_taken;
        m_hasTakenEmpty = buffer->getDataSize() == 0;
        m_batch.push(std::move(buffer));
        return size;
    }

    void sendBatch()
    {
        Buffer out;
        while (!m_failure.isSet() && kyNetBuffer::tryBundle(m_batch, out) &&
               out->getDataSize() != 0) {
            m_child->send(out);
        }
    }

    void dropBatch()
    {
        while (!m_batch.empty()) {
            m_batch.pop();
        }
    }

    kyNetSendQueue& m_queue;
    kyNetFirstFailure& m_failure;
    std::shared_ptr<kyNetSender> m_child;
    std::queue<Buffer> m_batch; // Kept between batches for its memory.
    std::uint64_t m_taken = 0;
    bool m_hasTakenEmpty = false;
};

} // namespace

kyNetBufferedSender::kyNetBufferedSender(const std::vector<std::shared_ptr<kyNetSender>>& children,
                                         int capacity)
    : kyNetSender(children), m_queue(std::make_unique<kyNetSendQueue>(capacity))
{
    for (const auto& child : children) {
        // Made here, where a lack of memory has somebody to be thrown to.
        const auto worker = std::make_shared<Worker>(*m_queue, child);
        m_queue->startWorker([worker] { worker->run(); });
    }
}

kyNetBufferedSender::~kyNetBufferedSender() = default;

std::shared_ptr<kyNetSender>
kyNetBufferedSender::create(const std::vector<std::shared_ptr<kyNetSender>>& children, int capacity)
{
    return std::make_shared<kyNetBufferedSender>(children, capacity);
}

std::shared_ptr<kyNetSender> kyNetBufferedSender::create(const std::shared_ptr<kyNetSender>& child,
                                                         int capacity)
{
    return create(std::vector<std::shared_ptr<kyNetSender>>{child}, capacity);
}

void kyNetBufferedSender::send(const std::shared_ptr<kyNetBuffer>& buffer)
{
    m_queue->push(buffer);
}

void kyNetBufferedSender::waitAllDataTransfered()
{
    m_queue->waitUntilReleased();
    kyNetSender::waitAllDataTransfered();
}
