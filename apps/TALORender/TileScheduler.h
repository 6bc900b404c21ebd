#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>

#include <apps/common/Scene.h>

namespace render {

/// Hands out the tiles of a picture until every one is finished.
///
/// A tile that was taken is finished or given back; what is given back is the next to be taken, so
/// the death of a server costs the picture nothing.
///
/// Threads: any.
class TileScheduler
{
public:
    /// Cuts a picture into squares of the given edge, smaller ones at its right and lower border.
    TileScheduler(std::uint32_t width, std::uint32_t height, std::uint32_t edge);

    /// How many tiles there are.
    std::size_t getCount() const { return m_count; }

    /// The next tile, or none if all are taken.
    std::optional<Tile> tryTake();

    /// The next tile; while all are taken, waits whether one is given back. None once all are
    /// finished.
    std::optional<Tile> take();

    /// A taken tile is done.
    void finish();

    /// A taken tile is not done and goes to whoever asks next.
    void giveBack(const Tile& tile);

    /// Whether every tile is done.
    bool isFinished();

private:
    std::optional<Tile> pop();

    std::mutex m_lock;
    std::condition_variable m_changed;
    std::deque<Tile> m_waiting;
    std::size_t m_count;
    std::size_t m_unfinished;
};

} // namespace render
