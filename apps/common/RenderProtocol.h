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
/// each server. The first is the connection over which it had the server started; all begin with
/// a Hello that is answered with a result. The server says nothing on a channel before it has read
/// the Hello there, since the service may still be writing its own answer to it.
///
///     sync           frames begin on all servers at once (sendSync, waitSync)
///     low latency    small messages
///     image          the scene, and finished tiles on their way back
///
/// Once all channels but the sync ones are open, the application says on the first one what to
/// Setup. When the server has answered, the low latency and image channels are one chain in each
/// direction (see RenderChannels), on which go
///
///     to the server        LoadScene and the scene, as stream data for all, which stays in order;
///                          BeginFrame, RenderTile and ReportTraffic, one message each, in no order
///     to the application   an Answer for each order but BeginFrame, which only the sync channel
///                          answers, unless it fails
///
/// Orders may overtake each other on their way. So the application waits for the scene's answer
/// before it orders anything else, and for the sync of a frame before it orders tiles of it. A
/// server knows the last two frames: the next but one begins when all tiles of a frame have come.
///
/// A server that is to relay opens image channels of its own to other servers, each beginning with
/// a Hello that names it as the source, and passes the scene on to them. One that gets no whole
/// scene in this way answers LoadScene with the failure, and gets it from the application instead.
///
/// When any channel of a chain closes, the server ends. Stream data that is no scene it answers as
/// Order::None, and then waits a few seconds for the application to close its channels.

/// The ranks of a job: the application, then its servers.
constexpr std::int32_t s_applicationRank = 1;
constexpr std::int32_t s_firstServerRank = 2;

/// The first words on each channel.
struct Hello
{
    static constexpr std::uint32_t s_protocolVersion = 3;
    /// Channels of one type that a server takes.
    static constexpr int s_maxChannels = 64;

    std::uint32_t protocolVersion = s_protocolVersion;
    kyNodeConnectionType type = kyNodeConnectionType::Sync;
    /// The rank that the server has in this application's job.
    std::int32_t rank = 0;
    /// Who opens the channel: the application, or a server that relays.
    std::int32_t source = s_applicationRank;
    /// A random number that the application gives to its job. Only channels that say the first
    /// one's number are accepted, so nobody else gets in by guessing a server's id.
    std::uint64_t session = 0;
    std::string bookingId;
    /// How many channels of each type the application opens to each server, the first one
    /// included. A relay opens as many image channels.
    kyNetInterfaceOptions channels;

    void putValue(kyNetSerializer& out) const;

    /// Throws kyNetError if the version is another one.
    void getValue(kyNetSerializer& in);
};

/// A server on the same node that the scene is to be passed on to.
struct RelayTarget
{
    std::int32_t rank = 0;
    /// Its id at the node's service.
    std::uint32_t serverId = 0;
};

/// What a server is told once its channels are open, answered with a result: a bool, whether the
/// server casts its rays in the plain way.
struct Setup
{
    /// The method for the tiles on their way back.
    kyNetCompression imageCompression = kyNetCompression::None;
    /// Who sends the scene: the application, or the server that relays it.
    std::int32_t sceneSource = s_applicationRank;
    /// Where the node's service listens; a relay reaches its targets through it.
    std::uint16_t servicePort = 0;
    std::vector<RelayTarget> relayTargets;

    void putValue(kyNetSerializer& out) const;

    /// Throws kyNetError if there are too many targets.
    void getValue(kyNetSerializer& in);
};

/// What the application may order.
enum class Order : std::uint32_t
{
    None = 0,         ///< never ordered; the answer to words that are no order
    LoadScene = 1,    ///< the scene follows as stream data; replaces the former one
    BeginFrame = 2,   ///< number and frame follow; no answer on success
    RenderTile = 3,   ///< the frame's number and a tile follow
    ReportTraffic = 4 ///< nothing follows
};

/// What became of an order.
struct Answer
{
    Order order = Order::None;
    std::int32_t frame = 0; ///< of BeginFrame and RenderTile
    Tile tile;              ///< of RenderTile
    /// Empty: success.
    std::string failure;
    double seconds = 0.0; ///< that the order took
    /// Of RenderTile: linear colours, row by row.
    std::vector<Vector> pixels;
    /// Of ReportTraffic: bytes of all answers so far, and what they were compressed to.
    std::uint64_t sentBytes = 0;
    std::uint64_t compressedBytes = 0;
};

/// An answer on its way, one buffer that says itself what it answers, so answers may arrive in any
/// order over any channel.
class AnswerMessage : public kyNetMessage
{
public:
    kyNetMessageType getMessageType() override { return kyNetMessageType::ImageData; }

    /// Writes the answer; a failure text of more than 4096 bytes is cut, here and in getAnswer.
    void putAnswer(const Answer& answer);

    /// Reads a received one. Throws kyNetError if it answers nothing that could be ordered, or has
    /// not exactly the pixels of a tile that fits into a buffer.
    Answer getAnswer();

private:
    std::vector<Vector> getPixels(const Tile& tile);
};

} // namespace render
