#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <NetBase/serialization/kyNetStream.h>

namespace render {

class RemoteServer;
class Watchdog;

/// The servers that begin a frame together, over sync channels to each.
///
/// A group cannot lose a member: if one dies, the group is of no use and destroyed, and a new one
/// is made of those that live. Destruction closes the channels.
class SyncGroup
{
public:
    using Servers = std::vector<std::shared_ptr<RemoteServer>>;

    /// Takes the sync channels of each member, one or more.
    SyncGroup(const Servers& members,
              const std::vector<std::vector<std::shared_ptr<kyNetLink>>>& channels,
              std::shared_ptr<Watchdog> watchdog);

    SyncGroup(const SyncGroup&) = delete;
    SyncGroup& operator=(const SyncGroup&) = delete;

    /// Returns when every member has reached the frame, or after so many seconds; those that have
    /// not reached it then, after which the group is of no use. Blocks. Throws kyConnectionClosed
    /// and kyNetError if a member is gone or answers wrongly.
    Servers synchronise(std::int32_t frame, double limit);

private:
    class Attendance;

    Servers findAbsent() const;

    const Servers m_members;
    const std::shared_ptr<Watchdog> m_watchdog;
    std::shared_ptr<Attendance> m_attendance;
    kyNetStream m_stream;
};

} // namespace render
