#include <NetBase/platform/kyThreads.h>

#include <algorithm>
#include <thread>
#include <utility>

#include <sched.h>
#include <unistd.h>

namespace {

/// A set of processors, wide enough for the largest kernels (8192).
struct ProcessorSet
{
    cpu_set_t words[8] = {};
    bool isKnown = false;
};

ProcessorSet getProcessorsOfProcess()
{
    ProcessorSet set;
    set.isKnown = ::sched_getaffinity(::getpid(), sizeof set.words, set.words) == 0;
    return set;
}

// Read when the library is loaded: later the thread that stands for the process may be pinned.
const ProcessorSet s_processorsAtStart = getProcessorsOfProcess();

} // namespace

void kyThreads::startDetached(std::function<void()> action)
{
    std::thread(std::move(action)).detach();
}

unsigned kyThreads::countHardwareThreads()
{
    return std::max(1U, std::thread::hardware_concurrency());
}

bool kyThreads::pinToFirstProcessor()
{
    cpu_set_t first;
    CPU_ZERO(&first);
    CPU_SET(0, &first);
    return ::sched_setaffinity(0, sizeof first, &first) == 0;
}

void kyThreads::resetProcessors()
{
    if (s_processorsAtStart.isKnown) {
        ::sched_setaffinity(0, sizeof s_processorsAtStart.words, s_processorsAtStart.words);
    }
}
