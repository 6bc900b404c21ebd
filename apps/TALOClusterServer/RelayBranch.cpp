#include <apps/TALOClusterServer/RelayBranch.h>

#include <exception>

#include <Utils/kyLog.h>

namespace render {

RelayBranch::RelayBranch(const std::shared_ptr<kyNetSender>& child) : kyNetSender(child) {}

void RelayBranch::send(const std::shared_ptr<kyNetBuffer>& buffer)
{
    attempt([&](kyNetSender& child) { child.send(buffer); });
}

void RelayBranch::waitAllDataTransfered()
{
    attempt([](kyNetSender& child) { child.waitAllDataTransfered(); });
}

void RelayBranch::attempt(const std::function<void(kyNetSender&)>& step)
{
    if (m_isLost) {
        return;
    }
    try {
        step(*getChildren().front());
    } catch (const std::exception& e) {
        m_isLost = true;
        shutdown();
        kyLog::error("The scene is not relayed to server %u any more: %s",
                     *getDestinations().begin(), e.what());
    }
}

} // namespace render
