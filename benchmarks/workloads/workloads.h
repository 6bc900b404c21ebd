#pragma once

#include <vector>

#include <benchmarks/core/Workload.h>

namespace bench {

/// Each of these stands in the source of its name.
Workload bulk();
Workload small();
Workload roundTrip();

/// All, in the order of the table.
std::vector<Workload> allWorkloads();

} // namespace bench
