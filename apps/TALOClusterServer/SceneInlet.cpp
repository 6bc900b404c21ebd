#include <apps/TALOClusterServer/SceneInlet.h>

#include <exception>
#include <string>
#include <utility>

#include <NetBase/senders/kyNetSender.h>
#include <NetBase/serialization/kyNetStream.h>
#include <apps/TALOClusterServer/ChannelLobby.h>
#include <apps/TALOClusterServer/OrderBook.h>
#include <apps/common/MethodCompressor.h>

namespace render {

namespace {

/// Seconds that the other server has to open its channels. An application does not set this server
/// up before it has, so this only ends if it is gone or cannot reach this one.
constexpr double s_openTimeout = 5.0;

} // namespace

SceneInlet::SceneInlet(std::int32_t source, std::int32_t rank, ChannelLobby& lobby,
                       std::shared_ptr<kyNetSender> relay, OrderBook& orders)
    : m_source(source),
      m_rank(rank),
      m_lobby(lobby),
      m_relay(std::move(relay)),
      m_orders(orders),
      m_thread(&SceneInlet::receive, this)
{
}

SceneInlet::~SceneInlet()
{
    m_lobby.close();
    if (m_relay) {
        m_relay->shutdown();
    }
    m_thread.join();
}

void SceneInlet::receive()
{
    // Outlives the failure: its threads may wait for the relay until that is shut down.
    kyNetStream stream;
    try {
        const RenderChannels inlets{m_lobby.waitForInlets(m_source, s_openTimeout), {}};
        stream.setRank(m_rank);
        stream.setReceiver(
            inlets.makeReceiver(std::make_shared<MethodCompressor>(), m_relay, m_rank));
        m_orders.addScene(OrderBook::recvScene(stream));
    } catch (const std::exception& e) {
        if (m_relay) {
            m_relay->shutdown();
        }
        m_orders.refuseScene("The scene was not relayed: " + std::string(e.what()));
    }
    m_lobby.closeInlets();
}

} // namespace render
