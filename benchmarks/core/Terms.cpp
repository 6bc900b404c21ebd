#include <benchmarks/core/Terms.h>

#include <cstdlib>

#include <CLI/CLI.hpp>

namespace bench {

std::vector<std::string> Terms::toArguments(bool withRank) const
{
    std::vector<std::string> arguments{"--pattern",     pattern,
                                       "--receivers",   std::to_string(receivers),
                                       "--size",        std::to_string(size),
                                       "--connections", std::to_string(connections),
                                       "--busy",        std::to_string(busy),
                                       "--window",      std::to_string(window),
                                       "--seconds",     std::to_string(seconds),
                                       "--folder",      folder};
    const auto addIfSet = [&](const char* option, const std::string& value) {
        if (!value.empty()) {
            arguments.insert(arguments.end(), {option, value});
        }
    };
    addIfSet("--variant", variant);
    addIfSet("--data", dataFile);
    addIfSet("--rank", withRank ? std::to_string(rank) : "");
    return arguments;
}

Terms Terms::parse(int argc, char** argv)
{
    Terms terms;
    CLI::App program("One process of a benchmark's run; scripts/bench.sh starts it.");
    program.add_option("--pattern", terms.pattern)
        ->check(CLI::IsMember({"oneWay", "roundTrip", "idle"}));
    program.add_option("--variant", terms.variant);
    program.add_option("--rank", terms.rank)->envname("OMPI_COMM_WORLD_RANK");
    program.add_option("--receivers", terms.receivers);
    program.add_option("--size", terms.size)->check(CLI::Range(32, 131072));
    program.add_option("--connections", terms.connections)->check(CLI::PositiveNumber);
    program.add_option("--busy", terms.busy)->check(CLI::PositiveNumber);
    program.add_option("--window", terms.window);
    program.add_option("--seconds", terms.seconds)->check(CLI::PositiveNumber);
    program.add_option("--data", terms.dataFile)->check(CLI::ExistingFile);
    program.add_option("--folder", terms.folder)->required()->check(CLI::ExistingDirectory);
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        std::exit(program.exit(e));
    }
    return terms;
}

} // namespace bench
