#pragma once

#include <vector>

#include <benchmarks/core/Results.h>
#include <benchmarks/core/Workload.h>

namespace bench {

/// Measures workloads. Each repetition runs every contender of every workload once, and begins with
/// another contender each time, so that whatever else happens on the machine hits all of them
/// alike; when the time is over, all have about the same number of repetitions. Tells on standard
/// error how far it is and what could not be measured.
///
/// False if the library or a limit has failed in one of them.
bool measure(const std::vector<Workload>& workloads, const Effort& effort, Results& results);

} // namespace bench
