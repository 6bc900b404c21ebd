#include <benchmarks/workloads/workloads.h>

#include <algorithm>

#include <benchmarks/core/Run.h>

namespace bench {

namespace {

/// Who leaves less leaves nothing, as far as the clocks tell.
constexpr double s_least = 1e-3;

/// The share of one processor that both processes leave alone while nothing travels, and how much
/// they take of each second.
Sample runIdle(const Contender& contender, double seconds)
{
    const std::vector<Report> reports = runOnce(contender, seconds);
    const double taken = (reports[0].at("processorSeconds") + reports[1].at("processorSeconds")) /
                         reports[1].at("seconds");
    return {{std::max(1 - taken, s_least)}, taken * 1e6};
}

} // namespace

/// A connection over which nothing has come for a while.
Workload idle()
{
    Terms terms;
    terms.pattern = "idle";
    Terms many = terms;
    many.connections = 64;
    std::vector<Contender> contenders{
        library("one link", terms, "links"),
        library("buffered on both sides", terms, "links buffered"),
        library("multi-link receiver, 64 links", many, "links"),
        limit("plain sockets", terms),
    };
    add(contenders, peers({"libzmq", "nng", "openMpi", "ucx"}, terms));
    return {"idle", {{"idle", "of a processor left"}}, contenders, runIdle, {}};
}

} // namespace bench
