#include <benchmarks/core/Workload.h>

#include <algorithm>

#include <benchmarks/core/Run.h>

namespace bench {

Sample summarise(const std::vector<Report>& reports, double factor)
{
    const double messages = reports.back().at("messages");
    double slowest = 0;
    double processorSeconds = 0;
    for (const Report& report : reports) {
        processorSeconds += report.at("processorSeconds");
        if (report.count("seconds") != 0) {
            slowest = std::max(slowest, report.at("seconds"));
        }
    }
    return {{messages / slowest * factor}, processorSeconds / messages * 1e6};
}

Sample runForBytes(const Contender& contender, double seconds)
{
    constexpr double gibibyte = 1 << 30;
    return summarise(runOnce(contender, seconds),
                     static_cast<double>(contender.terms.size) / gibibyte);
}

Sample runForMessages(const Contender& contender, double seconds)
{
    return summarise(runOnce(contender, seconds), 1e-6);
}

} // namespace bench
