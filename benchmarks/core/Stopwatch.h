#pragma once

#include <chrono>
#include <ctime>

namespace bench {

/// A moment in a process: by the clock, and by the processor time that all its threads have used in
/// the program and in the system.
class Moment
{
public:
    static Moment now() { return {std::chrono::steady_clock::now(), std::clock()}; }

    /// Seconds since an earlier one.
    double secondsSince(const Moment& earlier) const
    {
        return std::chrono::duration<double>(wall - earlier.wall).count();
    }
    double processorSecondsSince(const Moment& earlier) const
    {
        return static_cast<double>(processor - earlier.processor) / CLOCKS_PER_SEC;
    }

    std::chrono::steady_clock::time_point wall;
    std::clock_t processor;
};

} // namespace bench
