#include <benchmarks/workloads/workloads.h>

namespace bench {

/// One connection, 64-byte messages, one way: each sent alone, and gathered.
Workload small()
{
    Terms terms;
    terms.size = 64;
    const std::string gathered = "plain sockets, 64 KiB at a time";
    std::vector<Contender> contenders{
        library("each alone", terms, "links"),
        library("as messages, bundled", terms, "links bundled"),
        library("stream of 64-byte values", terms, "records", gathered),
        limit("plain sockets, each alone", terms),
        limit(gathered, terms, "gathered"),
    };
    add(contenders, peers({"libzmq", "nng", "openMpi", "ucx"}, terms));
    return {"small", {{"small", "million/s"}}, contenders, runForMessages, {}};
}

} // namespace bench
