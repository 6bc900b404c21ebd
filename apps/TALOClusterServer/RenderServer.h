#pragma once

#include <atomic>
#include <chrono>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include <NetBase/links/kySocketPipe.h>
#include <apps/TALOClusterServer/ChannelLobby.h>
#include <apps/TALOClusterServer/FrameGate.h>
#include <apps/TALOClusterServer/SceneRelay.h>

class SharedKey;
class kyNetStream;
class kySocketLink;

namespace render {

/// One render server: takes connections from the cluster service's pipe and greets each on a
/// thread of its own.
///
/// Whoever opens the first low latency channel is the application that the server works for. That
/// connection's thread carries the orders out, those of the sync channels stay with them; all other
/// channels become part of the application's chains.
///
/// With a key, every connection begins with a KeyExchange and is encrypted from then on.
///
/// The server lives as long as somebody needs it. It ends when a channel of the application closes,
/// however that came about; when the service closes the pipe, which it does to stop the server and
/// cannot help when it dies; and when nobody has been connected for ten seconds. So nobody's death
/// leaves a server behind.
///
/// A connection without the key or without a proper Hello is told why and closed, one that is
/// silent for half a minute is closed; the others do not notice.
class RenderServer
{
public:
    /// Opens the service's pipe; no key is an empty pointer. Throws kyNetError if there is no pipe
    /// of that name.
    explicit RenderServer(const std::string& socketPipe,
                          const std::shared_ptr<const SharedKey>& key = nullptr);

    /// The same, with another way to the servers that the scene is relayed to than by the service.
    RenderServer(const std::string& socketPipe, std::shared_ptr<const SharedKey> key,
                 SceneRelay::Opener opener);

    /// Closes every connection and waits for the threads that serve them.
    ~RenderServer();

    RenderServer(const RenderServer&) = delete;
    RenderServer& operator=(const RenderServer&) = delete;

    /// Serves until the end; blocks. Throws kyNetError if the pipe fails.
    void run();

private:
    struct Connection
    {
        std::shared_ptr<kySocketLink> link;
        bool isApplication = false; ///< The first one of the application; of its own thread.
        std::atomic<bool> isDone{false};
        std::thread thread;
    };

    void acceptConnection();
    void removeDone();
    bool isAbandoned();

    void serve(Connection& connection);
    void recvKey(const std::shared_ptr<kySocketLink>& link);

    // Whether the connection is over; otherwise it goes on as part of a chain.
    bool converse(Connection& connection);
    bool converse(Connection& connection, kyNetStream& stream);

    void serveApplication(const Hello& application, kyNetStream& stream);
    void carryOut(std::int32_t rank, std::int32_t sceneSource, const RenderChannels& channels,
                  const std::shared_ptr<kyNetSender>& relay);
    void serveSync(kyNetStream& stream);

    kySocketPipe m_pipe;
    std::shared_ptr<const SharedKey> m_key;
    SceneRelay::Opener m_opener;
    ChannelLobby m_lobby;
    FrameGate m_gate;

    // Of the thread that runs.
    std::list<Connection> m_connections;
    std::chrono::steady_clock::time_point m_lastConnected;
};

} // namespace render
