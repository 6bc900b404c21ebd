#include <benchmarks/workloads/workloads.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <benchmarks/core/Run.h>
#include <benchmarks/core/platform/Processes.h>

namespace bench {

namespace {

/// Who is the limit, by the name that its benchmarks have.
const std::vector<std::string> s_limits{"memcpy", "malloc"};

/// What a program may take for each repetition.
constexpr double s_patience = 60.0;

/// A benchmark is named "<metric>/<who>" or "<metric>/<who>/<more of the metric>".
Row makeRow(const std::string& name, const std::string& workload)
{
    const std::size_t first = name.find('/');
    if (first == std::string::npos) {
        throw std::runtime_error(name + " is not named <metric>/<who>");
    }
    const std::size_t second = std::min(name.find('/', first + 1), name.size());
    std::string more = name.substr(second);
    std::replace(more.begin(), more.end(), '/', ' ');
    Row row;
    row.metric = {workload + ", " + name.substr(0, first) + more, "ns", true};
    row.contender = name.substr(first + 1, second - first - 1);
    if (std::count(s_limits.begin(), s_limits.end(), row.contender) > 0) {
        row.kind = Contender::Kind::Limit;
    } else if (row.contender.rfind("library", 0) != 0) {
        row.kind = Contender::Kind::Peer;
    }
    return row;
}

Row& findRow(std::vector<Row>& rows, const Row& like)
{
    const auto found = std::find_if(rows.begin(), rows.end(), [&](const Row& row) {
        return row.metric.name == like.metric.name && row.contender == like.contender;
    });
    return found != rows.end() ? *found : rows.emplace_back(like);
}

/// With several threads the time by the clock counts, or else that of the processor.
double getNanoseconds(const nlohmann::json& run)
{
    const double factor = run.at("time_unit") == "ns" ? 1 : run.at("time_unit") == "us" ? 1e3 : 1e6;
    return run.at(run.value("threads", 1) > 1 ? "real_time" : "cpu_time").get<double>() * factor;
}

/// A row for each benchmark, with a value for each repetition; those of one metric together.
std::vector<Row> readRows(const std::string& path, const std::string& workload)
{
    const nlohmann::json report = nlohmann::json::parse(std::ifstream(path));
    std::vector<Row> rows;
    for (const nlohmann::json& run : report.at("benchmarks")) {
        if (run.at("run_type") == "iteration") {
            Row& row = findRow(rows, makeRow(run.at("run_name"), workload));
            row.values.push_back(getNanoseconds(run));
            row.processorMicroseconds.push_back(run.at("cpu_time").get<double>() / 1e3);
        }
    }
    std::stable_sort(rows.begin(), rows.end(),
                     [](const Row& a, const Row& b) { return a.metric.name < b.metric.name; });
    return rows;
}

std::vector<Row> runProgram(const std::string& program, const std::string& workload,
                            const Effort& effort)
{
    requireProgram(program);
    const TemporaryFolder folder;
    const std::string output = folder.getPath() + "/output";
    const std::string report = folder.getPath() + "/report.json";
    std::vector<std::string> command{
        programPath(program),
        "--benchmark_out=" + report,
        "--benchmark_out_format=json",
        "--benchmark_enable_random_interleaving=true",
        "--benchmark_repetitions=" + std::to_string(effort.repetitions),
        "--benchmark_min_time=" + std::to_string(effort.secondsPerRun / 8)};
    if (!effort.withPeers) {
        command.emplace_back("--benchmark_filter=/(library|memcpy|malloc)");
    }
    std::vector<Process> processes;
    processes.emplace_back(Process::Settings{command, 0, output});
    waitForAll(processes, s_patience * effort.repetitions, output);
    return readRows(report, workload);
}

} // namespace

/// Values into buffers and back, without a network.
Workload serializer()
{
    return {"serializer", {}, {}, {}, [](const Effort& effort) {
                return runProgram("kySerializerBenchmark", "serializer", effort);
            }};
}

/// Buffers out of the pool and back.
Workload pool()
{
    return {"pool", {}, {}, {}, [](const Effort& effort) {
                return runProgram("kyPoolBenchmark", "pool", effort);
            }};
}

} // namespace bench
