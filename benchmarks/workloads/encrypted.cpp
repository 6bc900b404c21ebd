#include <benchmarks/workloads/workloads.h>

namespace bench {

/// As bulk, with the cipher of the programs on the link. The limit is the cipher without a network.
Workload encrypted()
{
    Terms terms;
    terms.size = 131072;
    Terms alone = terms;
    alone.receivers = 0;
    const std::vector<Contender> contenders{
        library("links", terms, "links cipher"),
        library("links, buffered on both sides", terms, "links buffered cipher"),
        {"the cipher alone, on one processor", Contender::Kind::Limit, "cipherAlone", alone, ""},
    };
    return {"encrypted", {{"encrypted", "GiB/s"}}, contenders, runForBytes, {}};
}

} // namespace bench
