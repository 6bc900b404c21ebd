#include <benchmarks/library/chains.h>

#include <NetBase/buffers/kyNetOptions.h>
#include <NetBase/receivers/kyNetBufferedReceiver.h>
#include <NetBase/receivers/kyNetDecompressReceiver.h>
#include <NetBase/receivers/kyNetLinkReceiver.h>
#include <NetBase/receivers/kyNetMultiLinkReceiver.h>
#include <NetBase/receivers/kyNetUnbundleReceiver.h>
#include <NetBase/senders/kyNetCompressSender.h>
#include <apps/common/MethodCompressor.h>
#include <benchmarks/core/Terms.h>

namespace bench {

namespace {

bool isCompressed(const Terms& terms)
{
    return uses(terms, "lz4") || uses(terms, "zstd");
}

using Receivers = std::vector<std::shared_ptr<kyNetReceiver>>;

Receivers makeLeaves(const Links& links, bool isBundled)
{
    Receivers leaves;
    for (const auto& link : links) {
        leaves.push_back(kyNetLinkReceiver::create(link));
        if (isBundled) {
            leaves.back() = kyNetUnbundleReceiver::create(leaves.back());
        }
    }
    return leaves;
}

} // namespace

std::shared_ptr<kyNetSender> makeSender(const Terms& terms, const Links& links,
                                        const std::set<unsigned int>& destinations)
{
    const bool hasThreads =
        uses(terms, "buffered") || uses(terms, "bundled") || isCompressed(terms);
    auto sender = kyNetSender::createBundle(links, hasThreads, destinations);
    if (isCompressed(terms)) {
        kyNetOptions::setDataCompression(uses(terms, "zstd") ? ZstdCompressor::s_method
                                                             : Lz4Compressor::s_method);
        sender = kyNetCompressSender::create(std::make_shared<MethodCompressor>(), sender);
    }
    return sender;
}

std::shared_ptr<kyNetReceiver> makeReceiver(const Terms& terms, const Links& links)
{
    if (isCompressed(terms)) {
        return kyNetDecompressReceiver::create(std::make_shared<MethodCompressor>(),
                                               makeLeaves(links, true));
    }
    const bool isBundled = uses(terms, "bundled");
    if (uses(terms, "buffered")) {
        return kyNetBufferedReceiver::create(makeLeaves(links, isBundled));
    }
    const auto receiver = kyNetMultiLinkReceiver::create(links);
    return isBundled ? kyNetUnbundleReceiver::create(receiver) : receiver;
}

} // namespace bench
