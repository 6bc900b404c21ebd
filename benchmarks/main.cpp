// Measures the library beside plain sockets and the libraries that a user could take instead.
// scripts/bench.sh builds and runs it; docs/performance.md tells how to read what it prints.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include <apps/common/CommandLine.h>
#include <benchmarks/core/Measuring.h>
#include <benchmarks/core/Results.h>
#include <benchmarks/workloads/workloads.h>

namespace {

struct Arguments
{
    bench::Effort effort;
    bool isQuick = false;
    std::vector<std::string> workloads;
    std::string folder = ".";
    std::string baseline;
    std::string newBaseline;
};

std::vector<std::string> getNames(const std::vector<bench::Workload>& workloads)
{
    std::vector<std::string> names;
    for (const bench::Workload& workload : workloads) {
        names.push_back(workload.name);
    }
    return names;
}

std::vector<bench::Workload> select(const std::vector<bench::Workload>& all,
                                    const std::vector<std::string>& names)
{
    std::vector<bench::Workload> selected;
    std::copy_if(
        all.begin(), all.end(), std::back_inserter(selected), [&](const bench::Workload& workload) {
            return names.empty() || std::count(names.begin(), names.end(), workload.name) > 0;
        });
    return selected;
}

template <class Write> void writeFile(const std::filesystem::path& path, Write write)
{
    std::ofstream file(path);
    write(file);
    file.close();
    if (!file) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

void writeResults(const bench::Results& results, const Arguments& arguments)
{
    const std::filesystem::path folder = arguments.folder;
    std::filesystem::create_directories(folder);
    writeFile(folder / "results.csv", [&](std::ostream& out) { results.writeCsv(out); });
    writeFile(folder / "table.txt", [&](std::ostream& out) { results.writeTable(out); });
    for (const std::string& workload : results.getWorkloads()) {
        writeFile(folder / (workload + ".dat"),
                  [&](std::ostream& out) { results.writePlotData(workload, out); });
    }
    if (!arguments.newBaseline.empty()) {
        writeFile(arguments.newBaseline, [&](std::ostream& out) { results.writeBaseline(out); });
    }
    results.writeTable(std::cout);
}

std::vector<bench::Fall> compare(const std::string& baseline, const bench::Results& results)
{
    std::ifstream file(baseline);
    if (!file) {
        throw std::runtime_error("cannot read " + baseline);
    }
    return results.compareWithBaseline(file);
}

/// Where a ratio has fallen, measures that workload once more and longer: what counts is what falls
/// twice.
std::vector<bench::Fall> compareTwice(const Arguments& arguments, const bench::Results& results)
{
    std::vector<bench::Fall> fallen = compare(arguments.baseline, results);
    if (fallen.empty()) {
        return fallen;
    }
    std::vector<std::string> workloads;
    for (const bench::Fall& fall : fallen) {
        workloads.push_back(fall.workload);
    }
    bench::Effort effort = arguments.effort;
    effort.repetitions *= 2;
    bench::Results again;
    bench::measure(select(bench::allWorkloads(), workloads), effort, again);
    return compare(arguments.baseline, again);
}

bool keepsToBaseline(const Arguments& arguments, const bench::Results& results)
{
    const std::vector<bench::Fall> fallen = compareTwice(arguments, results);
    for (const bench::Fall& fall : fallen) {
        std::cout << "FELL  " << fall.sentence << '\n';
    }
    if (fallen.empty()) {
        std::cout << "No ratio is more than 15 % below " << arguments.baseline << '\n';
    }
    return fallen.empty();
}

} // namespace

int main(int argc, char** argv)
{
    const std::vector<bench::Workload> all = bench::allWorkloads();
    Arguments arguments;
    CLI::App program("Measures the library beside plain sockets and other libraries.");
    program.add_flag("--quick", arguments.isQuick,
                     "Shorter runs, without the other libraries; two minutes at most");
    program.add_option("--workload", arguments.workloads, "Only this one; may be given again")
        ->check(CLI::IsMember(getNames(all)))
        ->allow_extra_args(false);
    program.add_option("--repetitions", arguments.effort.repetitions, "Runs of each contender")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    program
        .add_option("--folder", arguments.folder, "Gets results.csv, table.txt and data for plots")
        ->capture_default_str();
    program
        .add_option("--check", arguments.baseline,
                    "Compare the ratios with those of this file, and fail if one fell by 15 %")
        ->check(CLI::ExistingFile);
    program.add_option("--write-baseline", arguments.newBaseline,
                       "Write the ratios to this file, for --check");
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return report(program, e);
    }
    if (arguments.isQuick) {
        arguments.effort.makeQuick();
    }

    try {
        bench::Results results;
        const bool isDone =
            bench::measure(select(all, arguments.workloads), arguments.effort, results);
        writeResults(results, arguments);
        const bool isKept = arguments.baseline.empty() || keepsToBaseline(arguments, results);
        return isDone && isKept ? Done : Failed;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kyBenchmark: %s\n", e.what());
        return Failed;
    }
}
