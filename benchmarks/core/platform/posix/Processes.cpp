#include <benchmarks/core/platform/Processes.h>

#include <cerrno>
#include <csignal>
#include <system_error>

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {

namespace {

constexpr int s_cannotExecute = 127;

void allowManyFiles()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

void limitProcessors(int count)
{
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    for (int i = 0; i < count; ++i) {
        CPU_SET(static_cast<std::size_t>(i), &allowed);
    }
    ::sched_setaffinity(0, sizeof allowed, &allowed);
}

void redirectOutput(const char* path)
{
    const int file = ::open(path, O_WRONLY | O_CREAT | O_APPEND, 0644);
    ::dup2(file, STDOUT_FILENO);
    ::dup2(file, STDERR_FILENO);
    ::close(file);
}

double toSeconds(const timeval& time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

} // namespace

Process::Process(const Settings& settings)
{
    std::vector<char*> arguments;
    for (const std::string& argument : settings.command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);

    const pid_t parent = ::getpid();
    m_id = ::fork();
    if (m_id < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    ::setpgid(m_id, m_id); // On both sides, so that it is done for both. See the destructor.
    if (m_id > 0) {
        return;
    }
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() == parent) {
        allowManyFiles();
        if (settings.processors > 0) {
            limitProcessors(settings.processors);
        }
        redirectOutput(settings.output.c_str());
        ::execvp(arguments[0], arguments.data());
    }
    ::_exit(s_cannotExecute);
}

Process::~Process()
{
    if (m_id > 0 && !hasEnded()) {
        ::kill(-m_id, SIGKILL); // A launcher's own children, too.
        ::waitpid(m_id, nullptr, 0);
    }
}

Process::Process(Process&& other) noexcept
    : m_id(other.m_id), m_exitCode(other.m_exitCode), m_processorSeconds(other.m_processorSeconds)
{
    other.m_id = 0;
}

bool Process::hasEnded()
{
    int status = 0;
    rusage usage{};
    if (m_exitCode < 0 && ::wait4(m_id, &status, WNOHANG, &usage) == m_id) {
        m_processorSeconds = toSeconds(usage.ru_utime) + toSeconds(usage.ru_stime);
        m_exitCode = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    }
    return m_exitCode >= 0;
}

} // namespace bench
