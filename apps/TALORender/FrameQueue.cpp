#include <apps/TALORender/FrameQueue.h>

#include <algorithm>
#include <utility>

namespace render {

FrameQueue::FrameQueue(std::vector<Frame> frames, std::int32_t first, std::uint32_t edge)
    : m_frames(std::move(frames)),
      m_first(first),
      m_edge(edge),
      m_announced(first - 1),
      m_unfinishedFrames(m_frames.size())
{
}

const Frame& FrameQueue::getFrame(std::int32_t number) const
{
    return m_frames.at(static_cast<std::size_t>(number - m_first));
}

std::size_t FrameQueue::countTiles() const
{
    std::size_t count = 0;
    for (const Frame& frame : m_frames) {
        count += cut(frame).size();
    }
    return count;
}

FrameQueue::Tiles FrameQueue::cut(const Frame& frame) const
{
    Tiles tiles;
    for (std::uint32_t y = 0; y < frame.height; y += m_edge) {
        for (std::uint32_t x = 0; x < frame.width; x += m_edge) {
            tiles.push_back(
                {x, y, std::min(m_edge, frame.width - x), std::min(m_edge, frame.height - y)});
        }
    }
    return tiles;
}

void FrameQueue::announce(std::int32_t number)
{
    const std::lock_guard<std::mutex> guard(m_lock);
    m_announced = number;
    m_changed.notify_all();
}

void FrameQueue::release(std::int32_t number)
{
    Tiles tiles = cut(getFrame(number));
    const std::lock_guard<std::mutex> guard(m_lock);
    m_unfinished[number] = tiles.size();
    m_waiting[number] = std::move(tiles);
    m_changed.notify_all();
}

bool FrameQueue::waitFinished(std::int32_t number)
{
    std::unique_lock<std::mutex> guard(m_lock);
    const std::size_t& unfinished = m_unfinished.at(number);
    m_changed.wait(guard, [&] { return m_isClosed || unfinished == 0; });
    return unfinished == 0;
}

std::optional<FrameQueue::Task> FrameQueue::tryTake(std::int32_t& begun)
{
    const std::lock_guard<std::mutex> guard(m_lock);
    return pop(begun);
}

std::optional<FrameQueue::Task> FrameQueue::take(std::int32_t& begun)
{
    std::unique_lock<std::mutex> guard(m_lock);
    std::optional<Task> task;
    m_changed.wait(guard, [&] {
        task = pop(begun);
        return task || m_isClosed || m_unfinishedFrames == 0;
    });
    return task;
}

std::optional<FrameQueue::Task> FrameQueue::pop(std::int32_t& begun)
{
    if (m_isClosed) {
        return std::nullopt;
    }
    begun = std::max(begun, m_first - 1);
    if (begun < m_announced) {
        return Task{++begun, std::nullopt};
    }
    if (m_waiting.empty()) {
        return std::nullopt;
    }
    const auto oldest = m_waiting.begin();
    Tiles& tiles = oldest->second;
    const Task task{oldest->first, tiles.front()};
    tiles.pop_front();
    if (tiles.empty()) {
        m_waiting.erase(oldest);
    }
    return task;
}

void FrameQueue::finish(const Task& task)
{
    const std::lock_guard<std::mutex> guard(m_lock);
    if (--m_unfinished.at(task.frame) == 0) {
        --m_unfinishedFrames;
        m_changed.notify_all();
    }
}

void FrameQueue::giveBack(const Task& task)
{
    const std::lock_guard<std::mutex> guard(m_lock);
    m_waiting[task.frame].push_front(task.tile.value());
    m_changed.notify_all();
}

void FrameQueue::close()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    m_isClosed = true;
    m_changed.notify_all();
}

} // namespace render
