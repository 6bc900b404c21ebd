#include <NetBase/receivers/kyNetDecompressReceiver.h>

#include <condition_variable>
#include <mutex>
#include <queue>
#include <utility>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/buffers/kyNetOptions.h>
#include <NetBase/links/kyNetLink.h>
#include <NetBase/platform/kyThreads.h>
#include <NetBase/receivers/kyNetRecvQueue.h>
#include <NetBase/senders/kyNetCompressorBase.h>

namespace {

using Buffer = std::shared_ptr<kyNetBuffer>;

/// A buffer that waits to be decompressed. Until it is ready, more comes from its source.
struct Waiting
{
    Buffer buffer;
    std::shared_ptr<kyNetRecvQueue::Source> source;
};

/// What a compressor has made. Throws if that is nothing.
Buffer checked(Buffer made)
{
    if (!made) {
        throw kyNetError("The compressor has returned no buffer.");
    }
    return made;
}

} // namespace

/// What waits to be decompressed, until the end.
class kyNetDecompressReceiver::Compressed
{
public:
    void push(Waiting waiting)
    {
        {
            const Lock lock(m_mutex);
            if (m_isEnding) {
                return;
            }
            m_waiting.push(std::move(waiting));
        }
        m_arrival.notify_one();
    }

    /// Takes the next one; blocks until there is one. False when the queue ends.
    bool pop(Waiting& next)
    {
        Lock lock(m_mutex);
        m_arrival.wait(lock, [this] { return m_isEnding || !m_waiting.empty(); });
        if (m_isEnding) {
            return false;
        }
        next = std::move(m_waiting.front());
        m_waiting.pop();
        return true;
    }

    /// Drops what waits and whatever comes, and lets nobody wait any more. Needs no memory.
    void end()
    {
        {
            const Lock lock(m_mutex);
            m_isEnding = true;
        }
        m_arrival.notify_all();
        while (!m_waiting.empty()) { // Nobody else looks at it from now on.
            m_waiting.pop();
        }
    }

private:
    using Lock = std::unique_lock<std::mutex>;

    std::mutex m_mutex;
    std::condition_variable m_arrival;
    std::queue<Waiting> m_waiting;
    bool m_isEnding = false;
};

kyNetDecompressReceiver::kyNetDecompressReceiver(
    const std::shared_ptr<kyNetCompressorBase>& compressor,
    const std::vector<std::shared_ptr<kyNetReceiver>>& children)
    : kyNetReceiver(children),
      m_compressor(compressor),
      m_output(std::make_unique<kyNetRecvQueue>()),
      m_compressed(std::make_unique<Compressed>()),
      m_links(getLinks())
{
    try {
        startThreads(children);
    } catch (...) {
        stop();
        throw;
    }
}

kyNetDecompressReceiver::~kyNetDecompressReceiver()
{
    stop();
}

std::shared_ptr<kyNetReceiver>
kyNetDecompressReceiver::create(const std::shared_ptr<kyNetCompressorBase>& compressor,
                                const std::vector<std::shared_ptr<kyNetReceiver>>& children)
{
    return std::make_shared<kyNetDecompressReceiver>(compressor, children);
}

void kyNetDecompressReceiver::startThreads(
    const std::vector<std::shared_ptr<kyNetReceiver>>& children)
{
    for (const auto& child : children) {
        m_readers.emplace_back([this, child, source = m_output->addSource()] {
            m_output->readFrom(*child, [&](Buffer&& buffer) {
                // An empty one holds nothing to decompress, whatever it says.
                if (buffer->getCompression() != kyNetCompression::None &&
                    buffer->getDataSize() != 0) {
                    m_compressed->push({std::move(buffer), source});
                } else {
                    m_output->push(std::move(buffer));
                }
            });
        });
    }
    for (unsigned i = 0; i < kyThreads::countHardwareThreads(); ++i) {
        m_workers.emplace_back([this] {
            kyThreads::resetProcessors();
            decompressLoop();
        });
    }
}

void kyNetDecompressReceiver::decompressLoop()
{
    for (Waiting next; m_compressed->pop(next); next = {}) {
        const bool isReady = m_output->getFailure().attempt(
            [&] { m_output->push(checked(m_compressor->decompress(next.buffer))); });
        if (!isReady) {
            m_output->pushFailure();
        }
    }
}

void kyNetDecompressReceiver::recv(std::shared_ptr<kyNetBuffer>& buffer)
{
    m_output->recv(buffer);
}

void kyNetDecompressReceiver::recvAvailable(std::queue<std::shared_ptr<kyNetBuffer>>& queue)
{
    m_output->recvAvailable(queue);
}

void kyNetDecompressReceiver::addToRecvQueue(const std::shared_ptr<kyNetBuffer>& buffer)
{
    const bool isCompressedHere =
        kyNetOptions::getImageCompression() == kyNetCompression::LocalImage &&
        m_compressor->shouldCompressLocal(buffer);
    m_output->push(isCompressedHere ? checked(m_compressor->compress(buffer)) : buffer);
}

bool kyNetDecompressReceiver::isReadable()
{
    return m_output->isReadable();
}

void kyNetDecompressReceiver::stop()
{
    m_compressed->end();
    m_links.clear();
    getLinks(m_links); // Needs no memory but for those that have come since the beginning.
    for (const auto& link : m_links) {
        link->shutdown();
    }
    for (std::thread& reader : m_readers) {
        reader.join();
    }
    for (std::thread& worker : m_workers) {
        worker.join();
    }
}
