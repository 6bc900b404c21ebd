#include <benchmarks/core/Measuring.h>

#include <algorithm>
#include <cstdio>
#include <set>

#include <benchmarks/core/Run.h>
#include <benchmarks/core/Stopwatch.h>

namespace bench {

namespace {

/// One workload while it is measured.
class Measurement
{
public:
    Measurement(Workload workload, const Effort& effort, Results& results)
        : m_workload(std::move(workload)), m_effort(effort), m_results(results)
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

    /// Every contender once.
    void repeat(int repetition)
    {
        const std::size_t count = m_workload.contenders.size();
        for (std::size_t i = 0; i < count; ++i) {
            const Contender& contender =
                m_workload.contenders[(i + static_cast<std::size_t>(repetition)) % count];
            if (m_failed.count(contender.name) == 0) {
                runOne(contender);
            }
        }
    }

    /// Enters what was measured, in the order of the contenders.
    void finish()
    {
        for (std::size_t i = 0; i < m_workload.metrics.size(); ++i) {
            for (const Contender& contender : m_workload.contenders) {
                if (m_failed.count(contender.name) == 0) {
                    enter(m_workload.metrics[i], i, contender);
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
            std::fprintf(stderr, "%s, %s is left out: %s\n", m_workload.name.c_str(),
                         contender.name.c_str(), e.what());
            m_failed.insert(contender.name);
            m_hasLibraryFailed |= contender.kind != Contender::Kind::Peer;
        }
    }

    void enter(const Metric& metric, std::size_t index, const Contender& contender)
    {
        Row row{
            m_workload.name, metric, contender.name, contender.kind, contender.reference, {}, {}};
        for (const Sample& sample : m_samples[contender.name]) {
            row.values.push_back(sample.values.at(index));
            row.processorMicroseconds.push_back(sample.processorMicroseconds);
        }
        m_results.add(row);
    }

    Workload m_workload;
    const Effort m_effort;
    Results& m_results;
    std::map<std::string, std::vector<Sample>> m_samples;
    std::set<std::string> m_failed;
    bool m_hasLibraryFailed = false;
};

/// False if the library has failed.
bool measureInterleaved(const Workload& workload, const Effort& effort, const Moment& begin,
                        Results& results)
{
    Measurement measurement(workload, effort, results);
    int repetition = 0;
    for (; repetition < effort.repetitions; ++repetition) {
        const double seconds = Moment::now().secondsSince(begin);
        if (seconds > effort.secondsInTotal) {
            break;
        }
        std::fprintf(stderr, "%4.0f s  %s, %d of %d\n", seconds, workload.name.c_str(),
                     repetition + 1, effort.repetitions);
        measurement.repeat(repetition);
    }
    if (repetition > 0) {
        measurement.finish();
    }
    if (repetition < effort.repetitions) {
        std::fprintf(stderr, "The time is over after %d repetitions of %s\n", repetition,
                     workload.name.c_str());
    }
    return repetition == effort.repetitions && !measurement.hasLibraryFailed();
}

bool measureAtOnce(const Workload& workload, const Effort& effort, Results& results)
{
    std::fprintf(stderr, "        %s\n", workload.name.c_str());
    try {
        for (Row row : workload.runAll(effort)) {
            row.workload = workload.name;
            results.add(row);
        }
        return true;
    } catch (const NotBuilt& e) {
        std::fprintf(stderr, "%s is left out: %s\n", workload.name.c_str(), e.what());
        return true;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s is left out: %s\n", workload.name.c_str(), e.what());
        return false;
    }
}

} // namespace

void Effort::makeQuick()
{
    secondsPerRun = 0.12;
    secondsInTotal = 105;
    withPeers = false;
}

bool measure(const std::vector<Workload>& workloads, const Effort& effort, Results& results)
{
    const Moment begin = Moment::now();
    bool isDone = true;
    for (const Workload& workload : workloads) {
        isDone &= workload.runAll ? measureAtOnce(workload, effort, results)
                                  : measureInterleaved(workload, effort, begin, results);
    }
    std::fprintf(stderr, "%4.0f s\n", Moment::now().secondsSince(begin));
    return isDone;
}

} // namespace bench
