#include <benchmarks/core/Measuring.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>

#include <benchmarks/core/Run.h>
#include <benchmarks/core/Stopwatch.h>

namespace bench {

namespace {

/// One workload while it is measured.
class Measurement
{
public:
    Measurement(Workload workload, const Effort& effort)
        : m_workload(std::move(workload)), m_effort(effort)
    {
        auto& contenders = m_workload.contenders;
        if (!effort.withPeers) {
            contenders.erase(std::remove_if(contenders.begin(), contenders.end(),
                                            [](const Contender& contender) {
                                                return contender.kind == Contender::Kind::Peer;
                                            }),
                             contenders.end());
        }
    }

    const std::string& getName() const { return m_workload.name; }

    /// Every contender once; a workload that has its own way all at once, the first time.
    void repeat(int repetition)
    {
        if (m_workload.runAll) {
            if (repetition == 0) {
                runAll();
            }
            return;
        }
        const std::size_t count = m_workload.contenders.size();
        for (std::size_t i = 0; i < count; ++i) {
            const Contender& contender =
                m_workload.contenders[(i + static_cast<std::size_t>(repetition)) % count];
            if (m_failed.count(contender.name) == 0) {
                runOne(contender);
            }
        }
    }

    /// Enters what was measured, in the order of the metrics and contenders.
    void finish(Results& results) const
    {
        for (const Row& row : m_rows) {
            results.add(row);
        }
        for (std::size_t i = 0; i < m_workload.metrics.size(); ++i) {
            for (const Contender& contender : m_workload.contenders) {
                const auto samples = m_samples.find(contender.name);
                if (samples != m_samples.end() && m_failed.count(contender.name) == 0) {
                    results.add(makeRow(i, contender, samples->second));
                }
            }
        }
    }

    bool hasLibraryFailed() const { return m_hasLibraryFailed; }

private:
    void runOne(const Contender& contender)
    {
        try {
            m_samples[contender.name].push_back(m_workload.run(contender, m_effort.secondsPerRun));
        } catch (const std::exception& e) {
            leaveOut(m_workload.name + ", " + contender.name, e);
            m_failed.insert(contender.name);
            m_hasLibraryFailed |= contender.kind != Contender::Kind::Peer;
        }
    }

    void runAll()
    {
        try {
            m_rows = m_workload.runAll(m_effort);
            for (Row& row : m_rows) {
                row.workload = m_workload.name;
            }
        } catch (const NotBuilt& e) {
            leaveOut(m_workload.name, e);
        } catch (const std::exception& e) {
            leaveOut(m_workload.name, e);
            m_hasLibraryFailed = true;
        }
    }

    static void leaveOut(const std::string& what, const std::exception& why)
    {
        std::fprintf(stderr, "%s is left out: %s\n", what.c_str(), why.what());
    }

    Row makeRow(std::size_t metric, const Contender& contender,
                const std::vector<Sample>& samples) const
    {
        Row row{m_workload.name,
                m_workload.metrics[metric],
                contender.name,
                contender.kind,
                contender.reference,
                {},
                {}};
        for (const Sample& sample : samples) {
            row.values.push_back(sample.values.at(metric));
            row.processorMicroseconds.push_back(sample.processorMicroseconds);
        }
        return row;
    }

    Workload m_workload;
    const Effort m_effort;
    std::map<std::string, std::vector<Sample>> m_samples; ///< by contender
    std::set<std::string> m_failed;
    std::vector<Row> m_rows; ///< of runAll
    bool m_hasLibraryFailed = false;
};

} // namespace

void Effort::makeQuick()
{
    secondsPerRun = 0.12;
    secondsInTotal = 105;
    withPeers = false;
}

bool measure(const std::vector<Workload>& workloads, const Effort& effort, Results& results)
{
    std::vector<Measurement> measurements;
    for (const Workload& workload : workloads) {
        measurements.emplace_back(workload, effort);
    }
    const Moment begin = Moment::now();
    bool isInTime = true;
    for (int repetition = 0; repetition < effort.repetitions; ++repetition) {
        for (Measurement& measurement : measurements) {
            const double seconds = Moment::now().secondsSince(begin);
            isInTime = isInTime && seconds < effort.secondsInTotal;
            if (isInTime) {
                std::fprintf(stderr, "%4.0f s  %d of %d  %s\n", seconds, repetition + 1,
                             effort.repetitions, measurement.getName().c_str());
                measurement.repeat(repetition);
            }
        }
    }
    if (!isInTime) {
        std::fputs("The time is over: not every workload has all of its repetitions.\n", stderr);
    }
    bool hasLibraryFailed = false;
    for (const Measurement& measurement : measurements) {
        measurement.finish(results);
        hasLibraryFailed |= measurement.hasLibraryFailed();
    }
    return !hasLibraryFailed;
}

} // namespace bench
