#pragma once

#include <string>
#include <vector>

#include <benchmarks/core/Terms.h>

namespace bench {

/// One of those who do the same work side by side.
struct Contender
{
    enum class Kind
    {
        Library, ///< this library, in one of the ways to use it
        Limit,   ///< what the system gives without anything above it
        Peer     ///< what a user could take instead
    };

    std::string name;
    Kind kind = Kind::Library;
    /// The program that holds its transport: benchmarks/peers/<program>.cpp, or "library".
    std::string program;
    Terms terms;
    /// The contender that its ratio is told to; empty for the first limit.
    std::string reference;
    /// How many processors its processes may use, 0 for all.
    int processors = 0;
};

/// The library, used in the way that the variant tells.
Contender library(const std::string& name, Terms terms, const std::string& variant,
                  const std::string& reference = "");

/// Plain sockets.
Contender limit(const std::string& name, Terms terms, const std::string& variant = "");

/// Each of these peers.
std::vector<Contender> peers(const std::vector<std::string>& programs, const Terms& terms);

/// Appends.
void add(std::vector<Contender>& contenders, const std::vector<Contender>& more);

} // namespace bench
