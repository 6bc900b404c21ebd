#include <QtProcess/platform/exChild.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <Utils/platform/posix/kyDescriptor.h>

namespace {

kyDescriptor checked(int value)
{
    if (value < 0) {
        throw std::system_error(errno, std::generic_category());
    }
    return kyDescriptor(value);
}

/// Both ends of a pipe. Neither of them has the number of a standard stream, also where this
/// process was started without those, so that the child's streams can be put in their places.
struct Pipe
{
    static Pipe open()
    {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            throw std::system_error(errno, std::generic_category());
        }
        const kyDescriptor reading(ends[0]);
        const kyDescriptor writing(ends[1]);
        Pipe pipe;
        pipe.reading = checked(::fcntl(reading.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
        pipe.writing = checked(::fcntl(writing.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
        // Only the reading end: the child must find an ordinary, blocking stream.
        ::fcntl(pipe.reading.get(), F_SETFL, O_NONBLOCK);
        return pipe;
    }

    kyDescriptor reading;
    kyDescriptor writing;
};

std::vector<char*> pointersTo(const std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts) {
        pointers.push_back(const_cast<char*>(text.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

/// What happens in the child between its birth and the program's first instruction.
class Preparation
{
public:
    Preparation()
    {
        ::posix_spawn_file_actions_init(&m_actions);
        ::posix_spawnattr_init(&m_attributes);
        sigset_t signals;
        ::sigfillset(&signals);
        ::posix_spawnattr_setsigdefault(&m_attributes, &signals);
        ::sigemptyset(&signals);
        ::posix_spawnattr_setsigmask(&m_attributes, &signals);
        ::posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
        ::posix_spawn_file_actions_addopen(&m_actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    }
    ~Preparation()
    {
        ::posix_spawn_file_actions_destroy(&m_actions);
        ::posix_spawnattr_destroy(&m_attributes);
    }

    Preparation(const Preparation&) = delete;
    Preparation& operator=(const Preparation&) = delete;

    /// Gives the child a pipe, or nothing, as one of its standard streams.
    void setStream(int stream, const Pipe& pipe)
    {
        if (pipe.writing.isValid()) {
            ::posix_spawn_file_actions_adddup2(&m_actions, pipe.writing.get(), stream);
        } else {
            ::posix_spawn_file_actions_addopen(&m_actions, stream, "/dev/null", O_WRONLY, 0);
        }
    }

    /// The process id of the started program, or -1.
    pid_t spawn(const exChild::Order& order)
    {
        ::posix_spawn_file_actions_addclosefrom_np(&m_actions, STDERR_FILENO + 1);
        const std::vector<char*> arguments = pointersTo(order.arguments);
        std::vector<char*> environment;
        if (order.environment) {
            environment = pointersTo(*order.environment);
        }
        pid_t id = -1;
        const int error =
            ::posix_spawn(&id, arguments.front(), &m_actions, &m_attributes, arguments.data(),
                          order.environment ? environment.data() : environ);
        return error == 0 ? id : -1;
    }

private:
    posix_spawn_file_actions_t m_actions{};
    posix_spawnattr_t m_attributes{};
};

/// No pipe of an ordinary user holds more, so one pass empties it; and no pass goes on for ever
/// where somebody writes as fast as it is read.
constexpr std::size_t s_longestPass = 1 << 20;

/// Appends what the stream holds at this moment; closes it at its end.
void drain(kyDescriptor& stream, std::string& text)
{
    std::array<char, 4096> piece;
    while (stream.isValid() && text.size() < s_longestPass) {
        const ssize_t size = ::read(stream.get(), piece.data(), piece.size());
        if (size > 0) {
            text.append(piece.data(), static_cast<std::size_t>(size));
        } else if (size < 0 && errno == EINTR) {
            continue;
        } else if (size < 0 && errno == EAGAIN) {
            return;
        } else {
            stream.close();
        }
    }
}

class PosixChild final : public exChild
{
public:
    /// Takes charge of a child that runs; on failure it has been ended.
    PosixChild(pid_t id, kyDescriptor ended, kyDescriptor output, kyDescriptor error)
        : m_id(id),
          m_ended(std::move(ended)),
          m_output(std::move(output)),
          m_error(std::move(error))
    {
        try {
            m_collector = std::thread([this] { collect(); });
        } catch (...) {
            ::kill(m_id, SIGKILL);
            collect();
            throw;
        }
    }

    ~PosixChild() override
    {
        PosixChild::kill();
        m_collector.join();
    }

    bool isRunning() const override
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return !m_isCollected && !hasEnded(WNOHANG);
    }

    std::uint32_t getProcessId() const override { return static_cast<std::uint32_t>(m_id); }

    void terminate() override { signal(SIGTERM); }

    void kill() override { signal(SIGKILL); }

    bool readOutput(std::string& output, std::string& error) override
    {
        std::array<pollfd, 3> waits{
            {{m_ended.get(), POLLIN, 0}, {m_output.get(), POLLIN, 0}, {m_error.get(), POLLIN, 0}}};
        while (::poll(waits.data(), waits.size(), -1) < 0) {
            // Interrupted, or short of memory for a moment.
        }
        drain(m_output, output);
        drain(m_error, error);
        return waits[0].revents == 0;
    }

private:
    /// Whether the child has ended; it stays collectable, so its number is not used again.
    bool hasEnded(int options) const
    {
        siginfo_t info{};
        while (::waitid(P_PID, static_cast<id_t>(m_id), &info, WEXITED | WNOWAIT | options) != 0) {
            if (errno != EINTR) {
                // Somebody else collected it: it is gone all the same.
                return true;
            }
        }
        return info.si_pid != 0;
    }

    /// Waits for the child's end and collects it. The number may belong to another process after
    /// that, so whoever signals the child holds the same mutex.
    void collect()
    {
        hasEnded(0);
        const std::lock_guard<std::mutex> guard(m_mutex);
        while (::waitpid(m_id, nullptr, 0) < 0 && errno == EINTR) {
        }
        m_isCollected = true;
        ::eventfd_write(m_ended.get(), 1);
    }

    void signal(int number)
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        if (!m_isCollected) {
            ::kill(m_id, number);
        }
    }

    const pid_t m_id;
    mutable std::mutex m_mutex;
    bool m_isCollected = false;
    kyDescriptor m_ended;
    kyDescriptor m_output;
    kyDescriptor m_error;
    std::thread m_collector;
};

} // namespace

std::unique_ptr<exChild> exChild::start(const Order& order)
{
    if (order.arguments.empty()) {
        return nullptr;
    }
    try {
        kyDescriptor ended = checked(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        Pipe output = order.captureOutput ? Pipe::open() : Pipe();
        Pipe error = order.captureError ? Pipe::open() : Pipe();

        Preparation preparation;
        preparation.setStream(STDOUT_FILENO, output);
        preparation.setStream(STDERR_FILENO, error);
        const pid_t id = preparation.spawn(order);
        if (id < 0) {
            return nullptr;
        }
        return std::make_unique<PosixChild>(id, std::move(ended), std::move(output.reading),
                                            std::move(error.reading));
    } catch (const std::system_error&) {
        return nullptr;
    }
}
