#pragma once

#include <cstdint>
#include <memory>

#include <apps/common/Scene.h>

namespace render {

struct Ray
{
    Vector origin;
    Vector direction;
};

/// Where a ray met something.
struct Hit
{
    static constexpr float s_infinity = 1e30F;

    float distance = s_infinity;
    /// The number of a mesh; those of the lights follow.
    std::uint32_t geometry = 0;
    /// Of a mesh: the triangle, and the shares of its second and third corner in the place.
    std::uint32_t triangle = 0;
    float u = 0.0F;
    float v = 0.0F;
    /// Of the flat surface, unit length, to either side.
    Vector normal;
};

/// Finds what rays meet first: the meshes and lights of a scene.
///
/// There are two, of which a build has one: Embree's, and a plain one without any library for
/// systems that do not have it. They agree but for the last bits, so pictures of the one differ in
/// a few pixels from those of the other. Either gives the same picture every time.
///
/// Threads: any may cast rays.
class RayCaster
{
public:
    /// Whether the build's is the plain one.
    static const bool s_isPlain;

    /// Takes the positions out of the scene's meshes, which need them no more. Throws
    /// std::runtime_error or std::bad_alloc when there is no memory for the search.
    static std::unique_ptr<const RayCaster> create(Scene& scene);

    virtual ~RayCaster() = default;

    /// The edges of the box around everything.
    virtual Vector getExtent() const = 0;

    /// Whether the ray meets anything, and where it does first.
    virtual bool intersect(const Ray& ray, Hit& hit) const = 0;

    /// Whether the ray meets anything within the distance.
    virtual bool isOccluded(const Ray& ray, float distance) const = 0;
};

} // namespace render
