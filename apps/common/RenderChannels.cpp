#include <apps/common/RenderChannels.h>

#include <NetBase/receivers/kyNetBufferedReceiver.h>
#include <NetBase/receivers/kyNetDecompressReceiver.h>
#include <NetBase/receivers/kyNetForwardReceiver.h>
#include <NetBase/receivers/kyNetLinkReceiver.h>
#include <NetBase/receivers/kyNetSortReceiver.h>
#include <NetBase/receivers/kyNetUnbundleReceiver.h>
#include <NetBase/senders/kyNetCompressSender.h>
#include <NetBase/senders/kyNetLockedSender.h>
#include <NetBase/senders/kyNetSwitchSender.h>
#include <apps/common/TrafficCounter.h>

namespace render {

std::shared_ptr<kyNetSender>
RenderChannels::makeSender(const std::shared_ptr<kyNetCompressorBase>& compressor,
                           unsigned int rank, std::uint64_t threshold) const
{
    const auto large =
        kyNetCompressSender::create(compressor, kyNetSender::createBundle(image, true, {rank}));
    const auto small = std::make_shared<TrafficCounter>(
        kyNetLockedSender::create(kyNetSender::createBundle(lowLatency, false, {rank})));
    return kyNetSwitchSender::create(large, small, threshold);
}

std::shared_ptr<kyNetReceiver>
RenderChannels::makeReceiver(const std::shared_ptr<kyNetCompressorBase>& compressor,
                             const std::shared_ptr<kyNetSender>& relay, int rank) const
{
    std::vector<std::shared_ptr<kyNetReceiver>> inputs;
    for (const auto* links : {&image, &lowLatency}) {
        for (const auto& link : *links) {
            inputs.push_back(kyNetUnbundleReceiver::create(kyNetLinkReceiver::create(link)));
        }
    }
    if (relay) {
        inputs = {kyNetForwardReceiver::create(kyNetBufferedReceiver::create(inputs), relay, rank)};
    }
    return kyNetSortReceiver::create(kyNetDecompressReceiver::create(compressor, inputs));
}

} // namespace render
