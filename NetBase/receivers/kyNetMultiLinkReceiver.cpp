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

} // namespace

/// The links that one poll waits on: pinned from add to clear. Its memory serves the next pass.
class kyNetMultiLinkReceiver::PollSet
{
public:
    void add(kyNetLink& link)
    {
        const kyNetLinkPin& pin = m_pins.emplace_back(link);
        if (pin.isPinned()) {
            m_entries.push_back({pin.getHandle(), kySockets::Readable, kySockets::None});
        }
    }

    void clear()
    {
        m_pins.clear();
        m_entries.clear();
    }

    /// A closed link is ready at once: its own receive says what has become of it.
    bool isAnyClosed() const { return m_entries.size() < m_pins.size(); }

    /// Whether any is ready within the milliseconds. Throws kyNetError.
    bool poll(int milliseconds)
    {
        const int ready = kySockets::poll(m_entries.data(), m_entries.size(), milliseconds);
        if (ready < 0) {
            throw kyNetError("poll error:" + kyNetError::getLastErrorString());
        }
        return ready > 0;
    }

    /// The numbers of those whose receive would not wait, in the order in which they were added.
    void getReady(std::vector<std::size_t>& ready) const
    {
        ready.clear();
        auto entry = m_entries.cbegin();
        for (std::size_t i = 0; i < m_pins.size(); ++i) {
            if (!m_pins[i].isPinned() || (entry++)->ready != kySockets::None) {
                ready.push_back(i);
            }
        }
    }

private:
    std::vector<kyNetLinkPin> m_pins;
    std::vector<kySockets::PollEntry> m_entries;
};

/// Pins links in the receiver's poll set, and lets go of them at its end.
class kyNetMultiLinkReceiver::Pinned
{
public:
    explicit Pinned(std::shared_ptr<PollSet>& set)
    {
        if (set.use_count() != 1) { // The first pass, or the other's whose copy this is.
            set = std::make_shared<PollSet>();
        }
        m_set = set.get();
    }
    ~Pinned() { m_set->clear(); }

    Pinned(const Pinned&) = delete;
    Pinned& operator=(const Pinned&) = delete;

    PollSet* operator->() const { return m_set; }

private:
    PollSet* m_set;
};

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

bool kyNetMultiLinkReceiver::isReady(kyNetLink& link)
{
    const Pinned set(m_pollSet);
    set->add(link);
    return set->isAnyClosed() || set->poll(0);
}

/// Leaves none if the time is over.
void kyNetMultiLinkReceiver::awaitReadyLinks()
{
    const Pinned set(m_pollSet);
    for (const auto& link : m_links) {
        set->add(*link);
    }
    if (set->isAnyClosed()) {
        set->poll(0);
    } else {
        m_pollWindow.await([&] { return set->poll(0); }, [&] { set->poll(s_pollMilliseconds); });
    }
    set->getReady(m_ready);
}
