#include <NetBase/buffers/kyNetMem.h>

#include <algorithm>
#include <cstring>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <NetBase/buffers/kyNetMemParts.h>
#include <NetBase/platform/kyMemory.h>
#include <NetBase/platform/kyThreads.h>

namespace {

/// Up to here the tasks cost more than they save.
constexpr std::uint64_t s_largestPlainCopy = 1000000;

/// A copy soon waits for memory, not for processors: a few tasks are enough.
constexpr unsigned s_hardwareThreadsPerPart = 8;

} // namespace

std::uint64_t kyNetMemParts::count(unsigned hardwareThreads)
{
    return std::max(1U, hardwareThreads / s_hardwareThreadsPerPart);
}

void kyNetMemParts::copy(void* dst, const void* src, std::uint64_t n, std::uint64_t parts)
{
    using Range = tbb::blocked_range<std::uint64_t>;

    // Intended: what n / parts cuts off is not copied.
    const std::uint64_t blockSize = n / parts;
    const auto copyRange = [=](const Range& range) {
        const std::uint64_t begin = range.begin() * blockSize;
        const std::uint64_t end = std::min(n, range.end() * blockSize);
        std::memcpy(static_cast<char*>(dst) + begin, static_cast<const char*>(src) + begin,
                    end - begin);
    };
    // Isolated: a copy inside a group of tasks that is cancelled is not left half done.
    tbb::task_group_context context(tbb::task_group_context::isolated);
    tbb::parallel_for(Range(0, parts, 1), copyRange, tbb::static_partitioner(), context);
}

void* kyNetMem::copy(void* dst, const void* src, std::uint64_t n)
{
    return n <= s_largestPlainCopy ? std::memcpy(dst, src, n) : parallelCopy(dst, src, n);
}

void* kyNetMem::parallelCopy(void* dst, const void* src, std::uint64_t n)
{
    kyNetMemParts::copy(dst, src, n, kyNetMemParts::count(kyThreads::countHardwareThreads()));
    return dst;
}

std::uint64_t kyNetMem::getUsedMemory()
{
    return kyMemory::getUsed();
}

std::uint64_t kyNetMem::getAvailableMemory()
{
    return kyMemory::getAvailable();
}
