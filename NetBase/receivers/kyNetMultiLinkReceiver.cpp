#include <NetBase/receivers/kyNetMultiLinkReceiver.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/links/kyNetLink.h>
#include <NetBase/links/kyNetLinkPin.h>
#include <NetBase/platform/kySockets.h>
#include <NetBase/receivers/kyNetLinkReceiver.h>

namespace {

using Links = std::vector<std::shared_ptr<kyNetLink>>;

/// How long a silent peer goes unchecked.
constexpr int s_pollMilliseconds = 4000;

/// Waits for something to receive. Answers the links whose receive would not wait, in order; none
/// when the time is over.
Links waitForLinks(const Links& links)
{
    std::vector<kyNetLinkPin> pins;
    std::vector<kySockets::PollEntry> entries;
    pins.reserve(links.size());
    entries.reserve(links.size());
    for (const auto& link : links) {
        const kyNetLinkPin& pin = pins.emplace_back(*link);
        if (pin.isPinned()) {
            entries.push_back({pin.getHandle(), kySockets::Readable, kySockets::None});
        }
    }

    // A closed link is ready at once: its own receive says what has become of it.
    const bool isAnyClosed = entries.size() < links.size();
    if (kySockets::poll(entries.data(), entries.size(), isAnyClosed ? 0 : s_pollMilliseconds) < 0) {
        throw kyNetError("poll error:" + kyNetError::getLastErrorString());
    }

    Links ready;
    auto entry = entries.cbegin();
    for (std::size_t i = 0; i < links.size(); ++i) {
        if (!pins[i].isPinned() || (entry++)->ready != kySockets::None) {
            ready.push_back(links[i]);
        }
    }
    return ready;
}

} // namespace

kyNetMultiLinkReceiver::kyNetMultiLinkReceiver(const Links& links) : m_links(links) {}

kyNetMultiLinkReceiver::~kyNetMultiLinkReceiver()
{
    for (const auto& link : m_links) {
        link->shutdown();
    }
}

std::shared_ptr<kyNetReceiver> kyNetMultiLinkReceiver::create(const Links& links)
{
    if (links.size() == 1) {
        return kyNetLinkReceiver::create(links.front());
    }
    return std::make_shared<kyNetMultiLinkReceiver>(links);
}

void kyNetMultiLinkReceiver::recv(std::shared_ptr<kyNetBuffer>& buffer)
{
    pollBuffers();
    buffer = std::move(m_recvQueue.front());
    m_recvQueue.pop();
    if (buffer->getDataSize() == 0 && m_error) {
        std::rethrow_exception(m_error);
    }
}

void kyNetMultiLinkReceiver::recvAvailable(std::queue<std::shared_ptr<kyNetBuffer>>& queue)
{
    do {
        std::shared_ptr<kyNetBuffer> buffer;
        recv(buffer);
        queue.push(std::move(buffer));
    } while (!m_recvQueue.empty());
}

void kyNetMultiLinkReceiver::getLinks(Links& links)
{
    links.insert(links.end(), m_links.begin(), m_links.end());
}

void kyNetMultiLinkReceiver::pollBuffers()
{
    if (m_links.empty() && m_recvQueue.empty()) {
        throw kyConnectionClosed(); // Nothing can ever come.
    }
    while (m_recvQueue.empty()) {
        const Links ready = waitForLinks(m_links);
        for (const auto& link : ready) {
            link->recvAvailable(m_recvQueue);
        }
        if (ready.empty()) {
            for (const auto& link : m_links) {
                link->checkAlive();
            }
        }
    }
}
