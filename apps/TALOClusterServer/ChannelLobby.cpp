#include <apps/TALOClusterServer/ChannelLobby.h>

#include <chrono>
#include <string>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/links/kyNetLink.h>

namespace render {

namespace {

void checkType(kyNodeConnectionType type)
{
    if (type != kyNodeConnectionType::Sync && type != kyNodeConnectionType::Image &&
        type != kyNodeConnectionType::LowLatency) {
        throw kyNetError("Unknown connection type " +
                         std::to_string(static_cast<std::int32_t>(type)));
    }
}

void checkApplication(const Hello& hello)
{
    if (hello.type != kyNodeConnectionType::LowLatency || hello.source != s_applicationRank) {
        throw kyNetError("This server works for no application yet");
    }
    for (const auto type : {kyNodeConnectionType::Image, kyNodeConnectionType::LowLatency}) {
        const int channels = hello.channels.getChannels(type);
        if (channels > Hello::s_maxChannels) {
            throw kyNetError("A server takes at most " + std::to_string(Hello::s_maxChannels) +
                             " channels of one type, not " + std::to_string(channels));
        }
    }
}

std::string nameOf(kyNodeConnectionType type)
{
    return type == kyNodeConnectionType::Image ? "image" : "low latency";
}

void shutdownAll(const ChannelLobby::Links& links)
{
    for (const auto& link : links) {
        link->shutdown();
    }
}

} // namespace

bool ChannelLobby::admit(const Hello& hello)
{
    checkType(hello.type);
    if (hello.rank < s_firstServerRank) {
        throw kyNetError("A server cannot have the rank " + std::to_string(hello.rank));
    }
    const std::lock_guard<std::mutex> guard(m_lock);
    if (!m_application) {
        checkApplication(hello);
        m_application = hello;
        m_lowLatencyCount = 1;
        return true;
    }
    if (hello.session != m_application->session) {
        throw kyNetError("This server works for another application");
    }
    if (hello.rank != m_application->rank) {
        throw kyNetError("This server has the rank " + std::to_string(m_application->rank) +
                         ", not " + std::to_string(hello.rank));
    }
    if (hello.source != s_applicationRank) {
        admitInlet(hello);
    } else if (hello.type != kyNodeConnectionType::Sync) {
        int& count = countOf(hello.type);
        if (count == announced(hello.type)) {
            throw kyNetError("There are " + std::to_string(count) + " " + nameOf(hello.type) +
                             " channels already");
        }
        ++count;
    }
    return false;
}

void ChannelLobby::admitInlet(const Hello& hello)
{
    if (hello.type != kyNodeConnectionType::Image || hello.source < s_firstServerRank ||
        hello.source == hello.rank) {
        throw kyNetError("Rank " + std::to_string(hello.source) + " cannot relay to this server");
    }
    if (m_inletCount > 0 && hello.source != m_inletSource) {
        throw kyNetError("Rank " + std::to_string(m_inletSource) +
                         " relays to this server already");
    }
    if (m_inletCount == announced(kyNodeConnectionType::Image)) {
        throw kyNetError("There are " + std::to_string(m_inletCount) +
                         " channels to relay over already");
    }
    m_inletSource = hello.source;
    ++m_inletCount;
}

void ChannelLobby::keep(const Hello& hello, const std::shared_ptr<kyNetLink>& link)
{
    const std::lock_guard<std::mutex> guard(m_lock);
    const bool isInlet = hello.source != s_applicationRank;
    if (isInlet) {
        m_inlets.push_back(link);
    } else if (hello.type == kyNodeConnectionType::Image) {
        m_channels.image.push_back(link);
    } else {
        m_channels.lowLatency.push_back(link);
    }
    if (m_isClosed || (isInlet && m_areInletsClosed)) {
        link->shutdown();
    }
    m_changed.notify_all();
}

RenderChannels ChannelLobby::waitForChannels(double timeout)
{
    std::unique_lock<std::mutex> guard(m_lock);
    waitUntilFull(guard, m_channels.image, kyNodeConnectionType::Image, timeout);
    waitUntilFull(guard, m_channels.lowLatency, kyNodeConnectionType::LowLatency, timeout);
    return m_channels;
}

ChannelLobby::Links ChannelLobby::waitForInlets(std::int32_t source, double timeout)
{
    std::unique_lock<std::mutex> guard(m_lock);
    waitUntilFull(guard, m_inlets, kyNodeConnectionType::Image, timeout);
    if (m_inletSource != source) {
        throw kyNetError("Rank " + std::to_string(m_inletSource) + " relays instead of " +
                         std::to_string(source));
    }
    return m_inlets;
}

void ChannelLobby::closeInlets()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    m_areInletsClosed = true;
    shutdownAll(m_inlets);
}

void ChannelLobby::close()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    m_isClosed = true;
    shutdownAll(m_channels.image);
    shutdownAll(m_channels.lowLatency);
    shutdownAll(m_inlets);
    m_changed.notify_all();
}

int& ChannelLobby::countOf(kyNodeConnectionType type)
{
    return type == kyNodeConnectionType::Image ? m_imageCount : m_lowLatencyCount;
}

int ChannelLobby::announced(kyNodeConnectionType type) const
{
    return m_application->channels.getChannels(type);
}

void ChannelLobby::waitUntilFull(std::unique_lock<std::mutex>& guard, const Links& links,
                                 kyNodeConnectionType type, double timeout)
{
    const auto count = static_cast<std::size_t>(announced(type));
    const auto isFull = [&] { return m_isClosed || links.size() == count; };
    const bool isInTime = m_changed.wait_for(guard, std::chrono::duration<double>(timeout), isFull);
    if (m_isClosed) {
        throw kyConnectionClosed();
    }
    if (!isInTime) {
        throw kyNetError("Only " + std::to_string(links.size()) + " of " + std::to_string(count) +
                         " " + nameOf(type) + " channels were opened");
    }
}

} // namespace render
