#include <NetBase/buffers/kyNetAffinityManager.h>

#include <cstdio>

#include <NetBase/platform/kyThreads.h>

void kyNetAffinityManager::setNodeAffinity(int node)
{
    if (node < 0) {
        return;
    }
    // Intended: the first processor for every node, and its mask of 1 as the text.
    kyThreads::pinToFirstProcessor();
    std::printf("setaffinity %d\n", 1);
}

std::vector<int> kyNetAffinityManager::getCPUs(int)
{
    return {};
}
