#include <benchmarks/core/Workload.h>

#include <algorithm>

#include <benchmarks/core/Run.h>

namespace bench {

namespace {

/// Messages a second that the slowest receiver got.
Sample runOneWay(const Contender& contender, double seconds)
{
    const std::vector<Report> reports = runOnce(contender, seconds);
    const double messages = reports.back().at("messages");
    double slowest = 0;
    double processorSeconds = 0;
    for (const Report& report : reports) {
        processorSeconds += report.at("processorSeconds");
        if (report.count("seconds") != 0) {
            slowest = std::max(slowest, report.at("seconds"));
        }
    }
    return {{messages / slowest}, processorSeconds / messages * 1e6};
}

Sample scale(Sample sample, double factor)
{
    sample.values[0] *= factor;
    return sample;
}

} // namespace

Sample runForBytes(const Contender& contender, double seconds)
{
    constexpr double gibibyte = 1 << 30;
    return scale(runOneWay(contender, seconds),
                 static_cast<double>(contender.terms.size) / gibibyte);
}

Sample runForMessages(const Contender& contender, double seconds)
{
    return scale(runOneWay(contender, seconds), 1e-6);
}

} // namespace bench
