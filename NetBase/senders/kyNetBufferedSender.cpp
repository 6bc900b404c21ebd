#include <NetBase/senders/kyNetBufferedSender.h>

#include <cstddef>
#include <cstdint>
#include <limits>
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

constexpr std::uint64_t s_any = std::numeric_limits<std::uint64_t>::max();

/// The thread of one child.
class Worker
{
public:
    Worker(kyNetSendQueue& queue, const std::shared_ptr<kyNetSender>& child, std::size_t workers)
        : m_queue(queue), m_failure(queue.getFailure()), m_child(child), m_workers(workers)
    {
    }

    void run()
    {
        m_failure.attempt(
            [this] { kyNetAffinityManager::setNodeAffinity(m_child->getNodeAffinity()); });
        do {
            m_taken = 0;
            m_failure.attempt([this] {
                takeBatches();
                if (!m_out.empty()) {
                    m_child->sendMany(m_out);
                }
            });
            dropTaken();
            m_queue.release(m_taken);
        } while (!m_hasTakenEmpty || !m_queue.letsWorkersEnd());
    }

private:
    /// Takes a batch, and more of what waits behind it than the other workers can take. What comes
    /// meanwhile has its turn later: what is taken would have to wait for it.
    void takeBatches()
    {
        std::uint64_t size = takeBatch(s_any, [this](Buffer& buffer) {
            const auto turn = m_queue.awaitTurn();
            m_queue.pop(buffer);
            return true;
        });
        const std::uint64_t others = m_workers - 1;
        const std::uint64_t waiting = m_queue.countWaiting();
        const std::uint64_t end = m_taken + (waiting > others ? waiting - others : 0);
        bool isThere = true;
        while (isThere && m_taken < end && size < s_mostAtOnce && mayTake()) {
            size += takeBatch(end - m_taken, [this, &isThere](Buffer& buffer) {
                return isThere = m_queue.tryPop(buffer);
            });
        }
    }

    /// Takes a buffer, and with it those that are there, until they are `most`, exceed half the
    /// stream buffer size or one is empty. Packs them, and answers how many bytes they have on the
    /// wire.
    template <class TakeFirst>
    std::uint64_t takeBatch(std::uint64_t most, const TakeFirst& takeFirst)
    {
        const auto limit = static_cast<std::uint64_t>(kyNetOptions::getStreamBufferSize() / 2);
        Buffer buffer;
        std::uint64_t size = 0;
        for (bool has = takeFirst(buffer); has;
             has = --most > 0 && size < limit && mayTake() && m_queue.tryPop(buffer)) {
            size += addToBatch(buffer);
        }
        while (!m_failure.isSet() && kyNetBuffer::tryBundle(m_batch, buffer) &&
               buffer->getDataSize() != 0) {
            m_out.push_back(std::move(buffer));
        }
        return size;
    }

    bool mayTake() const { return !m_failure.isSet() && !m_hasTakenEmpty; }

    /// Bytes of the buffer on the wire. What was taken is known even if there is no memory left.
    std::uint64_t addToBatch(Buffer& buffer)
    {
        const std::uint64_t size = buffer->getBufferSize();
        ++m_taken;
        m_hasTakenEmpty = buffer->getDataSize() == 0;
        m_batch.push(std::move(buffer));
        return size;
    }

    void dropTaken()
    {
        m_out.clear();
        while (!m_batch.empty()) {
            m_batch.pop();
        }
    }

    kyNetSendQueue& m_queue;
    kyNetFirstFailure& m_failure;
    std::shared_ptr<kyNetSender> m_child;
    std::size_t m_workers;
    std::queue<Buffer> m_batch; // Kept between batches for its memory.
    std::vector<Buffer> m_out;  // What is sent together, kept alike.
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
        const auto worker = std::make_shared<Worker>(*m_queue, child, children.size());
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
