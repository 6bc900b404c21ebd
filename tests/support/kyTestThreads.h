#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

/// What the tests ask the operating system about threads, and how they make it refuse them.
///
/// One source per system stands in platform/.
namespace kyTest {

/// The numbers of the processors on which the calling thread may run, in ascending order.
std::vector<int> getProcessors();

/// From now on the system refuses every change of where the calling thread may run.
void forbidPinning();

/// While it lives the system starts no thread for this process; those that run go on.
class NoNewThreads
{
public:
    NoNewThreads();
    ~NoNewThreads();

    NoNewThreads(const NoNewThreads&) = delete;
    NoNewThreads& operator=(const NoNewThreads&) = delete;

private:
    std::size_t m_previous;
};

/// While it lives the thread with this number (getThreadId) stands still where it happens to be.
/// One at a time.
class StoppedThread
{
public:
    explicit StoppedThread(std::uint64_t threadId);
    ~StoppedThread();

    StoppedThread(const StoppedThread&) = delete;
    StoppedThread& operator=(const StoppedThread&) = delete;

private:
    std::uint64_t m_threadId;
};

} // namespace kyTest
