#pragma once

#include <memory>

#include <NetBase/receivers/kyNetReceiver.h>
#include <NetBase/senders/kyNetSender.h>
#include <benchmarks/library/links.h>

namespace bench {

/// The rank that a process of the benchmark has in the library, where 0 stands for all.
constexpr unsigned int toLibraryRank(int rank)
{
    return static_cast<unsigned int>(rank) + 1;
}

/// A chain to one process over these links.
///
///     (no word)   the caller's thread sends, over the links in turn
///     buffered    a thread for each link
///     bundled     the same; small buffers travel in bundles, as they always do then
///     lz4, zstd   compressed on all processors above that
std::shared_ptr<kyNetSender> makeSender(const Terms& terms, const Links& links,
                                        const std::set<unsigned int>& destinations);

/// The chain at the other end.
///
///     (no word)   the caller's thread receives, from all links by one poll if there are several
///     buffered    a thread for each link
///     bundled     opens bundles, on the caller's thread unless "buffered" too
///     lz4, zstd   decompresses on all processors
std::shared_ptr<kyNetReceiver> makeReceiver(const Terms& terms, const Links& links);

} // namespace bench
