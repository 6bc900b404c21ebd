#include <benchmarks/workloads/workloads.h>

namespace bench {

std::vector<Workload> allWorkloads()
{
    return {bulk(), small(), roundTrip()};
}

} // namespace bench
