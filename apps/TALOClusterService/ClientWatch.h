#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <apps/TALOClusterService/ClientLink.h>

/// Sees to it that clients who keep the service waiting make way for others.
///
/// A client that was waited for longer than the limit is dropped, however it spends the time: a
/// byte now and then buys it nothing. If too many are waited for at once, the one that has been
/// waited for longest has to go, so that a new client always finds a place.
///
/// Threads: everything may be called from any thread.
class ClientWatch
{
public:
    /// Watches a client for as long as it exists; the watch must outlive it.
    class Entry
    {
    public:
        Entry(ClientWatch& watch, std::shared_ptr<ClientLink> client);
        ~Entry();

        Entry(const Entry&) = delete;
        Entry& operator=(const Entry&) = delete;

    private:
        ClientWatch& m_watch;
        std::shared_ptr<ClientLink> m_client;
    };

    /// Waits for `limit` for each client and for at most `maxWaiting` at once.
    ClientWatch(std::chrono::milliseconds limit, std::size_t maxWaiting);

    /// No client may be watched any more.
    ~ClientWatch();

    ClientWatch(const ClientWatch&) = delete;
    ClientWatch& operator=(const ClientWatch&) = delete;

    /// From now on no client is waited for, those that are added later included.
    void close();

private:
    void watch();
    void dropOverdue() const;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::shared_ptr<ClientLink>> m_clients;
    std::chrono::milliseconds m_limit;
    std::size_t m_maxWaiting;
    bool m_isOver = false;
    std::thread m_thread;
};
