#include <benchmarks/workloads/workloads.h>

#include <benchmarks/core/Run.h>

namespace bench {

namespace {

Sample runRoundTrip(const Contender& contender, double seconds)
{
    const std::vector<Report> reports = runOnce(contender, seconds);
    const Report& client = reports[0];
    const double processorSeconds =
        client.at("processorSeconds") + reports[1].at("processorSeconds");
    return {{client.at("median"), client.at("99th")},
            processorSeconds / client.at("messages") * 1e6};
}

} // namespace

/// A 64-byte request and its reply.
Workload roundTrip()
{
    Terms terms;
    terms.pattern = "roundTrip";
    terms.size = 64;
    std::vector<Contender> contenders{
        library("links", terms, "links"),
        library("stream of bytes", terms, "stream"),
        limit("plain sockets", terms),
    };
    add(contenders, peers({"libzmq", "nng", "openMpi", "ucx"}, terms));
    return {"roundTrip",
            {{"roundTrip, median", "us", true}, {"roundTrip, 99th percentile", "us", true}},
            contenders,
            runRoundTrip,
            {}};
}

} // namespace bench
