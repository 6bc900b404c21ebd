#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include <apps/common/Scene.h>

namespace render {

/// Renders tiles of a scene by following light backwards from the camera.
///
/// At each surface a path asks an area light directly and goes on in a direction drawn from the
/// material; both ways of meeting a light are weighted against each other. Light that enters a
/// translucent body crosses it and leaves on the far side.
///
/// A pixel depends on the scene, the frame and its place only: every random number is a function
/// of pixel and path, rays meet the same triangles whoever casts them, and the arithmetic is the
/// same on every processor. So it does not matter which server renders a tile, in which order
/// or on how many threads.
///
/// Threads: `render` may be called by several threads at once and uses the task library's workers.
class PathTracer
{
public:
    /// Takes a scene that `checkScene` has accepted and prepares to cast rays into it. Throws
    /// what RayCaster does when there is no memory for it.
    explicit PathTracer(Scene scene);
    ~PathTracer();

    PathTracer(const PathTracer&) = delete;
    PathTracer& operator=(const PathTracer&) = delete;

    /// The linear colours of a tile's pixels, row by row from the upper left one.
    ///
    /// Once `stop` is true the call returns at once, and the pixels are of no use.
    std::vector<Vector> render(const Frame& frame, const Tile& tile,
                               const std::atomic<bool>& stop) const;

private:
    class Paths;
    std::unique_ptr<const Paths> m_paths;
};

} // namespace render
