#pragma once

#include <cstdint>

/// Memory as the operating system counts it, in bytes. Thread-safe; never throws.
namespace kyMemory {

/// Physical memory that this process occupies now, 0 if the system does not say.
std::uint64_t getUsed();

/// Physical memory of the machine that programs can still take, 0 if the system does not say.
std::uint64_t getAvailable();

} // namespace kyMemory
