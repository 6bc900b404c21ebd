#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <NetBase/receivers/kyNetReceiver.h>
#include <NetBase/senders/kyNetSender.h>

class kyNetCompressorBase;
class kyNetLink;

namespace render {

/// The chains over all channels between two processes, as docs/chains.md recommends them.
///
///     to the other side                            from the other side
///
///          switch by size                               sort
///         /              \                               |
///     compress         locked                       decompress
///        |                |                              |
///     buffered         balanced                    unbundle, one
///     /  |  \          /  |  \                     for each channel
///      image         low latency                   |  |  |  |  |  |
///     channels        channels                       all channels
///
/// Large buffers are compressed on all processors and leave on whichever image channel is free;
/// small ones leave at once on a low latency channel, on the caller's thread. Any number of threads
/// may send. Multicasts arrive in the order in which they were sent; other buffers overtake each
/// other, so each must be a whole message.
struct RenderChannels
{
    std::vector<std::shared_ptr<kyNetLink>> image;
    std::vector<std::shared_ptr<kyNetLink>> lowLatency;

    /// The chain to the other side, which is `rank`. Buffers above `threshold` bytes are large. Its
    /// getCompressedBytes counts all bytes that leave, whether compressed or not.
    std::shared_ptr<kyNetSender> makeSender(const std::shared_ptr<kyNetCompressorBase>& compressor,
                                            unsigned int rank, std::uint64_t threshold) const;

    /// The chain from the other side; begins to read ahead at once. With a relay, every multicast
    /// is passed on to it as it comes, still compressed.
    std::shared_ptr<kyNetReceiver>
    makeReceiver(const std::shared_ptr<kyNetCompressorBase>& compressor,
                 const std::shared_ptr<kyNetSender>& relay = nullptr, int rank = 0) const;
};

} // namespace render
