#include <NetBase/senders/kyNetCompressSender.h>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetOptions.h>
#include <NetBase/platform/kyThreads.h>
#include <NetBase/senders/kyNetCompressorBase.h>
#include <NetBase/senders/kyNetSendQueue.h>

kyNetCompressSender::kyNetCompressSender(const std::shared_ptr<kyNetCompressorBase>& compressor,
                                         const std::shared_ptr<kyNetSender>& target)
    : kyNetSender(target),
      m_compressor(compressor),
      m_target(target),
      m_queue(std::make_unique<kyNetSendQueue>(kyNetOptions::getMaxIOBuffers()))
{
}

kyNetCompressSender::~kyNetCompressSender() = default;

std::shared_ptr<kyNetSender>
kyNetCompressSender::create(const std::shared_ptr<kyNetCompressorBase>& compressor,
                            const std::shared_ptr<kyNetSender>& target)
{
    return std::make_shared<kyNetCompressSender>(compressor, target);
}

void kyNetCompressSender::send(const std::shared_ptr<kyNetBuffer>& buffer)
{
    m_queue->getFailure().rethrowIfSet();
    // An empty buffer has nothing to compress.
    if (buffer->getDataSize() != 0 && m_compressor->shouldCompress(buffer)) {
        startWorkers();
        m_queue->push(buffer);
    } else {
        sendToTarget(buffer);
    }
}

void kyNetCompressSender::startWorkers()
{
    if (m_isStarted) {
        return;
    }
    const std::lock_guard<std::mutex> lock(m_startMutex);
    while (m_queue->countWorkers() < kyThreads::countHardwareThreads()) {
        m_queue->startWorker([this, queue = m_queue.get()] { compressLoop(*queue); });
    }
    m_isStarted = true;
}

void kyNetCompressSender::compressLoop(kyNetSendQueue& queue)
{
    bool hasFailed = false;
    for (std::shared_ptr<kyNetBuffer> buffer; queue.pop(buffer); queue.release(1)) {
        if (!hasFailed) {
            hasFailed =
                !queue.getFailure().attempt([&] { sendToTarget(m_compressor->compress(buffer)); });
        }
        buffer.reset();
    }
}

void kyNetCompressSender::sendToTarget(const std::shared_ptr<kyNetBuffer>& buffer)
{
    // Read before: the target may give the buffer on to somebody who changes it.
    const std::uint64_t size = buffer->getBufferSize();
    m_target->send(buffer);
    m_compressedBytes += size;
}

void kyNetCompressSender::addStatistics(const std::shared_ptr<kyNetBuffer>& buffer)
{
    m_compressedBytes += buffer->getBufferSize();
}

std::uint64_t kyNetCompressSender::getCompressedBytes()
{
    return m_compressedBytes;
}

void kyNetCompressSender::resetStatistics()
{
    m_compressedBytes = 0;
}

void kyNetCompressSender::waitAllDataTransfered()
{
    m_queue->waitUntilReleased();
    kyNetSender::waitAllDataTransfered();
}
