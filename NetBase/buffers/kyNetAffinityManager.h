#pragma once

#include <vector>

#include <NetBase/kyNetBaseExport.h>

/// Decides on which processors the library's worker threads run.
///
/// Thread-safe: acts on the calling thread only.
class KY_NETBASE_EXPORT kyNetAffinityManager
{
public:
    /// Pins the calling thread to the first processor, whichever node is named, and prints
    /// "setaffinity 1" to standard output; a negative node does nothing. Where the system does
    /// not give that processor, the thread stays where it may run.
    static void setNodeAffinity(int node);

    /// The processors of a node: none is known.
    static std::vector<int> getCPUs(int node);
};
