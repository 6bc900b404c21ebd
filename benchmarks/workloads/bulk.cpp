#include <benchmarks/workloads/workloads.h>

namespace bench {

/// One connection, large messages, one way.
Workload bulk()
{
    Terms terms;
    terms.size = 131072;
    std::vector<Contender> contenders{
        library("links", terms, "links"),
        library("links, buffered on both sides", terms, "links buffered"),
        library("stream of bytes", terms, "stream"),
        library("stream of 8-byte values", terms, "values"),
        limit("plain sockets", terms),
    };
    add(contenders, peers({"libzmq", "nng", "openMpi", "ucx"}, terms));
    return {"bulk", {{"bulk", "GiB/s"}}, contenders, runForBytes, {}};
}

} // namespace bench
