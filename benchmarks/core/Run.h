#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include <benchmarks/core/Contender.h>
#include <benchmarks/core/Meeting.h>

namespace bench {

class Process;

/// Says that a contender's program was not built, since what it needs is not installed.
class NotBuilt : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// One run of a contender: starts its processes, waits for them, and gives what each has reported,
/// by rank.
///
/// Throws NotBuilt; std::runtime_error with what the processes have printed if one fails or does
/// not end in time. No process is left, either way.
std::vector<Report> runOnce(const Contender& contender, double seconds);

/// A folder of its own for as long as the object lives.
class TemporaryFolder
{
public:
    TemporaryFolder();
    ~TemporaryFolder();

    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& getPath() const { return m_path; }

private:
    std::string m_path;
};

/// The path of a program that was built beside this one.
std::string programPath(const std::string& name);

/// Throws NotBuilt if there is no such program.
void requireProgram(const std::string& name);

/// Waits for processes whose output goes to this file. Throws std::runtime_error as runOnce does.
void waitForAll(std::vector<Process>& processes, double seconds, const std::string& output);

} // namespace bench
