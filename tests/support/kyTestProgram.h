#pragma once

#include <memory>
#include <string>
#include <vector>

class QByteArray;
class QProcess;

/// Runs the programs of the project as their users do.
namespace kyTest {

/// The path of a program by its name.
std::string programPath(const std::string& name);

/// What a program has left when it ended.
struct ProgramResult
{
    int exitCode = -1; ///< -1 if it crashed or had to be killed
    std::string output;
    std::string errors;
};

/// A program that runs beside the test; killed on destruction if it still runs. One thread.
class Program
{
public:
    Program(const std::string& path, const std::vector<std::string>& arguments);
    ~Program();

    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    /// The next line of its standard output, without its end; waits for it.
    std::string readLine();

    /// Asks it to end, as the system's service manager does.
    void terminate();

    /// Asks it to end, as Ctrl-C does.
    void interrupt();

    /// Waits for its end and takes all that was not read yet.
    ProgramResult wait();

private:
    std::unique_ptr<QProcess> m_process;
};

/// Runs a program to its end.
ProgramResult runProgram(const std::string& path, const std::vector<std::string>& arguments);

/// What a program has written, with the ends of lines that it wrote itself: some systems' libraries
/// put others in their place. One source per system stands in platform/.
std::string toText(const QByteArray& written);

/// Sends a process what Ctrl-C sends it, or what the system's service manager does. One source per
/// system stands in platform/.
void interruptProcess(long long processId);
void terminateProcess(long long processId);

} // namespace kyTest
