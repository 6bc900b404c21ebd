#include <benchmarks/workloads/workloads.h>

namespace bench {

/// Four connections, large messages, one way.
Workload bulk4()
{
    Terms terms;
    terms.size = 131072;
    terms.connections = 4;
    terms.busy = 4;
    std::vector<Contender> contenders{
        library("balanced sender", terms, "links"),
        library("buffered sender and receiver", terms, "links buffered"),
        limit("plain sockets, with readiness", terms),
    };
    add(contenders, peers({"libzmq", "nng", "openMpi"}, terms));
    return {"bulk4", {{"bulk4", "GiB/s"}}, contenders, runForBytes, {}};
}

} // namespace bench
