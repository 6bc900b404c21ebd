#include <apps/common/SceneWire.h>

#include <string>
#include <type_traits>

#include <NetBase/buffers/kyNetError.h>
#include <NetBase/serialization/kyNetSerializer.h>

namespace render {

namespace {

// These travel as they stand in memory.
static_assert(sizeof(Vector) == 12 && sizeof(Triangle) == 12);
static_assert(sizeof(Material) == 36 && sizeof(AreaLight) == 48 && sizeof(Sky) == 36);
static_assert(sizeof(Frame) == 60 && sizeof(Tile) == 16);

/// Memory for an array that arrives grows by this many bytes at a time.
constexpr std::uint64_t s_step = 1U << 20;

void require(bool holds, const char* complaint)
{
    if (!holds) {
        throw kyNetError(std::string("Received an invalid scene: ") + complaint);
    }
}

void requireCount(std::uint64_t count, std::uint64_t limit, const char* what)
{
    if (count > limit) {
        throw kyNetError("Received an invalid scene: " + std::to_string(count) + " " + what +
                         ", at most " + std::to_string(limit) + " are accepted");
    }
}

template <class Element> void putArray(kyNetSerializer& out, const std::vector<Element>& elements)
{
    static_assert(std::is_trivially_copyable_v<Element>);
    out.putValueSize(elements.size());
    out.putBytes(elements.data(), elements.size() * sizeof(Element));
}

template <class Element>
std::vector<Element> getArray(kyNetSerializer& in, std::uint64_t limit, const char* what)
{
    static_assert(std::is_trivially_copyable_v<Element>);
    std::uint64_t left = in.getValueSize();
    requireCount(left, limit, what);
    std::vector<Element> elements;
    while (left > 0) {
        const std::uint64_t part = std::min(left, s_step / sizeof(Element));
        const std::size_t begin = elements.size();
        elements.resize(begin + part);
        in.getBytes(elements.data() + begin, part * sizeof(Element));
        left -= part;
    }
    return elements;
}

bool isBetween(float value, float low, float high)
{
    return value >= low && value <= high;
}

bool isColor(const Vector& v)
{
    return isBetween(v.x, 0.0F, 1.0F) && isBetween(v.y, 0.0F, 1.0F) && isBetween(v.z, 0.0F, 1.0F);
}

bool isLight(const Vector& v)
{
    return isFinite(v) && v.x >= 0.0F && v.y >= 0.0F && v.z >= 0.0F;
}

void checkMaterial(const Material& material)
{
    require(isColor(material.color) && isBetween(material.translucency, 0.0F, 1.0F) &&
                isLight(material.absorption) && isBetween(material.coat, 0.0F, 1.0F) &&
                isBetween(material.roughness, 0.0F, 1.0F),
            "a material out of range");
}

void checkMesh(const Mesh& mesh, std::size_t materials)
{
    require(mesh.material < materials, "a mesh of a material that does not exist");
    require(!mesh.triangles.empty(), "a mesh without triangles");
    require(mesh.normals.size() == mesh.positions.size(), "not one normal for each position");
    for (const std::vector<Vector>* vectors : {&mesh.positions, &mesh.normals}) {
        for (const Vector& v : *vectors) {
            require(isFinite(v), "a vertex that is no number");
        }
    }
    for (const Triangle& triangle : mesh.triangles) {
        for (const std::uint32_t vertex : triangle) {
            require(vertex < mesh.positions.size(), "a triangle of vertices that do not exist");
        }
    }
}

void checkLight(const AreaLight& light)
{
    const float area = length(cross(light.edgeU, light.edgeV));
    require(isFinite(light.corner) && std::isfinite(area) && area > 0.0F && isLight(light.radiance),
            "a light without a place, an area or a colour");
}

} // namespace

void putScene(kyNetSerializer& out, const Scene& scene)
{
    putArray(out, scene.materials);
    out.putValueSize(scene.meshes.size());
    for (const Mesh& mesh : scene.meshes) {
        out.putValue(mesh.material);
        putArray(out, mesh.positions);
        putArray(out, mesh.normals);
        putArray(out, mesh.triangles);
    }
    putArray(out, scene.lights);
    out.putValue(scene.sky);
}

Scene getScene(kyNetSerializer& in)
{
    Scene scene;
    scene.materials = getArray<Material>(in, limits::s_materials, "materials");
    std::uint64_t vertices = limits::s_vertices;
    std::uint64_t triangles = limits::s_triangles;
    const std::uint64_t meshes = in.getValueSize();
    requireCount(meshes, limits::s_meshes, "meshes");
    for (std::uint64_t i = 0; i < meshes; ++i) {
        Mesh mesh;
        in.getValue(mesh.material);
        mesh.positions = getArray<Vector>(in, vertices, "vertices");
        mesh.normals = getArray<Vector>(in, mesh.positions.size(), "normals");
        mesh.triangles = getArray<Triangle>(in, triangles, "triangles");
        vertices -= mesh.positions.size();
        triangles -= mesh.triangles.size();
        scene.meshes.push_back(std::move(mesh));
    }
    scene.lights = getArray<AreaLight>(in, limits::s_lights, "lights");
    in.getValue(scene.sky);
    checkScene(scene);
    return scene;
}

void checkScene(const Scene& scene)
{
    requireCount(scene.materials.size(), limits::s_materials, "materials");
    requireCount(scene.meshes.size(), limits::s_meshes, "meshes");
    requireCount(scene.lights.size(), limits::s_lights, "lights");
    require(!scene.meshes.empty(), "nothing in it");
    std::uint64_t vertices = 0;
    std::uint64_t triangles = 0;
    for (const Material& material : scene.materials) {
        checkMaterial(material);
    }
    for (const Mesh& mesh : scene.meshes) {
        vertices += mesh.positions.size();
        triangles += mesh.triangles.size();
        requireCount(vertices, limits::s_vertices, "vertices");
        requireCount(triangles, limits::s_triangles, "triangles");
        checkMesh(mesh, scene.materials.size());
    }
    for (const AreaLight& light : scene.lights) {
        checkLight(light);
    }
    require(isLight(scene.sky.zenith) && isLight(scene.sky.horizon) && isLight(scene.sky.nadir),
            "a sky without a colour");
}

void checkFrame(const Frame& frame)
{
    const std::uint64_t pixels = std::uint64_t{frame.width} * frame.height;
    const Camera& camera = frame.camera;
    if (frame.width > limits::s_imageEdge || frame.height > limits::s_imageEdge || pixels == 0 ||
        pixels > limits::s_imagePixels) {
        throw kyNetError("Received an invalid frame: a picture of " + std::to_string(frame.width) +
                         "x" + std::to_string(frame.height) + " pixels");
    }
    if (frame.samples == 0 || frame.samples > limits::s_samples) {
        throw kyNetError("Received an invalid frame: " + std::to_string(frame.samples) +
                         " samples per pixel");
    }
    if (!isFinite(camera.position) || !isFinite(camera.forward) || !isFinite(camera.right) ||
        !isFinite(camera.up) || !(length(camera.forward) > 0.0F)) {
        throw kyNetError("Received an invalid frame: a camera that looks nowhere");
    }
}

void checkTile(const Tile& tile, const Frame& frame)
{
    const bool isInside = tile.x < frame.width && tile.width <= frame.width - tile.x &&
                          tile.y < frame.height && tile.height <= frame.height - tile.y;
    if (!isInside || tile.pixelCount() == 0 || tile.pixelCount() > limits::s_tilePixels) {
        throw kyNetError("Received an invalid tile: " + std::to_string(tile.width) + "x" +
                         std::to_string(tile.height) + " pixels at " + std::to_string(tile.x) +
                         "," + std::to_string(tile.y));
    }
}

} // namespace render
