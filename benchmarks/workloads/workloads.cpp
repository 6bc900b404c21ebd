#include <benchmarks/workloads/workloads.h>

namespace bench {

std::vector<Workload> allWorkloads()
{
    return {bulk(),       bulk4(),        small(),         roundTrip(),       fanInLarge(),
            fanInSmall(), fanInOneBusy(), fanOut(),        compressedTiles(), compressedGeometry(),
            encrypted(),  idle(),         serviceStatus(), serviceHandOver(), serviceStart(),
            serializer(), pool()};
}

} // namespace bench
