#include <apps/TALORender/TileScheduler.h>

#include <algorithm>

namespace render {

TileScheduler::TileScheduler(std::uint32_t width, std::uint32_t height, std::uint32_t edge)
{
    for (std::uint32_t y = 0; y < height; y += edge) {
        for (std::uint32_t x = 0; x < width; x += edge) {
            m_waiting.push_back({x, y, std::min(edge, width - x), std::min(edge, height - y)});
        }
    }
    m_count = m_waiting.size();
    m_unfinished = m_count;
}

std::optional<Tile> TileScheduler::tryTake()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    return pop();
}

std::optional<Tile> TileScheduler::take()
{
    std::unique_lock<std::mutex> guard(m_lock);
    m_changed.wait(guard, [this] { return !m_waiting.empty() || m_unfinished == 0; });
    return pop();
}

std::optional<Tile> TileScheduler::pop()
{
    if (m_waiting.empty()) {
        return std::nullopt;
    }
    const Tile tile = m_waiting.front();
    m_waiting.pop_front();
    return tile;
}

void TileScheduler::finish()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    --m_unfinished;
    m_changed.notify_all();
}

void TileScheduler::giveBack(const Tile& tile)
{
    const std::lock_guard<std::mutex> guard(m_lock);
    m_waiting.push_front(tile);
    m_changed.notify_all();
}

bool TileScheduler::isFinished()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_unfinished == 0;
}

} // namespace render
