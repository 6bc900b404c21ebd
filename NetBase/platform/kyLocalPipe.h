#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <NetBase/platform/kySocketHandle.h>

/// A two-way connection between two processes of one machine, over which sockets can travel.
///
/// One side listens under a name and takes exactly one client, the other connects to that name.
/// Only processes of the same user, or of the administrator, get through. Both sides then exchange
/// plain bytes; a socket travels as eight of them.
///
/// Thread rules: one thread at a time, except for `stop`, which any thread may call.
/// Failures are told by the returned value and leave the system's code as the calling thread's
/// last error. No call raises a signal, and an interrupting one is not noticed.
class kyLocalPipe
{
public:
    /// How a call ended. A system that has nothing to prepare before it receives, or nothing that
    /// could keep it from beginning to, never answers with NotPrepared and NotBegun.
    enum class Status
    {
        Done,
        TimedOut,
        Stopped,
        Closed,
        Busy,
        NotPrepared,
        NotBegun,
        Failed
    };

    /// A socket as it arrives: the eight bytes that the other side wrote, and the socket that is
    /// usable here.
    struct Received
    {
        std::uint64_t value = 0;
        kySocketHandle socket = s_invalidSocketHandle;
    };

    /// Begins to listen under the name; null if that fails.
    static std::unique_ptr<kyLocalPipe> listen(const std::string& name);

    /// Connects to the side that listens under the name. Done, Busy (it has not taken its client
    /// yet, try again) or Failed; does not block.
    static Status connect(const std::string& name, std::unique_ptr<kyLocalPipe>& pipe);

    virtual ~kyLocalPipe() = default;

    kyLocalPipe(const kyLocalPipe&) = delete;
    kyLocalPipe& operator=(const kyLocalPipe&) = delete;

    /// Listening side: waits for the client, and stops listening once it has it. Done, also when
    /// the client was taken before; TimedOut; Failed. A negative limit waits for ever.
    virtual Status waitForClient(int milliseconds) = 0;

    /// Writes all bytes; false if that fails.
    virtual bool write(const void* data, std::size_t size) = 0;

    /// Reads exactly so many bytes, blocking for as long as that takes; false if it fails or the
    /// other side has gone.
    virtual bool read(void* data, std::size_t size) = 0;

    /// Prepares a socket of this process for another one. False if the handle is no socket.
    virtual bool duplicate(kySocketHandle socket, std::uint32_t processId) = 0;

    /// Writes the eight bytes that stand for the socket duplicated last, and with them whatever
    /// makes it usable on the other side. The caller keeps its socket. False if that fails.
    virtual bool passSocket(kySocketHandle socket) = 0;

    /// Waits for one socket. Done; TimedOut, whereupon the next call goes on where this one
    /// stopped; Stopped; Closed (the other side has gone); NotPrepared and NotBegun (the system
    /// refused before a byte was asked for); Failed (what arrived is no socket, nothing of it stays
    /// open, and the connection is broken off so that the other side learns of it). A negative
    /// limit waits for ever.
    virtual Status receiveSocket(int milliseconds, Received& received) = 0;

    /// Writes the eight bytes of a received socket back. On failure the socket is closed.
    virtual bool acknowledge(const Received& received) = 0;

    /// Wakes `receiveSocket`, now and in every later call.
    virtual void stop() = 0;

protected:
    kyLocalPipe() = default;
};
