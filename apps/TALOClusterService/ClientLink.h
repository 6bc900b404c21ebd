#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include <NetBase/links/kySocketLink.h>

/// A client's connection that knows how long the client has been waited for.
///
/// A client owes its request and has to take its answer; what the service itself needs in between
/// (a server that starts) is not the client's time. Only while it is waited for may the connection
/// be shut down: at any other time a render server may have it already.
///
/// Neither may a client send more than a request can hold.
///
/// Both limits hold until the client is no longer watched: a relay may then stay silent for ever
/// and carry what it likes.
class ClientLink : public kySocketLink
{
public:
    using Clock = std::chrono::steady_clock;

    /// Adopts a connected descriptor; takes so many bytes, headers included.
    ClientLink(kySocketHandle descriptor, std::uint64_t maxReceived);

    /// Waits up to so many seconds (negative: without limit) until the client says something, and
    /// leaves that unread; false if it does not, or has gone. Throws kyConnectionClosed when it was
    /// dropped meanwhile.
    bool speaks(double timeout);

    using kySocketLink::recv;
    using kySocketLink::send;
    /// Throws kyNetError "Request too large" when more has come than is taken.
    void recv(std::shared_ptr<kyNetBuffer>& buffer) override;
    void send(const std::shared_ptr<kyNetBuffer>& buffer) override;
    void sendMany(const std::vector<std::shared_ptr<kyNetBuffer>>& buffers) override;

    /// How long the client was waited for altogether until now; zero while it is not waited for.
    Clock::duration getWait(Clock::time_point now = Clock::now()) const;

    /// Shuts the connection down if the client is waited for right now. From any thread.
    void dropIfWaiting();

    /// From now on no limit holds.
    void endWatch();

private:
    class Waiting;

    void count(std::uint64_t received);
    bool isWaiting() const { return m_isWatched && m_waits > 0; }

    mutable std::mutex m_mutex;
    bool m_isWatched = true;
    int m_waits = 0; ///< calls that wait now; a relay may send and receive at once
    Clock::time_point m_waitBegin;
    Clock::duration m_waited{};
    const std::uint64_t m_maxReceived;
    std::uint64_t m_received = 0;
};
