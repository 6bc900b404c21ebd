#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>

#include <NetBase/kyNetBaseExport.h>
#include <NetBase/links/kySocketPipe.h>

class exProcess;
class kySocketLink;

/// A render server that the cluster service has started for a client.
///
/// It is a child process that runs the server program of the client's version; or, in a process
/// that hosts the server itself, a thread that calls what the host has registered. Either way the
/// client's sockets reach it over the socket pipe that belongs to it.
///
///     auto server = kyNetServerProcess::create(arguments, id, path, version, ...);
///     server->start(true);
///     server->sendSocket(link, 10.0);
///     server->stop();                       // no more sockets: the server may finish
///
/// Ownership: always held by shared pointer. The destructor ends the server, politely first: a
/// server that ignores every request holds it up for at most 11 seconds (and a callback of the
/// host, which cannot be ended, for as long as it runs).
/// Thread rules: `start` is called once, by one thread; everything else by any.
/// Limits: the environment variable that tells old servers their pipe stays set in this process.
class KY_NETBASE_EXPORT kyNetServerProcess
{
public:
    /// Makes a server that is not started, and its pipe. `arguments` is the client's own text,
    /// `serverPath` the program (empty: searched for), `version` the client's version in decimal.
    /// Throws `kyNetError` if there can be no pipe.
    static std::shared_ptr<kyNetServerProcess>
    create(const std::string& arguments, std::uint32_t serverId, const std::string& serverPath,
           const std::string& version, bool hasDisplay, bool isStereo, bool flagZ, bool flagT,
           bool flagTA, const std::string& bookingId);

    /// As `create`.
    kyNetServerProcess(const std::string& arguments, std::uint32_t serverId,
                       const std::string& serverPath, const std::string& version, bool hasDisplay,
                       bool isStereo, bool flagZ, bool flagT, bool flagTA,
                       const std::string& bookingId);

    /// Shuts the pipe down and waits for the server's end: 3 seconds for its own, 3 more after
    /// asking it to terminate, 5 more after killing it.
    ~kyNetServerProcess();

    kyNetServerProcess(const kyNetServerProcess&) = delete;
    kyNetServerProcess& operator=(const kyNetServerProcess&) = delete;

    /// Decides for all servers started from now on whether they are threads of this process that
    /// call the function with the name of their pipe. Without a function such a server does
    /// nothing and runs until it is destroyed: the host serves its pipe. Thread-safe.
    static void setInProcess(bool inProcess, std::function<void(std::string)> callback);

    /// Starts the server and returns when it runs. With `console` the output of a child is logged
    /// as it arrives, else it is discarded. Throws `kyNetError` if there is no such program.
    void start(bool console);

    /// Shuts the pipe down, so that the server learns that no more sockets come; does not end it.
    void stop();

    /// Whether `stop` was called.
    bool isStopRequested() const { return m_stopRequested; }

    /// Whether the server is at work; right at once, does not block. False before the start.
    bool isRunning() const;

    /// Waits up to `timeout` seconds for the server's end; true if it has ended, also when the
    /// time was 0, and if it was never started. Runs the caller's event loop meanwhile.
    bool wait(double timeout);

    /// Asks a child to terminate, and kills it if it still runs 3 seconds later. Nothing for a
    /// server in this process.
    void tryKill();

    /// Hands the link's socket to the server; see `kySocketPipe::sendSocket` for the time limit
    /// and what it throws. The link keeps its own descriptor.
    void sendSocket(kySocketLink& link, double timeout);

    /// The name of the pipe over which the server gets its sockets.
    const std::string& socketPipeName() const { return m_pipe.getName(); }

    /// The client's booking; may be empty.
    std::string bookingId() const { return m_bookingId; }

    /// The number that the service has given to this server.
    std::uint32_t getServerId() const { return m_serverId; }

    /// The process that the server runs in, this one in in-process mode; 0 before the start.
    std::uint32_t getProcessId() const { return m_processId; }

private:
    void executeProcess(bool console);
    void executeThread(bool console);
    void setSocketPipeArgument(exProcess& process);
    std::string getServerPath(const std::string& version) const;
    static std::string getBinDir(const std::string& version);
    exProcess* getProcess() const;

    const std::uint32_t m_serverId;
    std::atomic<std::uint32_t> m_processId{0};
    kySocketPipe m_pipe;
    /// Tells an idle in-process server that its time is over.
    std::promise<void> m_released;
    std::atomic<bool> m_stopRequested{false};
    const std::string m_serverPath;
    const std::string m_arguments;
    const std::string m_bookingId;
    const std::string m_version;
    const bool m_flagZ;
    const bool m_flagT;
    const bool m_flagTA;
    const bool m_hasDisplay;
    const bool m_isStereo;

    /// Guards the two below, which appear while others may already ask.
    mutable std::mutex m_mutex;
    std::unique_ptr<exProcess> m_process;
    std::future<void> m_thread;
};
