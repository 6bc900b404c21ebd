#pragma once

#include <memory>
#include <thread>
#include <vector>

#include <NetBase/receivers/kyNetReceiver.h>

class kyNetCompressorBase;
class kyNetRecvQueue;

/// Decompresses buffers on all processors, the counterpart of kyNetCompressSender, and reads ahead
/// from its children as kyNetBufferedReceiver does.
///
///     auto receiver = kyNetSortReceiver::create(
///         kyNetDecompressReceiver::create(compressor, children));
///
/// A thread for each child receives from it, from construction on. What comes uncompressed, or
/// empty, is ready at once; the rest is decompressed by as many threads as the machine has.
///
/// Order: none is kept; a kyNetSortReceiver above restores it for multicasts. A bundle holds
/// compressed buffers, so a kyNetUnbundleReceiver stands over each link.
///
/// Limits: reads ahead without a bound; whoever sends has to wait for answers if the process may
/// be too slow.
///
/// Threads: one thread at a time receives, any number may put in buffers of the own process. The
/// compressor is used by several threads at once.
///
/// Lifetime: destruction shuts down every link below and waits for what is being decompressed; what
/// waits, or comes then, is dropped. A child that waits for something else than its links delays
/// it. Without memory it ends all the same.
///
/// Failures: what a child's recv throws, a time-out too, ends its thread, and is told behind all
/// that came from that child before; what the compressor throws costs that buffer only. For each of
/// them recv throws the first failure of all. Other children go on; when none is left, every recv
/// throws at once. Empty buffers of children are delivered like all others.
class KY_NETBASE_EXPORT kyNetDecompressReceiver : public kyNetReceiver
{
public:
    /// Over these children; create is the usual way. Starts the threads; throws std::system_error
    /// if one cannot be started, and has then shut down the links.
    kyNetDecompressReceiver(const std::shared_ptr<kyNetCompressorBase>& compressor,
                            const std::vector<std::shared_ptr<kyNetReceiver>>& children);
    ~kyNetDecompressReceiver() override;

    kyNetDecompressReceiver(const kyNetDecompressReceiver&) = delete;
    kyNetDecompressReceiver& operator=(const kyNetDecompressReceiver&) = delete;

    static std::shared_ptr<kyNetReceiver>
    create(const std::shared_ptr<kyNetCompressorBase>& compressor,
           const std::vector<std::shared_ptr<kyNetReceiver>>& children);

    /// The next buffer that is ready; blocks until there is one. Throws the first failure, and
    /// kyConnectionClosed if there are no children.
    void recv(std::shared_ptr<kyNetBuffer>& buffer) override;

    /// All that is ready, up to a failure; blocks and throws as recv.
    void recvAvailable(std::queue<std::shared_ptr<kyNetBuffer>>& queue) override;

    /// Makes a buffer ready: compressed, if the image compression is LocalImage and the compressor
    /// wants it, or else as it is. Throws what the compressor throws.
    void addToRecvQueue(const std::shared_ptr<kyNetBuffer>& buffer) override;

    /// Whether a buffer is ready, or recv would throw at once because every child has failed.
    bool isReadable() override;

private:
    class Compressed;

    void startThreads(const std::vector<std::shared_ptr<kyNetReceiver>>& children);
    void decompressLoop();
    void stop();

    std::shared_ptr<kyNetCompressorBase> m_compressor;
    std::unique_ptr<kyNetRecvQueue> m_output;
    std::unique_ptr<Compressed> m_compressed;
    std::vector<std::shared_ptr<kyNetLink>> m_links; ///< Those that the end shuts down.
    std::vector<std::thread> m_readers;
    std::vector<std::thread> m_workers;
};
