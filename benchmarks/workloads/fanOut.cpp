#include <benchmarks/workloads/workloads.h>

namespace bench {

/// Each message to four processes; what each of them gets.
Workload fanOut()
{
    Terms terms;
    terms.size = 131072;
    terms.receivers = 4;
    std::vector<Contender> contenders{
        library("direct", terms, "links"),
        library("direct, buffered", terms, "links buffered"),
        library("relay tree", terms, "links relay"),
        library("relay tree, buffered", terms, "links relay buffered"),
        limit("plain sockets", terms),
    };
    add(contenders, peers({"libzmq", "nng", "openMpi"}, terms));
    return {"fanOut", {{"fan-out to 4", "GiB/s each"}}, contenders, runForBytes, {}};
}

} // namespace bench
