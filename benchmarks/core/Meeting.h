#pragma once

#include <map>
#include <string>

namespace bench {

/// What a process of a run has measured, by name.
using Report = std::map<std::string, double>;

/// Where the processes of a run find each other: a folder in which each leaves notes.
///
/// A note appears as a whole or not at all. Waiting for one sleeps between its looks, and gives up
/// after half a minute with std::runtime_error.
class Meeting
{
public:
    /// In this folder, as this rank.
    Meeting(std::string folder, int rank);

    /// Tells the others how to reach this process, and finds out how to reach another one.
    void announce(const std::string& address);
    std::string find(int rank) const;

    /// Hands in what this process has measured.
    void report(const Report& report);

    /// Waits for what another one has measured; it then needs nothing any more.
    Report await(int rank) const;

private:
    void leave(const std::string& kind, const std::string& text);
    std::string take(const std::string& kind, int rank) const;

    std::string m_folder;
    int m_rank;
};

} // namespace bench
