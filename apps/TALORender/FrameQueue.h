#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include <apps/common/Scene.h>

namespace render {

/// Hands out the work of a sequence of frames until every tile of every frame is finished.
///
/// Somebody leads:
///
///     queue.announce(n + 1);      // each server is told once to begin the frame
///     ...                         // until all have done so
///     queue.release(n + 1);       // its tiles are handed out right behind those of frame n
///     queue.waitFinished(n);
///
/// Each server has a thread that takes tasks. A tile that was taken is finished or given back; what
/// is given back is the next to be taken, and an older frame comes before a newer one, so the death
/// of a server costs the pictures nothing.
///
/// Threads: any.
class FrameQueue
{
public:
    /// Something for a server to do: one tile of the frame, or without a tile, to begin it.
    struct Task
    {
        std::int32_t frame = 0;
        std::optional<Tile> tile;
    };

    /// For these frames, none of them empty, which are numbered from `first` on. Tiles are squares
    /// of the given edge, smaller ones at the right and lower border.
    FrameQueue(std::vector<Frame> frames, std::int32_t first, std::uint32_t edge);

    const Frame& getFrame(std::int32_t number) const;

    /// How many tiles all frames have together.
    std::size_t countTiles() const;

    /// Has every server begin the frame.
    void announce(std::int32_t number);

    /// Adds the frame's tiles to those that are handed out.
    void release(std::int32_t number);

    /// Waits until every tile of a released frame is done; false if the queue was closed before.
    bool waitFinished(std::int32_t number);

    /// The next task of a server; none if there is nothing to take now. `begun` is the last frame
    /// that the server was told to begin, 0 in the beginning; it is moved on.
    std::optional<Task> tryTake(std::int32_t& begun);

    /// The same, but waits for a task. None once all is finished, or the queue was closed.
    std::optional<Task> take(std::int32_t& begun);

    /// A taken tile is done.
    void finish(const Task& task);

    /// A taken tile is not done and goes to whoever asks next.
    void giveBack(const Task& task);

    /// Nobody shall wait any more, and nothing more is handed out.
    void close();

private:
    using Tiles = std::deque<Tile>;

    Tiles cut(const Frame& frame) const;
    std::optional<Task> pop(std::int32_t& begun);

    const std::vector<Frame> m_frames;
    const std::int32_t m_first;
    const std::uint32_t m_edge;

    std::mutex m_lock;
    std::condition_variable m_changed;
    std::int32_t m_announced;
    /// Tiles to be taken, by the number of their frame; no frame without tiles.
    std::map<std::int32_t, Tiles> m_waiting;
    /// How many tiles of each released frame are not done.
    std::map<std::int32_t, std::size_t> m_unfinished;
    std::size_t m_unfinishedFrames;
    bool m_isClosed = false;
};

} // namespace render
