#include <NetBase/senders/kyNetBufferedSender.h>

#include <cstddef>
#include <cstdint>
#include <queue>
#include <utility>
#include <vector>

#include <NetBase/buffers/kyNetAffinityManager.h>
#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetOptions.h>
#include <NetBase/senders/kyNetSendQueue.h>

namespace {

using Buffer = std::shared_ptr<kyNetBuffer>;

/// Bytes that a worker hands to its child at once: so many that calls of the system cost nothing
/// beside what they move, and so few that the bytes are still in the processor's second-level
/// cache when the peer reads them on the same machine.
constexpr std::uint64_t s_mostAtOnce = 524288;

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
        while (take()) {
            const std::size_t count = m_taken.buffers.size();
            const bool hasEmpty = count > 0 && m_taken.buffers.back()->getDataSize() == 0;
            m_failure.attempt([this] {
                pack();
                if (!m_out.empty()) {
                    m_child->sendMany(m_out);
                }
            });
            drop();
            m_queue.release(count);
            // After a failure others may still wait for room.
            if (hasEmpty && !m_failure.isSet()) {
                return;
            }
        }
    }

private:
    /// False when the queue ends.
    bool take()
    {
        bool isOpen = true;
        m_limit = static_cast<std::uint64_t>(kyNetOptions::getStreamBufferSize() / 2);
        m_failure.attempt([&] { isOpen = m_queue.pop(m_taken, m_limit, s_mostAtOnce); });
        return isOpen;
    }

    /// Packs what was taken in batches, each of which ends with the buffer that reaches the limit.
    void pack()
    {
        while (!m_taken.buffers.empty()) {
            takeBatch();
            for (Buffer buffer; !m_failure.isSet() && kyNetBuffer::tryBundle(m_batch, buffer) &&
                                buffer->getDataSize() != 0;) {
                m_out.push_back(std::move(buffer));
            }
        }
    }

    void takeBatch()
    {
        if (m_taken.size <= m_limit) { // As a rule.
            std::swap(m_batch, m_taken.buffers);
            return;
        }
        std::uint64_t size = 0;
        do {
            size += m_taken.buffers.front()->getBufferSize();
            m_batch.push(std::move(m_taken.buffers.front()));
            m_taken.buffers.pop();
        } while (size < m_limit && !m_taken.buffers.empty());
    }

    void drop()
    {
        m_out.clear();
        clear(m_batch);
        clear(m_taken.buffers);
        m_taken.size = 0;
    }

    static void clear(std::queue<Buffer>& buffers)
    {
        while (!buffers.empty()) {
            buffers.pop();
        }
    }

    kyNetSendQueue& m_queue;
    kyNetFirstFailure& m_failure;
    std::shared_ptr<kyNetSender> m_child;
    std::uint64_t m_limit = 0;     // Half the stream buffer size.
    kyNetSendQueue::Taken m_taken; // Kept between batches for its memory, as the others.
    std::queue<Buffer> m_batch;
    std::vector<Buffer> m_out; // What is sent together.
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
