#include <apps/TALOClusterService/ClientWatch.h>

#include <algorithm>
#include <functional>
#include <utility>

namespace {

/// How often the clients' times are compared with the limit.
constexpr std::chrono::milliseconds s_interval{50};

} // namespace

ClientWatch::ClientWatch(std::chrono::milliseconds limit, std::size_t maxWaiting)
    : m_limit(limit), m_maxWaiting(maxWaiting), m_thread([this] { watch(); })
{
}

ClientWatch::~ClientWatch()
{
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_isOver = true;
    }
    m_changed.notify_one();
    m_thread.join();
}

ClientWatch::Entry::Entry(ClientWatch& watch, std::shared_ptr<ClientLink> client)
    : m_watch(watch), m_client(std::move(client))
{
    const std::lock_guard<std::mutex> guard(m_watch.m_mutex);
    m_watch.m_clients.push_back(m_client);
    m_watch.m_changed.notify_one();
}

ClientWatch::Entry::~Entry()
{
    m_client->endWatch();
    const std::lock_guard<std::mutex> guard(m_watch.m_mutex);
    auto& clients = m_watch.m_clients;
    clients.erase(std::find(clients.begin(), clients.end(), m_client));
}

void ClientWatch::close()
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_maxWaiting = 0;
    dropOverdue();
}

void ClientWatch::watch()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_isOver) {
        if (m_clients.empty()) {
            m_changed.wait(lock, [this] { return m_isOver || !m_clients.empty(); });
        }
        dropOverdue();
        m_changed.wait_for(lock, s_interval, [this] { return m_isOver; });
    }
}

void ClientWatch::dropOverdue() const
{
    std::vector<std::pair<ClientLink::Clock::duration, ClientLink*>> waiting;
    // One moment for all, or the order in which they are asked would count, too.
    const ClientLink::Clock::time_point now = ClientLink::Clock::now();
    for (const auto& client : m_clients) {
        const ClientLink::Clock::duration wait = client->getWait(now);
        if (wait > m_limit) {
            client->dropIfWaiting();
        } else if (wait > ClientLink::Clock::duration::zero()) {
            waiting.emplace_back(wait, client.get());
        }
    }
    if (waiting.size() <= m_maxWaiting) {
        return;
    }
    std::sort(waiting.begin(), waiting.end(), std::greater<>());
    waiting.resize(waiting.size() - m_maxWaiting);
    for (const auto& [wait, client] : waiting) {
        client->dropIfWaiting();
    }
}
