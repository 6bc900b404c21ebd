#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <NetBase/serialization/kyNetStream.h>
#include <apps/TALORender/TileScheduler.h>
#include <apps/common/RenderProtocol.h>
#include <apps/common/ServiceClient.h>

namespace render {

/// One render server as the application sees it: its channels, and what it has done so far.
///
/// Construction has the node's service start a server and opens the low latency and the image
/// channels; the sync channels come and go with the SyncGroup. Destruction closes them all, upon
/// which the server ends.
///
/// Every failure is thrown: the server's own exceptions with its text as kyNetError, a lost
/// connection as kyConnectionClosed. The server is of no use afterwards.
///
/// Threads: one at a time.
class RemoteServer
{
public:
    /// What a server did, for the table at the end.
    struct Work
    {
        std::size_t tiles = 0;
        double seconds = 0.0; ///< that it spent rendering
        std::uint64_t sentBytes = 0;
        std::uint64_t receivedBytes = 0;
    };

    /// Where finished tiles go. Called on the thread of renderTiles.
    using TileHandler = std::function<void(const Tile&, const std::vector<Vector>&)>;

    /// Starts a server on the node and opens its channels. Blocks; throws kyNetError.
    RemoteServer(const NodeAddress& node, const Hello& job, std::int32_t rank);

    const NodeAddress& getNode() const { return m_client.getNode(); }
    std::uint32_t getServerId() const { return m_serverId; }
    std::int32_t getRank() const { return m_rank; }

    /// "server 3 on 127.0.0.1:8889", for messages.
    std::string describe() const;

    /// Hands the scene over and waits until the server can render it.
    void loadScene(const Scene& scene);

    /// Tells the server which picture the next tiles are of.
    void beginFrame(std::int32_t number, const Frame& frame);

    /// Has the server render tiles until all are finished, two at a time, so that it never waits
    /// for the next one. If it throws, the tiles it has not finished are given back. Throws
    /// kyConnectionTimeout if a tile takes more than `timeout` seconds.
    void renderTiles(TileScheduler& tiles, double timeout, const TileHandler& onTile);

    /// Opens a sync channel to the server. Throws kyNetError if it does not live any more.
    std::shared_ptr<kyNetLink> openSyncChannel() const;

    /// Adds bytes that went over a sync channel.
    void addTraffic(std::uint64_t sentBytes, std::uint64_t receivedBytes);

    Work getWork() const;

private:
    std::shared_ptr<kySocketLink> openChannel(kyNodeConnectionType type) const;
    void introduce(kyNetStream& stream, kyNodeConnectionType type) const;

    void order(const Tile& tile);
    void recvTile(const TileHandler& onTile);
    double recvAnswer();

    ServiceClient m_client;
    Hello m_job;
    std::int32_t m_rank;
    std::uint32_t m_serverId = 0;
    kyNetStream m_orders;
    kyNetStream m_images;
    /// Ordered and not yet received.
    std::vector<Tile> m_inFlight;
    Work m_work;
};

} // namespace render
