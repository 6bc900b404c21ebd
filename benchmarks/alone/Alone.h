#pragma once

#include <cstdint>

#include <benchmarks/core/Meeting.h>
#include <benchmarks/core/Stopwatch.h>
#include <benchmarks/core/Terms.h>

namespace bench {

/// The run of a program that works on messages without a network: does `work`, which is called with
/// the number of the message, for the agreed time on this thread. Gives what a receiver reports.
template <class Work> Report workAlone(const Terms& terms, Work work)
{
    std::uint64_t number = 0;
    const Moment begin = Moment::now();
    Moment end = begin;
    do {
        work(number++);
        end = Moment::now();
    } while (end.secondsSince(begin) < terms.seconds);
    return {{"messages", static_cast<double>(number)},
            {"sentMessages", static_cast<double>(number)},
            {"seconds", end.secondsSince(begin)},
            {"processorSeconds", end.processorSecondsSince(begin)}};
}

} // namespace bench
