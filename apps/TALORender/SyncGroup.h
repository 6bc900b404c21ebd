#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <NetBase/serialization/kyNetStream.h>

namespace render {

class RemoteServer;

/// The servers that begin and end a frame together, over a sync channel to each.
///
/// A group cannot lose a member: if one dies, the group is of no use and destroyed, and a new one
/// is made of those that live. Destruction closes the channels.
class SyncGroup
{
public:
    /// Takes a channel to each member.
    SyncGroup(const std::vector<std::shared_ptr<RemoteServer>>& members,
              const std::vector<std::shared_ptr<kyNetLink>>& channels);

    SyncGroup(const SyncGroup&) = delete;
    SyncGroup& operator=(const SyncGroup&) = delete;

    /// Returns when every member has reached the frame, and books the bytes to them. Blocks. Throws
    /// kyConnectionClosed and kyNetError if a member is gone or answers wrongly.
    void synchronise(std::int32_t frame);

private:
    std::vector<std::shared_ptr<RemoteServer>> m_members;
    kyNetStream m_stream;
};

} // namespace render
