#pragma once

#include <cstdint>

/// What kyNetMem::parallelCopy is made of, apart from the machine that it runs on.
namespace kyNetMemParts {

/// In how many parts a machine with so many hardware threads copies.
std::uint64_t count(unsigned hardwareThreads);

/// Copies the first `parts * (n / parts)` of n bytes, each part by a task of its own.
void copy(void* dst, const void* src, std::uint64_t n, std::uint64_t parts);

} // namespace kyNetMemParts
