#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include <NetBase/senders/kyNetSender.h>

class kyNetCompressorBase;
class kyNetSendQueue;

/// Compresses buffers on all processors before the next sender gets them.
///
///     auto sender = kyNetCompressSender::create(compressor,
///                                               kyNetSender::createBundle(links, true, {2}));
///
/// What the compressor does not want is passed on at once by the thread that sends. The rest
/// waits in a queue of 256 buffers for one of as many threads as the machine has; they are
/// started with the first buffer that is to be compressed, and run until destruction.
///
/// Order: none is kept. Compressed buffers overtake each other, and uncompressed ones overtake
/// them.
///
/// Lifetime: destruction drops what is queued and waits for what is being compressed and sent.
/// Call waitAllDataTransfered before it.
///
/// Threads: any number may use it at once; the last of them has returned before destruction. The
/// target is sent to by several threads at once, so put a kyNetBufferedSender or a
/// kyNetLockedSender there.
///
/// Failures: what the compressor or the target throws in a thread ends that thread's work: what it
/// takes from then on is dropped, the others go on. The first failure is thrown by every send and
/// waitAllDataTransfered from then on, also by those that wait for room or for the threads at that
/// moment; the buffer of such a send may be passed on all the same.
class KY_NETBASE_EXPORT kyNetCompressSender : public kyNetSender
{
public:
    /// In front of this target; create is the usual way. Starts no thread.
    kyNetCompressSender(const std::shared_ptr<kyNetCompressorBase>& compressor,
                        const std::shared_ptr<kyNetSender>& target);
    ~kyNetCompressSender() override;

    static std::shared_ptr<kyNetSender>
    create(const std::shared_ptr<kyNetCompressorBase>& compressor,
           const std::shared_ptr<kyNetSender>& target);

    /// Queues the buffer, or passes it on if it is not to be compressed or is empty; blocks while
    /// the queue is full, or as the target does. Throws the first failure, what the target throws
    /// to it directly, and std::system_error if threads cannot be started; the next send tries
    /// again.
    void send(const std::shared_ptr<kyNetBuffer>& buffer) override;

    /// Counts a buffer that went another way.
    void addStatistics(const std::shared_ptr<kyNetBuffer>& buffer);

    /// Bytes that were passed on, compressed or not, headers included.
    std::uint64_t getCompressedBytes() override;

    /// Sets the count to 0; the target keeps its own.
    void resetStatistics() override;

    /// Blocks, busy but yielding, until every buffer is handed to the target, and then until that
    /// has passed it on. Throws the first failure, or what the target's waiting throws.
    void waitAllDataTransfered() override;

private:
    void startWorkers();
    void compressLoop(kyNetSendQueue& queue);
    void sendToTarget(const std::shared_ptr<kyNetBuffer>& buffer);

    std::shared_ptr<kyNetCompressorBase> m_compressor;
    std::shared_ptr<kyNetSender> m_target;
    std::atomic<std::uint64_t> m_compressedBytes{0};
    std::mutex m_startMutex;
    std::atomic<bool> m_isStarted{false};
    std::unique_ptr<kyNetSendQueue> m_queue; // Last: its end is that of the workers.
};
