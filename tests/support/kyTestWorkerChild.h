#pragma once

#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <queue>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <NetBase/senders/kyNetSender.h>
#include <tests/support/kyTestChains.h>
#include <tests/support/kyTestWait.h>

namespace kyTest {

/// The messages of buffers in their order, bundles opened.
inline std::vector<std::string> messagesOf(const std::vector<Buffer>& buffers)
{
    std::vector<std::string> messages;
    for (const Buffer& buffer : buffers) {
        if (buffer->getType() != kyNetMessageType::Bundle) {
            messages.push_back(dataOf(*buffer));
            continue;
        }
        std::queue<Buffer> parts;
        buffer->split(parts);
        for (; !parts.empty(); parts.pop()) {
            messages.push_back(dataOf(*parts.front()));
        }
    }
    return messages;
}

/// The end of a chain below the workers of a threaded sender: keeps what it is sent, holds them
/// inside while it is told to, and fails at the buffer it is told to.
class WorkerChild : public kyNetSender
{
public:
    using kyNetSender::kyNetSender;
    ~WorkerChild() override { letGo(); }

    void send(const Buffer& buffer) override
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        const int number = ++m_entered;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return !m_isHeld; });
        if (number == m_failAt) {
            std::rethrow_exception(std::exchange(m_failure, nullptr));
        }
        m_sent.push_back(buffer);
        m_threads.insert(std::this_thread::get_id());
        m_changed.notify_all();
    }
    void sendMany(const std::vector<Buffer>& buffers) override
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_sentTogether.push_back(buffers.size());
        }
        kyNetSender::sendMany(buffers);
    }
    void resetStatistics() override { ++resets; }
    std::uint64_t getCompressedBytes() override { return 77; }
    void waitAllDataTransfered() override { ++waits; }

    /// Keeps every thread that sends inside, from now on until letGo.
    void hold() { setHeld(true); }
    void letGo() { setHeld(false); }

    /// Throws the failure, and lets go of it, instead of the number-th send, counted from 1.
    void failAt(int number, std::exception_ptr failure)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_failAt = number;
        m_failure = std::move(failure);
    }

    /// Waits until so many sends have begun, or ended; false if that does not come.
    bool hasEntered(int count)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, s_patience, [&] { return m_entered >= count; });
    }
    bool hasSent(std::size_t count)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, s_patience, [&] { return m_sent.size() >= count; });
    }

    int entered()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_entered;
    }
    std::vector<Buffer> sent()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_sent;
    }
    std::vector<std::string> messages() { return messagesOf(sent()); }

    /// How many buffers each call was given.
    std::vector<std::size_t> sentTogether()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_sentTogether;
    }

    /// The threads that have sent.
    std::set<std::thread::id> threads()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_threads;
    }

    /// Lets go of what was sent.
    void forget()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_sent.clear();
    }

    std::atomic<int> resets{0};
    std::atomic<int> waits{0};

private:
    void setHeld(bool isHeld)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_isHeld = isHeld;
        m_changed.notify_all();
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_isHeld = false;
    int m_entered = 0;
    int m_failAt = 0;
    std::exception_ptr m_failure;
    std::vector<Buffer> m_sent;
    std::vector<std::size_t> m_sentTogether;
    std::set<std::thread::id> m_threads;
};

} // namespace kyTest
