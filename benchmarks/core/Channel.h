#pragma once

#include <cstdint>
#include <memory>

#include <benchmarks/core/Meeting.h>

namespace bench {

struct Terms;

/// A message as it was received.
struct Message
{
    const char* data;
    std::uint64_t size;
};

/// One end of a transport: all that the measured loops know of it.
///
/// Who adds a transport derives this class in peers/<name>.cpp, defines openChannel there, and uses
/// the transport as its own documentation recommends for throughput. Failures are exceptions.
///
/// Rank 0 sends, the other ranks receive; in a round trip both do both. The receiving ranks listen
/// on a port that the system chooses and tell it to the meeting.
///
/// Threads: one uses a channel, whatever threads it has inside.
class Channel
{
public:
    virtual ~Channel() = default;

    /// Room for the next message of the agreed size: the transport's own memory, if it has such.
    virtual char* prepare() = 0;

    /// Sends what was written there; blocks while the transport is full.
    virtual void send() = 0;

    /// Lets go of everything that the transport holds back to send it together.
    virtual void flush() = 0;

    /// Waits for the next message, which is valid until the next call.
    virtual Message receive() = 0;

    /// What the transport itself has counted, for the report of a sender.
    virtual Report getStatistics() const { return {}; }

protected:
    Channel() = default;
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;
};

/// Opens this process's end; returns when all connections stand. Each transport's source defines
/// it.
std::unique_ptr<Channel> openChannel(const Terms& terms, Meeting& meeting);

} // namespace bench
