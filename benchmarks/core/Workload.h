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

/// What one contender has reached in one metric, over all repetitions.
struct Row
{
    std::string workload;
    Metric metric;
    std::string contender;
    Contender::Kind kind = Contender::Kind::Library;
    /// As in Contender.
    std::string reference;
    std::vector<double> values;
    std::vector<double> processorMicroseconds;
};

/// How long the measuring may take.
struct Effort
{
    /// Runs of each contender.
    int repetitions = 5;
    /// What the measured part of a run takes.
    double secondsPerRun = 0.4;
    /// What all runs may take together: when that is over, no repetition is begun any more.
    double secondsInTotal = 690;
    bool withPeers = true;

    void makeQuick();
};

/// Work that contenders do side by side. It has either contenders and `run`, or `runAll`.
struct Workload
{
    std::string name;
    std::vector<Metric> metrics;
    std::vector<Contender> contenders;
    /// Runs a contender once, for about so many seconds.
    std::function<Sample(const Contender&, double seconds)> run;
    /// Runs contenders of its own, all repetitions of each.
    std::function<std::vector<Row>(const Effort&)> runAll;
};

/// What a run of the pattern "oneWay" has reached: the messages a second of the slowest receiver,
/// times a factor.
Sample summarise(const std::vector<Report>& reports, double factor);

/// Runs of the pattern "oneWay": GiB of messages a second, or millions of messages a second.
Sample runForBytes(const Contender& contender, double seconds);
Sample runForMessages(const Contender& contender, double seconds);

} // namespace bench
