#pragma once

#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <queue>
#include <string>
#include <utility>
#include <vector>

#include <NetBase/receivers/kyNetReceiver.h>
#include <tests/support/kyTestChains.h>
#include <tests/support/kyTestSlowness.h>
#include <tests/support/kyTestWait.h>

namespace kyTest {

/// The child of a reading thread: waits like a link, delivers what the test gives it and fails when
/// the test says so, or when its link is shut down.
class Tap : public kyNetReceiver
{
public:
    void give(const Buffer& buffer)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_given.push(buffer);
        m_changed.notify_all();
    }
    void give(const std::string& data) { give(makeBuffer(data)); }

    /// Ends it behind what was given.
    void fail(const std::string& text) { fail(std::make_exception_ptr(kyNetError(text))); }
    void fail(std::exception_ptr failure)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_failure) {
            m_failure = std::move(failure);
        }
        m_changed.notify_all();
    }

    void recv(Buffer& buffer) override
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_entered;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return !m_given.empty() || m_failure; });
        if (m_given.empty()) {
            std::rethrow_exception(m_failure);
        }
        buffer = std::move(m_given.front());
        m_given.pop();
    }

    /// Waits until so many buffers were taken and passed on; false if that does not come.
    bool hasDelivered(int count)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, s_patience, [&] { return m_entered > count; });
    }

    bool isShutDown() const { return m_link->isShutDown; }

protected:
    void getLinks(std::vector<std::shared_ptr<kyNetLink>>& links) override
    {
        links.push_back(m_link);
    }

private:
    class Link : public KeepingLink
    {
    public:
        explicit Link(Tap& tap) : m_tap(tap) {}
        void shutdown() override
        {
            KeepingLink::shutdown();
            m_tap.fail(std::make_exception_ptr(kyConnectionClosed()));
        }

    private:
        Tap& m_tap;
    };

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::queue<Buffer> m_given;
    std::exception_ptr m_failure;
    int m_entered = 0;
    std::shared_ptr<Link> m_link = std::make_shared<Link>(*this);
};

/// The data of the receiver's next buffer.
inline std::string recvFrom(kyNetReceiver& receiver)
{
    Buffer buffer;
    receiver.recv(buffer);
    return dataOf(*buffer);
}

/// The data of all buffers in a queue, a blank behind each.
inline std::string drain(std::queue<Buffer>& queue)
{
    std::string all;
    for (; !queue.empty(); queue.pop()) {
        all += dataOf(*queue.front()) + " ";
    }
    return all;
}

/// The data of all that the receiver has at hand.
inline std::string recvAvailableFrom(kyNetReceiver& receiver)
{
    std::queue<Buffer> queue;
    receiver.recvAvailable(queue);
    return drain(queue);
}

/// What recv of the receiver fails with.
inline std::string failureOf(kyNetReceiver& receiver)
{
    return messageOf([&] { recvFrom(receiver); });
}

/// Whether destroying the receiver takes no time to speak of.
inline bool endsAtOnce(std::shared_ptr<kyNetReceiver>& receiver)
{
    const auto begin = std::chrono::steady_clock::now();
    receiver.reset();
    return std::chrono::steady_clock::now() - begin < s_moment;
}

} // namespace kyTest
