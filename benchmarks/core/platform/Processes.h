#pragma once

#include <string>
#include <vector>

namespace bench {

/// A process of a run. It ends with this object, and with the process that started it.
class Process
{
public:
    struct Settings
    {
        /// Program and arguments.
        std::vector<std::string> command;
        /// How many of the processors it may use, 0 for all.
        int processors = 0;
        /// The file that gets what it prints.
        std::string output;
    };

    /// Starts it, allowed to have as many open files as the system lets it have. Throws
    /// std::system_error; a program that cannot be executed ends with exit code 127.
    explicit Process(const Settings& settings);
    ~Process();

    Process(Process&& other) noexcept;
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    /// Whether it has ended. Does not block.
    bool hasEnded();

    /// Its exit code, or 128 and the number of the signal that ended it; once it has ended.
    int getExitCode() const { return m_exitCode; }

    /// The processor time that it and those of its children that it has waited for have taken; once
    /// it has ended.
    double getProcessorSeconds() const { return m_processorSeconds; }

private:
    int m_id = 0;
    int m_exitCode = -1;
    double m_processorSeconds = 0;
};

} // namespace bench
