#pragma once

#include <cstdint>
#include <memory>
#include <thread>

class kyNetSender;

namespace render {

class ChannelLobby;
class OrderBook;

/// Receives the scene from a server that relays it, on a thread of its own, and passes it on to
/// other servers if there is a relay.
///
/// The application is answered in any case. If anything fails before the scene is complete, the
/// relay is shut down too, so that those behind it notice it as well and get the scene from the
/// application. Afterwards the inlets are of no use and closed.
class SceneInlet
{
public:
    /// `source` is who relays, `rank` this server. Waits for nothing.
    SceneInlet(std::int32_t source, std::int32_t rank, ChannelLobby& lobby,
               std::shared_ptr<kyNetSender> relay, OrderBook& orders);

    /// Closes the lobby and the relay, and waits for the thread.
    ~SceneInlet();

    SceneInlet(const SceneInlet&) = delete;
    SceneInlet& operator=(const SceneInlet&) = delete;

private:
    void receive();

    std::int32_t m_source;
    std::int32_t m_rank;
    ChannelLobby& m_lobby;
    std::shared_ptr<kyNetSender> m_relay;
    OrderBook& m_orders;
    std::thread m_thread;
};

} // namespace render
