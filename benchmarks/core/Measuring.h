#pragma once

#include <vector>

#include <benchmarks/core/Results.h>
#include <benchmarks/core/Workload.h>

namespace bench {

/// Measures workloads, with the contenders interleaved: each repetition runs all of them once,
/// beginning with another one each time, so that whatever else happens on the machine hits all of
/// them alike. Tells on standard error how far it is and what could not be measured.
///
/// False if the library has failed in one of them, or the time was over before all were measured.
bool measure(const std::vector<Workload>& workloads, const Effort& effort, Results& results);

} // namespace bench
