#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include <apps/common/Vector.h>

namespace render {

/// What a surface does with light: a polished clear coat over a coloured body.
struct Material
{
    /// What the body under the coat scatters back, 0 to 1.
    Vector color{0.5F};
    /// How much of the light that enters the body travels through it, 0 to 1.
    float translucency = 0.0F;
    /// What light loses on its way inside: exp(-absorption * distance) is left of it.
    Vector absorption{0.0F};
    /// Reflectance of the coat seen straight on (0.04 is lacquer); 0 means no coat.
    float coat = 0.0F;
    /// Width of the coat's highlight, 0.02 (mirror) to 1 (dull).
    float roughness = 0.3F;
};

/// A triangle: three positions in its mesh's vertex arrays.
using Triangle = std::array<std::uint32_t, 3>;

/// Triangles of one material with a normal at each vertex.
struct Mesh
{
    std::vector<Vector> positions;
    /// One per position; the surface is shaded as if it curved from one to the next.
    std::vector<Vector> normals;
    std::vector<Triangle> triangles;
    std::uint32_t material = 0;
};

/// A rectangle that shines to the side of cross(edgeU, edgeV).
struct AreaLight
{
    Vector corner;
    Vector edgeU;
    Vector edgeV;
    Vector radiance;
};

/// Light from all around, blended by height from the horizon up to the zenith or down.
struct Sky
{
    Vector zenith;
    Vector horizon;
    Vector nadir;
};

/// Everything that the rays of a frame can meet.
struct Scene
{
    std::vector<Material> materials;
    std::vector<Mesh> meshes;
    std::vector<AreaLight> lights;
    Sky sky;
};

/// A pinhole: the ray through the image point (u, v), both from -1 to 1 and v upwards, has the
/// direction forward + u * right + v * up.
struct Camera
{
    Vector position;
    Vector forward{0.0F, 0.0F, -1.0F};
    Vector right{1.0F, 0.0F, 0.0F};
    Vector up{0.0F, 1.0F, 0.0F};
};

/// One picture to take of a scene.
struct Frame
{
    Camera camera;
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    /// Paths per pixel.
    std::uint32_t samples = 0;
};

/// A rectangle of pixels of a frame; (0, 0) is the upper left one.
struct Tile
{
    std::uint32_t x = 0;
    std::uint32_t y = 0;
    std::uint32_t width = 0;
    std::uint32_t height = 0;

    std::uint64_t pixelCount() const { return std::uint64_t{width} * height; }

    friend bool operator==(const Tile& a, const Tile& b)
    {
        return a.x == b.x && a.y == b.y && a.width == b.width && a.height == b.height;
    }
};

/// What a scene, a frame or a tile may hold, whoever says so.
///
/// The texts that cross the wire claim these numbers before anything is allocated for them; a
/// larger claim is refused. They are far above what one machine renders in an hour.
namespace limits {
constexpr std::uint64_t s_materials = 4096;
constexpr std::uint64_t s_meshes = 65536;
constexpr std::uint64_t s_lights = 4096;
constexpr std::uint64_t s_vertices = 200'000'000;
constexpr std::uint64_t s_triangles = 200'000'000;
constexpr std::uint32_t s_imageEdge = 32768;
constexpr std::uint64_t s_imagePixels = 256'000'000;
constexpr std::uint32_t s_samples = 1'000'000;
/// A finished tile travels in one buffer, 12 bytes a pixel.
constexpr std::uint64_t s_tilePixels = 10'000;
} // namespace limits

} // namespace render
