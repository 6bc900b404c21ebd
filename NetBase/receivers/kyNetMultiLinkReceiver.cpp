#include <NetBase/receivers/kyNetMultiLinkReceiver.h>

#include <utility>

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

/// So many links allow one pass over a link that was found alone. Polling a thousand links costs
/// fifty times what receiving a small buffer does.
constexpr std::size_t s_linksPerShortPass = 16;

/// The links that one poll waits on: pinned as long as it lives.
class PollSet
{
public:
    PollSet() : m_kept(getKept()) {}
    ~PollSet()
    {
        m_kept.pins.clear();
        m_kept.entries.clear();
    }

    PollSet(const PollSet&) = delete;
    PollSet& operator=(const PollSet&) = delete;

    void add(kyNetLink& link)
    {
        const kyNetLinkPin& pin = m_kept.pins.emplace_back(link);
        if (pin.isPinned()) {
            m_kept.entries.push_back({pin.getHandle(), kySockets::Readable, kySockets::None});
        }
    }

    /// A closed link is ready at once: its own receive says what has become of it.
    bool isAnyClosed() const { return m_kept.entries.size() < m_kept.pins.size(); }

    /// Whether any is ready within the milliseconds. Throws kyNetError.
    bool poll(int milliseconds)
    {
        auto& entries = m_kept.entries;
        const int ready = kySockets::poll(entries.data(), entries.size(), milliseconds);
        if (ready < 0) {
            throw kyNetError("poll error:" + kyNetError::getLastErrorString());
        }
        return ready > 0;
    }

    /// The numbers of those whose receive would not wait, in the order in which they were added.
    void getReady(std::vector<std::size_t>& ready) const
    {
        ready.clear();
        auto entry = m_kept.entries.cbegin();
        for (std::size_t i = 0; i < m_kept.pins.size(); ++i) {
            if (!m_kept.pins[i].isPinned() || (entry++)->ready != kySockets::None) {
                ready.push_back(i);
            }
        }
    }

private:
    struct Kept
    {
        std::vector<kyNetLinkPin> pins;
        std::vector<kySockets::PollEntry> entries;
    };

    /// Memory that every pass of the calling thread uses.
    static Kept& getKept()
    {
        thread_local Kept kept;
        return kept;
    }

    Kept& m_kept;
};

bool isReady(kyNetLink& link)
{
    PollSet set;
    set.add(link);
    return set.isAnyClosed() || set.poll(0);
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
        if (!readBusyLink()) {
            readReadyLinks();
        }
    }
}

bool kyNetMultiLinkReceiver::readBusyLink()
{
    // None if it has no more or fails: others may have something meanwhile.
    const std::size_t passes = std::exchange(m_shortPasses, 0);
    if (passes == 0 || !isReady(*m_links[m_busyLink])) {
        return false;
    }
    m_links[m_busyLink]->recvAvailable(m_recvQueue);
    m_shortPasses = passes - 1;
    return true;
}

void kyNetMultiLinkReceiver::readReadyLinks()
{
    awaitReadyLinks();
    for (const std::size_t link : m_ready) {
        m_links[link]->recvAvailable(m_recvQueue);
    }
    if (m_ready.size() == 1) {
        m_busyLink = m_ready.front();
        m_shortPasses = m_links.size() / s_linksPerShortPass;
    }
    if (m_ready.empty()) {
        for (const auto& link : m_links) {
            link->checkAlive();
        }
    }
}

/// Leaves none if the time is over.
void kyNetMultiLinkReceiver::awaitReadyLinks()
{
    PollSet set;
    for (const auto& link : m_links) {
        set.add(*link);
    }
    if (set.isAnyClosed()) {
        set.poll(0);
    } else {
        m_pollWindow.await([&] { return set.poll(0); }, [&] { set.poll(s_pollMilliseconds); });
    }
    set.getReady(m_ready);
}
