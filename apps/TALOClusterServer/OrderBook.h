#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include <apps/common/Scene.h>

class kyNetStream;

namespace render {

class FrameGate;
class ImageChannels;
class PathTracer;

/// Takes the application's orders from the low latency channel and carries them out.
///
/// One thread only reads, so that it notices at once when the application is gone, also in the
/// middle of a tile; another one renders and answers. The answers come in the order of the orders:
/// success and the seconds that it took, or the text of the exception that an order ended with.
/// Words that are no order end the channel, after a last answer that says so.
class OrderBook
{
public:
    /// Orders that may wait. An application keeps two tiles on their way; one that orders without
    /// end and reads no answer is cut off here.
    static constexpr std::size_t s_limit = 1024;

    OrderBook(kyNetStream& channel, ImageChannels& images, FrameGate& gate);
    ~OrderBook();

    OrderBook(const OrderBook&) = delete;
    OrderBook& operator=(const OrderBook&) = delete;

    /// Takes orders until the application is gone or out of order; drops what is not done then, and
    /// closes the image channels. Blocks. Never throws.
    void run();

private:
    using Job = std::function<void()>;

    Job readOrder();
    void add(Job job);
    void stop();

    void work();
    bool take(Job& job);
    void perform(const Job& job);
    void renderTile(const Tile& tile);

    kyNetStream& m_channel;
    ImageChannels& m_images;
    FrameGate& m_gate;

    std::mutex m_lock;
    std::condition_variable m_changed;
    std::deque<Job> m_jobs;
    std::atomic<bool> m_isStopped{false};

    // Of the worker's thread.
    std::unique_ptr<PathTracer> m_tracer;
    Frame m_frame;

    std::thread m_worker;
};

} // namespace render
