#pragma once

#include <functional>
#include <string>
#include <vector>

#include <benchmarks/core/Contender.h>
#include <benchmarks/core/Meeting.h>

namespace bench {

/// One thing that a workload measures: a part of the table, and a plot.
struct Metric
{
    std::string name;
    std::string unit;
    bool isLessBetter = false;
};

/// What one run of a contender gives: a value for each metric, and the processor time that all its
/// processes took for a message together.
struct Sample
{
    std::vector<double> values;
    double processorMicroseconds = 0;
};

/// Work that the contenders do side by side.
struct Workload
{
    std::string name;
    std::vector<Metric> metrics;
    std::vector<Contender> contenders;
    /// Runs a contender once, for about so many seconds.
    std::function<Sample(const Contender&, double seconds)> run;
};

/// What a run of the pattern "oneWay" has reached: the messages a second of the slowest receiver,
/// times a factor.
Sample summarise(const std::vector<Report>& reports, double factor);

/// Runs of the pattern "oneWay": GiB of messages a second, or millions of messages a second.
Sample runForBytes(const Contender& contender, double seconds);
Sample runForMessages(const Contender& contender, double seconds);

} // namespace bench
