#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace render {

/// Where the sync channel waits until the orders have brought the server to a frame.
///
/// Threads: any.
class FrameGate
{
public:
    /// The server has reached the frame.
    void reach(std::int32_t frame)
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_frame = frame;
        m_changed.notify_all();
    }

    /// Nobody shall wait any more.
    void close()
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_isClosed = true;
        m_changed.notify_all();
    }

    /// Waits until the frame is reached; false if the gate is closed.
    bool wait(std::int32_t frame)
    {
        std::unique_lock<std::mutex> guard(m_lock);
        m_changed.wait(guard, [&] { return m_isClosed || m_frame >= frame; });
        return !m_isClosed;
    }

private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::int32_t m_frame = 0;
    bool m_isClosed = false;
};

} // namespace render
