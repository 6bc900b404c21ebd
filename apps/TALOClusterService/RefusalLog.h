#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>

/// Logs that clients were turned away, so that the log tells of each of them and nobody can fill
/// it: once per address and pause, and for so many addresses in it at most.
///
/// Threads: any number at once.
class RefusalLog
{
public:
    RefusalLog(std::chrono::milliseconds pause, std::size_t maxAddresses);

    /// Logs the address of a client and why it was refused, unless it is too much.
    void report(const std::string& address, const std::string& reason);

private:
    using Clock = std::chrono::steady_clock;

    bool isDue(const std::string& address);

    const std::chrono::milliseconds m_pause;
    const std::size_t m_maxAddresses;
    std::mutex m_mutex;
    std::map<std::string, Clock::time_point> m_reported; ///< since when each is quiet
};
