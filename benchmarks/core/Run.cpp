#include <benchmarks/core/Run.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include <Utils/kyPlatform.h>
#include <benchmarks/core/platform/Processes.h>

namespace bench {

namespace {

constexpr std::chrono::milliseconds s_pause{2};

/// What starting, connecting and ending may take beside the run itself.
constexpr double s_patience = 40.0;

/// What the ranks of a peer are started by; nothing if each is started by itself.
std::vector<std::string> getLauncher(const std::string& program, int processes)
{
    if (program == "openMpi") {
        return {"mpirun", "--allow-run-as-root", "--oversubscribe", "-np",
                std::to_string(processes)};
    }
    return {};
}

std::vector<std::string> makeCommand(const Contender& contender, const Terms& terms,
                                     const std::vector<std::string>& launcher)
{
    std::vector<std::string> command = launcher;
    command.push_back(programPath(contender.program));
    const auto arguments = terms.toArguments(launcher.empty());
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

std::string readFile(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

} // namespace

std::vector<Report> runOnce(const Contender& contender, double seconds)
{
    requireProgram(contender.program);
    const TemporaryFolder folder;
    const std::string output = folder.getPath() + "/output";
    Terms terms = contender.terms;
    terms.seconds = seconds;
    terms.folder = folder.getPath();

    const int ranks = terms.receivers + 1;
    const auto launcher = getLauncher(contender.program, ranks);
    std::vector<Process> processes;
    for (terms.rank = 0; terms.rank < (launcher.empty() ? ranks : 1); ++terms.rank) {
        processes.emplace_back(Process::Settings{makeCommand(contender, terms, launcher),
                                                 contender.processors, output});
    }
    waitForAll(processes, seconds + s_patience, output);

    const Meeting meeting(folder.getPath(), -1);
    std::vector<Report> reports;
    for (int rank = 0; rank < ranks; ++rank) {
        reports.push_back(meeting.await(rank));
    }
    return reports;
}

void requireProgram(const std::string& name)
{
    if (!std::filesystem::exists(programPath(name))) {
        throw NotBuilt(name + " was not built");
    }
}

void waitForAll(std::vector<Process>& processes, double seconds, const std::string& output)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    for (std::size_t ended = 0; ended < processes.size();) {
        ended = 0;
        for (Process& process : processes) {
            if (process.hasEnded()) {
                ++ended;
                if (process.getExitCode() != 0) {
                    throw std::runtime_error("exit code " + std::to_string(process.getExitCode()) +
                                             ". " + readFile(output));
                }
            }
        }
        if (std::chrono::steady_clock::now() > end) {
            throw std::runtime_error("did not end in time. " + readFile(output));
        }
        std::this_thread::sleep_for(s_pause);
    }
}

TemporaryFolder::TemporaryFolder()
{
    static int s_count = 0;
    m_path = std::filesystem::temp_directory_path() /
             ("kyBenchmark" + std::to_string(kyPlatform::getProcessId()) + "." +
              std::to_string(++s_count));
    std::filesystem::create_directory(m_path);
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string programPath(const std::string& name)
{
    return kyPlatform::getBinDir() + "/" + name;
}

} // namespace bench
