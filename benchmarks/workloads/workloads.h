#pragma once

#include <vector>

#include <benchmarks/core/Workload.h>

namespace bench {

/// Each of these stands in the source of its name, or in that of what its name begins with.
Workload bulk();
Workload bulk4();
Workload small();
Workload roundTrip();
Workload fanInLarge();
Workload fanInSmall();
Workload fanInOneBusy();
Workload fanOut();
Workload compressedTiles();
Workload compressedGeometry();
Workload encrypted();
Workload idle();
Workload serviceStatus();
Workload serviceHandOver();
Workload serviceStart();

/// Both in googleBenchmark.cpp: programs of their own, made with Google Benchmark.
Workload serializer();
Workload pool();

/// All, in the order of the table.
std::vector<Workload> allWorkloads();

} // namespace bench
