#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <NetBase/links/kySocketLink.h>
#include <NetBase/receivers/kyNetDecompressReceiver.h>
#include <NetBase/receivers/kyNetLinkReceiver.h>
#include <NetBase/receivers/kyNetSortReceiver.h>
#include <NetBase/receivers/kyNetUnbundleReceiver.h>
#include <NetBase/senders/kyNetCompressSender.h>
#include <NetBase/senders/kyNetSender.h>
#include <NetBase/serialization/kyNetMessage.h>
#include <NetBase/serialization/kyNetStream.h>
#include <tests/support/kyTestChains.h>
#include <tests/support/kyTestTraffic.h>
#include <tests/support/kyTestWait.h>

/// Whole chains as an application assembles them.
namespace kyTest {

using Links = std::vector<std::shared_ptr<kyNetLink>>;
using Receivers = std::vector<std::shared_ptr<kyNetReceiver>>;
using Ranks = std::set<unsigned int>;

/// Compresses on all processors, and spreads over the links.
inline std::shared_ptr<kyNetSender> makeFullSender(const Links& links, const Ranks& ranks)
{
    return kyNetCompressSender::create(std::make_shared<TrimCompressor>(),
                                       kyNetSender::createBundle(links, true, ranks));
}

/// The mirror: splits bundles as they come from each link, decompresses, restores the order.
inline std::shared_ptr<kyNetReceiver> makeFullReceiver(const Links& links)
{
    Receivers receivers;
    for (const auto& link : links) {
        receivers.push_back(kyNetUnbundleReceiver::create(kyNetLinkReceiver::create(link)));
    }
    return kyNetSortReceiver::create(
        kyNetDecompressReceiver::create(std::make_shared<TrimCompressor>(), receivers));
}

/// Both ends of several TCP connections.
struct Channels
{
    explicit Channels(int count)
    {
        for (int i = 0; i < count; ++i) {
            const auto [first, second] = makeLinks();
            near.push_back(first);
            far.push_back(second);
        }
    }

    Links near;
    Links far;
};

/// Sends the message of that number to a rank, or to all for 0.
inline void sendNumbered(kyNetStream& stream, std::uint32_t number, int destination = 0)
{
    const std::string content = contentOf(number);
    kyNetMessage message;
    message.putBytes(content.data(), content.size());
    stream.sendMessage(message, destination, kyNetBufferSendMode::Automatic);
}

/// How many multicasts are answered at once.
constexpr std::uint32_t s_window = 20000;

/// Sends so many multicasts and waits for the answers, so that never more than two windows are on
/// their way: the numbers in buffers tell fewer than 65536 apart.
inline void sendMulticasts(kyNetStream& stream, std::uint32_t count)
{
    std::uint32_t unanswered = 0;
    for (std::uint32_t number = 0; number < count; ++number) {
        sendNumbered(stream, number);
        if ((number + 1) % s_window == 0 && ++unanswered == 2) {
            stream.waitSync();
            --unanswered;
        }
    }
    for (; unanswered > 0; --unanswered) {
        stream.waitSync();
    }
    stream.waitAllDataTransfered();
}

/// Answers if this multicast was the last of its window.
inline void answerMulticast(kyNetStream& stream, std::uint32_t number)
{
    if ((number + 1) % s_window == 0) {
        stream.sendSync(static_cast<int>(number));
    }
}

/// Unicasts for a rank have numbers from this times the rank on; all multicasts' are below it.
constexpr std::uint32_t s_unicastStep = 1000000;

/// Counts what passes.
class CountingReceiver : public kyNetReceiver
{
public:
    explicit CountingReceiver(const std::shared_ptr<kyNetReceiver>& source)
        : kyNetReceiver(source), m_source(source)
    {
    }

    void recv(Buffer& buffer) override
    {
        ++asked;
        m_source->recv(buffer);
        ++delivered;
    }

    std::atomic<std::uint32_t> asked{0};
    std::atomic<std::uint32_t> delivered{0};

private:
    std::shared_ptr<kyNetReceiver> m_source;
};

/// Waits until the system takes no more for the link, since its peer does not read.
inline bool isFull(const std::shared_ptr<kyNetLink>& link)
{
    return waitUntil(
        [&] { return !std::dynamic_pointer_cast<kySocketLink>(link)->pollWritable(0); });
}

} // namespace kyTest
