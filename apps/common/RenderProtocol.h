#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <NetBase/buffers/kyNetInterfaceOptions.h>
#include <NetBase/serialization/kyNetMessage.h>
#include <apps/common/Scene.h>

class kyNetSerializer;

namespace render {

/// What the application and a render server say to each other.
///
/// The application is rank 1, its servers have the ranks 2, 3, ... It opens several channels to
/// each server. The first is the connection over which it had the server started:
///
///     low latency, 1   orders to the server, each answered with a result, in order
///     image, some      finished tiles on their way back, one message each, over any of them
///     sync, 1          frames begin and end on all servers at once (sendSync, waitSync)
///
/// The server says nothing on a channel before it has read the application's Hello there, since
/// the service may still be writing its own answer to it; then it answers with a result.
/// When the first channel closes, the server ends.

/// The first words on each channel.
struct Hello
{
    static constexpr std::uint32_t s_protocolVersion = 1;

    std::uint32_t protocolVersion = s_protocolVersion;
    kyNodeConnectionType type = kyNodeConnectionType::Sync;
    /// The rank that the server has in this application's job.
    std::int32_t rank = 0;
    /// A random number that the application gives to its job. Only channels that say the first
    /// one's number are accepted, so nobody else gets in by guessing a server's id.
    std::uint64_t session = 0;
    std::string bookingId;
    /// How many channels of each type the application opens.
    kyNetInterfaceOptions channels;

    void putValue(kyNetSerializer& out) const;
    void getValue(kyNetSerializer& in);
};

/// What the application may order on the low latency channel.
enum class Order : std::uint32_t
{
    LoadScene = 1,  ///< a scene follows; replaces the former one
    BeginFrame = 2, ///< number and frame follow
    RenderTile = 3, ///< a tile follows; the answer is its seconds, after its pixels were sent
};

/// The ranks of a job: the application, then its servers.
constexpr std::int32_t s_applicationRank = 1;
constexpr std::int32_t s_firstServerRank = 2;

/// A finished tile on an image channel: one buffer that says itself where it belongs, so tiles may
/// arrive over several links in any order.
class TileMessage : public kyNetMessage
{
public:
    kyNetMessageType getMessageType() override { return kyNetMessageType::ImageData; }

    /// Writes the tile and its linear colours, row by row.
    void putTile(const Tile& tile, const std::vector<Vector>& pixels);

    /// Reads them from a received message. Throws kyNetError if the message has not exactly the
    /// pixels of a tile that fits into a buffer.
    std::vector<Vector> getTile(Tile& tile);
};

} // namespace render
