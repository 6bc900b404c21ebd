#include <benchmarks/workloads/workloads.h>

#include <string>

namespace bench {

namespace {

Terms makeTerms(std::uint64_t size, int connections, int busy)
{
    Terms terms;
    terms.size = size;
    terms.connections = connections;
    terms.busy = busy;
    return terms;
}

/// Microseconds a message.
Sample runForCost(const Contender& contender, double seconds)
{
    Sample sample = runForMessages(contender, seconds);
    sample.values[0] = 1 / sample.values[0];
    return sample;
}

} // namespace

/// Large messages from 64 connections into one thread.
Workload fanInLarge()
{
    const Terms terms = makeTerms(131072, 64, 64);
    std::vector<Contender> contenders{
        library("multi-link receiver", terms, "links"),
        limit("plain sockets, with readiness", terms),
    };
    add(contenders, peers({"libzmq", "nng", "openMpi"}, terms));
    return {"fanInLarge", {{"fan-in of 64, 131072 bytes", "GiB/s"}}, contenders, runForBytes, {}};
}

/// Small ones.
Workload fanInSmall()
{
    const Terms terms = makeTerms(64, 64, 64);
    std::vector<Contender> contenders{
        library("each alone", terms, "links"),
        library("bundled", terms, "links bundled"),
        limit("plain sockets, with readiness", terms),
        limit("plain sockets, 64 KiB at a time", terms, "gathered"),
    };
    add(contenders, peers({"libzmq", "nng", "openMpi"}, terms));
    return {
        "fanInSmall", {{"fan-in of 64, 64 bytes", "million/s"}}, contenders, runForMessages, {}};
}

/// How the cost of a message grows with the connections that are silent. The ratios are to the
/// library's own cost with 64 connections.
Workload fanInOneBusy()
{
    const auto nameOf = [](int connections) {
        return "1 of " + std::to_string(connections) + " busy";
    };
    const auto makeWindowed = [](int connections) {
        Terms terms = makeTerms(64, connections, 1);
        terms.window = 512;
        return terms;
    };
    std::vector<Contender> contenders;
    for (const int connections : {1, 16, 64, 256, 1024}) {
        contenders.push_back(library(nameOf(connections), makeWindowed(connections), "links",
                                     "library, " + nameOf(64)));
    }
    for (const int connections : {64, 1024}) {
        contenders.push_back(
            limit("plain sockets, " + nameOf(connections), makeWindowed(connections)));
    }
    return {"fanInOneBusy",
            {{"fan-in, one busy, 64 bytes", "us/message", true}},
            contenders,
            runForCost,
            {}};
}

} // namespace bench
