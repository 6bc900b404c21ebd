#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include <NetBase/kyNetBaseExport.h>

class kyLocalPipe;

/// Hands connected sockets from one process of a machine to another.
///
/// A service makes the pipe, tells its name to the server that it starts, and writes every client's
/// socket over it; the server opens the pipe by name and receives the sockets one by one.
///
///     service:  kySocketPipe pipe(false);  start(server, pipe.getName());
///               pipe.sendSocket(client, 10.0);
///     server:   kySocketPipe pipe(name);   socket = pipe.recvSocket(-1.0);
///
/// On the pipe travel little-endian integers without framing:
///
///     server -> service   4 bytes   the server's process id, once, before the first socket
///     service -> server   8 bytes   a socket
///     server -> service   8 bytes   the same bytes: the socket has arrived
///
/// Ownership: the pipe borrows the socket that it sends, and gives away the one that it receives.
/// Only processes of the same user, or of the administrator, get through.
/// Thread rules: `sendSocket` and `shutdown` exclude each other, so a `sendSocket` that waits (for
/// the server to open the pipe, for its acknowledgement) holds `shutdown` up until the server
/// answers or dies, or its time is over. `recvSocket` belongs to one thread, and `shutdown` from
/// another one wakes it.
/// Time limits: in seconds; 0 and less wait without limit. Only waiting for the client to open the
/// pipe, and waiting for the next socket, are limited: an exchange that has begun is finished.
class KY_NETBASE_EXPORT kySocketPipe
{
public:
    /// Service side: makes a pipe with a name that no other has. The flag (whether the server runs
    /// in this process) changes nothing. Throws `kyNetError`; does not block.
    explicit kySocketPipe(bool isInProcess);

    /// Server side: opens the pipe of that name. Fails at once if there is none; waits up to two
    /// seconds while another client is about to get it. Throws `kyNetError`.
    explicit kySocketPipe(const std::string& name);

    /// As above; without it a text would be taken for a `bool`.
    explicit kySocketPipe(const char* name);

    /// Closes the pipe. Nobody may be inside another call.
    ~kySocketPipe();

    kySocketPipe(const kySocketPipe&) = delete;
    kySocketPipe& operator=(const kySocketPipe&) = delete;

    /// Service side: hands one socket over, and returns when the server has it. The caller keeps
    /// its own handle, and closes it. Waits up to `timeout` seconds for the server to open the
    /// pipe, then without limit. Throws `kyConnectionTimeout`, after which it may be called again,
    /// and `kyNetError`. Thread-safe.
    void sendSocket(std::uint64_t socket, double timeout);

    /// Server side: waits up to `timeout` seconds for a socket; the caller owns it. Throws
    /// `kyConnectionTimeout`, after which it may be called again and nothing is lost;
    /// `kyConnectionClosed` if the service has gone or `shutdown` was called; `kyNetError`.
    std::uint64_t recvSocket(double timeout);

    /// Ends the pipe: on the service side the server sees it break, on the server side a waiting
    /// `recvSocket` wakes, and every later one ends with `kyConnectionClosed`. A second call does
    /// nothing. Thread-safe; never throws.
    void shutdown();

    /// The full name, by which the other side opens the pipe.
    const std::string& getName() const { return m_name; }

private:
    void exchangeProcessId(int milliseconds);
    void sendProcessId();

    std::mutex m_lock;
    std::uint32_t m_peerProcessId = 0;
    std::unique_ptr<kyLocalPipe> m_pipe;
    std::atomic<bool> m_isShutdown{false};
    std::string m_name;
    bool m_processIdExchanged = false;
    bool m_isServerSide;
};
