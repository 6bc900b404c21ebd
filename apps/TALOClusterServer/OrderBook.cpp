#include <apps/TALOClusterServer/OrderBook.h>

#include <chrono>
#include <exception>
#include <string>
#include <utility>

#include <NetBase/buffers/kyNetError.h>
#include <NetBase/serialization/kyNetStream.h>
#include <apps/TALOClusterServer/FrameGate.h>
#include <apps/TALOClusterServer/ImageChannels.h>
#include <apps/TALOClusterServer/PathTracer.h>
#include <apps/common/RenderProtocol.h>
#include <apps/common/SceneWire.h>

namespace render {

OrderBook::OrderBook(kyNetStream& channel, ImageChannels& images, FrameGate& gate)
    : m_channel(channel), m_images(images), m_gate(gate), m_worker(&OrderBook::work, this)
{
}

OrderBook::~OrderBook()
{
    stop();
}

void OrderBook::run()
{
    try {
        for (;;) {
            add(readOrder());
        }
    } catch (const std::exception& e) {
        // The worker is gone after this, so the channel may be written to from here.
        stop();
        try {
            m_channel.clearSendBuffer();
            m_channel.sendException(e).flush();
        } catch (const std::exception&) {
            // The application itself is gone, as it is at the end of every job.
        }
    }
}

OrderBook::Job OrderBook::readOrder()
{
    auto order = Order();
    m_channel >> order;
    switch (order) {
    case Order::LoadScene: {
        // By pointer: a function object is copied, a scene shall not be.
        const auto scene = std::make_shared<Scene>(getScene(m_channel));
        return [this, scene] {
            // First without the old one: there may not be room for both.
            m_tracer.reset();
            m_tracer = std::make_unique<PathTracer>(std::move(*scene));
        };
    }
    case Order::BeginFrame: {
        std::int32_t number = 0;
        Frame frame;
        m_channel >> number >> frame;
        checkFrame(frame);
        return [this, number, frame] {
            m_frame = frame;
            m_gate.reach(number);
        };
    }
    case Order::RenderTile: {
        Tile tile;
        m_channel >> tile;
        return [this, tile] { renderTile(tile); };
    }
    }
    throw kyNetError("Unknown order " + std::to_string(static_cast<std::uint32_t>(order)));
}

void OrderBook::add(Job job)
{
    const std::lock_guard<std::mutex> guard(m_lock);
    if (m_jobs.size() >= s_limit) {
        throw kyNetError("More than " + std::to_string(s_limit) + " orders wait");
    }
    m_jobs.push_back(std::move(job));
    m_changed.notify_all();
}

void OrderBook::stop()
{
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_isStopped = true;
        m_changed.notify_all();
    }
    // The worker may be waiting for an application that reads its tiles no more.
    m_images.close();
    if (m_worker.joinable()) {
        m_worker.join();
    }
}

void OrderBook::work()
{
    Job job;
    try {
        while (take(job)) {
            perform(job);
        }
    } catch (const std::exception&) {
        // No answer gets through: let the reader notice too.
        m_channel.shutdown();
    }
}

bool OrderBook::take(Job& job)
{
    std::unique_lock<std::mutex> guard(m_lock);
    m_changed.wait(guard, [this] { return m_isStopped || !m_jobs.empty(); });
    if (m_isStopped) {
        return false;
    }
    job = std::move(m_jobs.front());
    m_jobs.pop_front();
    return true;
}

void OrderBook::perform(const Job& job)
{
    const auto begin = std::chrono::steady_clock::now();
    try {
        job();
        if (m_isStopped) {
            return;
        }
        m_channel.sendSuccess();
        m_channel
            << std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    } catch (const std::exception& e) {
        m_channel.sendException(e);
    }
    m_channel.flush();
}

void OrderBook::renderTile(const Tile& tile)
{
    if (!m_tracer) {
        throw kyNetError("There is no scene to render");
    }
    checkTile(tile, m_frame);
    const std::vector<Vector> pixels = m_tracer->render(m_frame, tile, m_isStopped);
    if (!m_isStopped) {
        TileMessage message;
        message.putTile(tile, pixels);
        m_images.send(message);
    }
}

} // namespace render
