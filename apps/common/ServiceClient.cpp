#include <apps/common/ServiceClient.h>

#include <chrono>
#include <utility>

#include <NetBase/buffers/kyNetError.h>
#include <NetBase/buffers/kyNetOptions.h>
#include <NetBase/links/kySocketAddress.h>
#include <NetBase/serialization/kyNetStream.h>
#include <NetBase/service/kyNetServiceCommand.h>
#include <VersionInfo/kyVersionInfo.h>
#include <apps/common/KeyExchange.h>

ServiceClient::ServiceClient(NodeAddress node, std::optional<NodeAddress> relay,
                             std::shared_ptr<const SharedKey> key)
    : m_node(std::move(node)), m_relay(std::move(relay)), m_key(std::move(key))
{
}

ServiceClient::StartedServer ServiceClient::startServer(const ServerSettings& settings) const
{
    StartedServer server;
    server.link = perform(s_serverTimeout, [&](kyNetStream& stream) {
        const std::string unused;
        stream << kyNetServiceCommand::StartServer << settings.arguments
               << kyVersionInfo::the().getVersionString() << unused << settings.hasDisplay
               << settings.flagZ << settings.flagT << settings.flagTA << settings.bookingId
               << settings.isStereo;
        stream.flush();
        stream.recvResult();
        stream >> server.id >> server.freeMemory >> server.serverCount;
    });
    return server;
}

std::shared_ptr<kySocketLink> ServiceClient::connectServer(std::uint32_t serverId) const
{
    return perform(s_serverTimeout, [&](kyNetStream& stream) {
        stream << kyNetServiceCommand::ConnectServer << serverId;
        stream.flush();
        stream.recvResult();
    });
}

void ServiceClient::stopServer(std::uint32_t serverId) const
{
    perform(s_answerTimeout, [&](kyNetStream& stream) {
        stream << kyNetServiceCommand::StopServer << serverId;
        stream.flush();
        stream.recvResult();
    });
}

void ServiceClient::stopByBooking(const std::string& bookingId) const
{
    if (bookingId.empty()) {
        throw kyNetError(describe() + ": a booking id must not be empty");
    }
    perform(s_answerTimeout, [&](kyNetStream& stream) {
        stream << kyNetServiceCommand::StopServersByBookingId << bookingId;
        stream.flush();
        stream.recvResult();
    });
}

void ServiceClient::stopService() const
{
    perform(s_answerTimeout, [](kyNetStream& stream) {
        stream << kyNetServiceCommand::StopService;
        stream.flush();
        stream.recvResult();
    });
}

kyNetServiceStatus ServiceClient::status() const
{
    kyNetServiceStatus status;
    perform(s_answerTimeout, [&](kyNetStream& stream) {
        stream << kyNetServiceCommand::GetStatus;
        stream.flush();
        stream.recvResult();
        stream >> status;
    });
    return status;
}

double ServiceClient::ping() const
{
    const auto begin = std::chrono::steady_clock::now();
    perform(s_answerTimeout, [](kyNetStream&) {});
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

std::shared_ptr<kySocketLink> ServiceClient::perform(double timeout,
                                                     const Conversation& conversation) const
{
    try {
        std::shared_ptr<kySocketLink> link = connect();
        KeyExchange::offer(link, m_key);
        link->setRecvTimeout(timeout);
        kyNetStream stream(link);
        conversation(stream);
        link->setRecvTimeout(0.0);
        link->setCipher(nullptr);
        return link;
    } catch (const std::exception& e) {
        throw kyNetError(describe() + ": " + e.what());
    }
}

std::shared_ptr<kySocketLink> ServiceClient::connect() const
{
    const NodeAddress& first = m_relay ? *m_relay : m_node;
    auto link =
        std::make_shared<kySocketLink>(kySocketAddress(first.host, std::to_string(first.port)),
                                       kyNetOptions::getConnectionTimeout());
    link->signalHPCNetSocket();
    link->setRecvTimeout(s_answerTimeout);
    if (m_relay) {
        relayTo(link);
    }
    return link;
}

void ServiceClient::relayTo(const std::shared_ptr<kySocketLink>& link) const
{
    KeyExchange::offer(link, m_key);
    link->setRecvTimeout(s_serverTimeout);
    kyNetStream stream(link);
    stream << kyNetServiceCommand::ConnectService << m_node.host
           << static_cast<std::uint32_t>(m_node.port);
    stream.flush();
    bool isConnected = false;
    stream >> isConnected;
    if (!isConnected) {
        // A relay that refuses the request itself says why: then the answer is a result.
        std::string reason = "the relay cannot reach the node";
        if (stream.getDataSize() > 0) {
            stream >> reason;
        }
        throw kyNetError(reason);
    }
    // The relay passes on what the node and this client send, and leaves it as it is.
    link->setCipher(nullptr);
    link->setRecvTimeout(s_answerTimeout);
}

std::string ServiceClient::describe() const
{
    return m_node.toString() + (m_relay ? " through " + m_relay->toString() : "");
}
