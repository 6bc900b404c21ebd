#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <NetBase/serialization/kyNetStream.h>
#include <apps/TALORender/FrameQueue.h>
#include <apps/TALORender/Traffic.h>
#include <apps/common/RenderChannels.h>
#include <apps/common/RenderProtocol.h>
#include <apps/common/ServiceClient.h>

class kyNetCompressorBase;

namespace render {

class Watchdog;

/// One render server as the application sees it: its channels, and what it has done so far.
///
/// Construction has the node's service start a server and opens its channels; setUp makes a chain
/// of them. Destruction closes them all, upon which the server ends.
///
/// Every failure is thrown: the server's own exceptions with its text as kyNetError, a lost
/// connection as kyConnectionClosed. A server that keeps the application waiting for longer than
/// it may is given up: its channels are closed, and it is a kyNetError, too. The server is of no
/// use after any of them.
///
/// Threads: one at a time, but where it says more.
class RemoteServer
{
public:
    /// What all servers of a job have in common.
    struct Job
    {
        /// All but type and rank.
        Hello hello;
        /// Empty: none.
        std::shared_ptr<const SharedKey> key;
        std::shared_ptr<kyNetCompressorBase> compressor;
        std::shared_ptr<Watchdog> watchdog;
        /// Seconds that a server has for an answer, beside what the work itself takes.
        double patience = 0.0;
    };

    /// What a server did, for the report at the end.
    struct Work
    {
        bool hasPlainRays = false; ///< cast without Embree
        std::size_t tiles = 0;
        double seconds = 0.0; ///< that it spent rendering
        Traffic scene;        ///< what the application has sent until the scene was there
        Traffic sent;         ///< by the application, the scene included
        /// By the server, according to itself; nobody knows of a lost one.
        std::optional<Traffic> received;
    };

    /// Where finished tiles go. Called on the thread of render.
    using TileHandler =
        std::function<void(std::int32_t frame, const Tile&, const std::vector<Vector>&)>;

    /// Starts a server on the node and opens its channels. Blocks; throws kyNetError.
    RemoteServer(const NodeAddress& node, const Job& job, std::int32_t rank);
    ~RemoteServer();

    RemoteServer(const RemoteServer&) = delete;
    RemoteServer& operator=(const RemoteServer&) = delete;

    const NodeAddress& getNode() const { return m_client.getNode(); }
    std::uint32_t getServerId() const { return m_serverId; }
    std::int32_t getRank() const { return m_rank; }

    /// "server 3 on 127.0.0.1:8889", for messages.
    std::string describe() const;

    /// Tells the server what to prepare, and makes the chain to it. Once.
    void setUp(const Setup& setup);

    /// Hands the scene over, or waits until another server has relayed it, and until the server
    /// can render it. The relayed one may take `relayLimit` seconds; if it does not come whole, or
    /// there is no relay, the application's own may take `limit` seconds. Once.
    void loadScene(const Scene& scene, double relayLimit, double limit);

    /// Has the server render frames until all are finished, two tiles at a time, so that it never
    /// waits for the next one. If it throws, the tiles it has not finished are given back. A tile
    /// may take `limit` seconds.
    void render(FrameQueue& queue, double limit, const TileHandler& onTile);

    /// Waits until the server has begun the frame, which may take `limit` seconds. Beside render,
    /// which tells the server to begin it.
    void synchronise(std::int32_t frame, double limit);

    /// Asks the server what it has sent.
    void reportTraffic();

    /// Closes every channel, which ends all calls that wait for the server. Any thread.
    void shutdown();

    /// Closes every channel; if the server hangs, and so cannot notice, has its service end it. Any
    /// thread; blocks for as long as the service does; throws nothing.
    void giveUp();

    Work getWork() const;

private:
    std::vector<std::shared_ptr<kyNetLink>> openChannels(kyNodeConnectionType type,
                                                         std::size_t opened);
    void introduce(const std::shared_ptr<kySocketLink>& link, kyNodeConnectionType type);
    void hold(const std::shared_ptr<kyNetLink>& link);

    template <class Action> void within(double seconds, const Action& action);
    bool isHanging() const { return m_silence >= 0.0; }
    void sendScene(const Scene& scene);
    void send(kyNetMessage& message);
    void perform(const FrameQueue::Task& task, const Frame& frame);
    FrameQueue::Task recvTile(const TileHandler& onTile);
    Answer recvAnswer(Order order);

    const ServiceClient m_client;
    const Job m_job;
    const std::int32_t m_rank;
    std::uint32_t m_serverId = 0;
    /// Seconds in which the server gave no answer though it should have; negative: it does not
    /// hang.
    std::atomic<double> m_silence{-1.0};

    std::mutex m_linksLock;
    std::vector<std::shared_ptr<kyNetLink>> m_links; ///< all that were ever opened
    bool m_isShutDown = false;

    std::shared_ptr<kySocketLink> m_first;
    RenderChannels m_channels;
    bool m_isRelayed = false;
    /// Ordered and not yet received.
    std::vector<FrameQueue::Task> m_inFlight;
    Work m_work;
    kyNetStream m_sync;
    kyNetStream m_stream; // Last: its threads use all of the above.
};

} // namespace render
