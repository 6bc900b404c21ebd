#include <apps/TALOClusterServer/SceneRelay.h>

#include <exception>
#include <limits>
#include <vector>

#include <NetBase/links/kySocketLink.h>
#include <NetBase/senders/kyNetBufferedSender.h>
#include <NetBase/senders/kyNetLinkSender.h>
#include <NetBase/senders/kyNetMultiSender.h>
#include <NetBase/serialization/kyNetStream.h>
#include <Utils/kyLog.h>
#include <apps/TALOClusterServer/RelayBranch.h>
#include <apps/common/KeyExchange.h>

namespace render {

namespace {

/// Seconds that a target has for each of its answers: so few that the application, which waits
/// meanwhile, does not take a server for one that hangs because both of its targets do.
constexpr double s_helloTimeout = 10.0;

/// Buffers that may wait for one target: any number. One that hangs must hold up neither the others
/// nor this server's own reading, and what waits is no more than the scene, which is kept anyway.
constexpr int s_queueLimit = std::numeric_limits<int>::max();

void introduce(const std::shared_ptr<kySocketLink>& link, const Hello& hello,
               const std::shared_ptr<const SharedKey>& key)
{
    link->setRecvTimeout(s_helloTimeout);
    KeyExchange::offer(link, key);
    kyNetStream stream(link);
    stream << hello;
    stream.flush();
    stream.recvResult();
    link->setRecvTimeout(0.0);
}

std::shared_ptr<kyNetSender> openBranch(const Hello& application, const RelayTarget& target,
                                        std::uint16_t port, const SceneRelay::Opener& opener,
                                        const std::shared_ptr<const SharedKey>& key)
{
    Hello hello = application;
    hello.type = kyNodeConnectionType::Image;
    hello.source = application.rank;
    hello.rank = target.rank;
    const int channels = hello.channels.getChannels(hello.type);
    const auto rank = static_cast<unsigned int>(target.rank);
    std::vector<std::shared_ptr<kyNetSender>> leaves;
    for (int i = 0; i < channels; ++i) {
        const std::shared_ptr<kySocketLink> link = opener(port, target.serverId);
        introduce(link, hello, key);
        leaves.push_back(kyNetLinkSender::create(link, {rank}));
    }
    return std::make_shared<RelayBranch>(kyNetBufferedSender::create(leaves, s_queueLimit));
}

} // namespace

std::shared_ptr<kyNetSender> SceneRelay::open(const Hello& application, const Setup& setup,
                                              const Opener& opener,
                                              const std::shared_ptr<const SharedKey>& key)
{
    std::vector<std::shared_ptr<kyNetSender>> branches;
    for (const RelayTarget& target : setup.relayTargets) {
        try {
            branches.push_back(openBranch(application, target, setup.servicePort, opener, key));
        } catch (const std::exception& e) {
            kyLog::error("The scene cannot be relayed to server %d: %s", target.rank, e.what());
        }
    }
    return branches.empty() ? nullptr : kyNetMultiSender::create(branches);
}

} // namespace render
