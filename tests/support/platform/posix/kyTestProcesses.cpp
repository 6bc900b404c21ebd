#include <tests/support/kyTestProcesses.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include <signal.h>
#include <unistd.h>

#include <tests/support/kyTestWait.h>

namespace kyTest {

namespace {

namespace fs = std::filesystem;

struct Process
{
    char state = 'X';
    long long parent = 0;
    double processorSeconds = 0.0;
};

std::string folderOf(long long processId)
{
    return "/proc/" + std::to_string(processId);
}

/// What the system says of a process; state X if there is none.
Process look(long long processId)
{
    std::ifstream file(folderOf(processId) + "/stat");
    // By line: a process that ends meanwhile gives an error, which an iterator would throw.
    std::string text;
    std::getline(file, text, '\0');
    Process process;
    // The name, in brackets, may hold anything; the fields behind it are numbers.
    const std::size_t name = text.rfind(')');
    if (name == std::string::npos) {
        return process;
    }
    std::istringstream fields(text.substr(name + 1));
    fields >> process.state >> process.parent;
    std::string ignored;
    for (int field = 5; field < 14; ++field) {
        fields >> ignored;
    }
    double user = 0.0;
    double system = 0.0;
    fields >> user >> system;
    process.processorSeconds = (user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
    return process;
}

bool isProgram(long long processId, const std::string& program)
{
    std::error_code error;
    const fs::path path = fs::read_symlink(folderOf(processId) + "/exe", error);
    return !error && path.filename() == program;
}

std::map<long long, Process> lookAtAll()
{
    std::map<long long, Process> processes;
    std::error_code error;
    for (fs::directory_iterator entry("/proc", error), end; entry != end; entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; })) {
            const long long id = std::stoll(name);
            processes[id] = look(id);
        }
    }
    return processes;
}

/// Whether no thread of the process runs any more; so too if there is no such process.
bool isStopped(long long processId)
{
    std::error_code gone;
    for (const auto& thread : fs::directory_iterator(folderOf(processId) + "/task", gone)) {
        const char state = look(std::stoll(thread.path().filename())).state;
        if (state != 'T' && state != 'X' && state != 'Z') {
            return false;
        }
    }
    return true;
}

} // namespace

std::vector<long long> findDescendants(const std::string& program)
{
    const std::map<long long, Process> processes = lookAtAll();
    std::vector<long long> found;
    for (const auto& [id, process] : processes) {
        long long ancestor = process.parent;
        while (ancestor > 1 && ancestor != ::getpid()) {
            const auto parent = processes.find(ancestor);
            ancestor = parent == processes.end() ? 0 : parent->second.parent;
        }
        if (ancestor == ::getpid() && isProgram(id, program)) {
            found.push_back(id);
        }
    }
    return found;
}

bool isAlive(long long processId)
{
    const char state = look(processId).state;
    return state != 'X' && state != 'Z';
}

double getProcessorSeconds(long long processId)
{
    return look(processId).processorSeconds;
}

void killProcess(long long processId)
{
    ::kill(static_cast<pid_t>(processId), SIGKILL);
}

void suspendProcess(long long processId)
{
    ::kill(static_cast<pid_t>(processId), SIGSTOP);
    // The signal is only on its way: a thread may still answer somebody meanwhile.
    waitUntil([processId] { return isStopped(processId); });
}

void resumeProcess(long long processId)
{
    ::kill(static_cast<pid_t>(processId), SIGCONT);
}

} // namespace kyTest
