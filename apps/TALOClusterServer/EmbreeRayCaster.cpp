#include <apps/TALOClusterServer/RayCaster.h>

#include <stdexcept>

#include <embree3/rtcore.h>
#include <tbb/task_arena.h>

namespace render {

namespace {

RTCRay makeQuery(const Ray& ray, float distance)
{
    RTCRay query{};
    query.org_x = ray.origin.x;
    query.org_y = ray.origin.y;
    query.org_z = ray.origin.z;
    query.dir_x = ray.direction.x;
    query.dir_y = ray.direction.y;
    query.dir_z = ray.direction.z;
    query.tnear = 0.0F;
    query.tfar = distance;
    query.mask = ~0U;
    return query;
}

class EmbreeRayCaster : public RayCaster
{
public:
    explicit EmbreeRayCaster(Scene& scene);

    Vector getExtent() const override;
    bool intersect(const Ray& ray, Hit& hit) const override;
    bool isOccluded(const Ray& ray, float distance) const override;

private:
    struct DeviceDeleter
    {
        void operator()(RTCDeviceTy* device) const { rtcReleaseDevice(device); }
    };
    struct SceneDeleter
    {
        void operator()(RTCSceneTy* scene) const { rtcReleaseScene(scene); }
    };

    void check(const char* what) const;
    void attach(RTCGeometryType type, const void* vertices, std::size_t vertexCount,
                const void* indices, std::size_t indexCount);

    std::unique_ptr<RTCDeviceTy, DeviceDeleter> m_device;
    std::unique_ptr<RTCSceneTy, SceneDeleter> m_tree;
};

EmbreeRayCaster::EmbreeRayCaster(Scene& scene)
    // Wider instructions round products differently; these every server has.
    : m_device(rtcNewDevice("isa=sse4.2,set_affinity=0"))
{
    if (!m_device) {
        throw std::runtime_error("Unable to create the ray tracing device");
    }
    m_tree.reset(rtcNewScene(m_device.get()));
    rtcSetSceneFlags(m_tree.get(), RTC_SCENE_FLAG_ROBUST);
    for (Mesh& mesh : scene.meshes) {
        attach(RTC_GEOMETRY_TYPE_TRIANGLE, mesh.positions.data(), mesh.positions.size(),
               mesh.triangles.data(), mesh.triangles.size());
        mesh.positions = {};
    }
    for (const AreaLight& light : scene.lights) {
        const Vector corners[4] = {light.corner, light.corner + light.edgeU,
                                   light.corner + light.edgeU + light.edgeV,
                                   light.corner + light.edgeV};
        const std::uint32_t quad[4] = {0, 1, 2, 3};
        attach(RTC_GEOMETRY_TYPE_QUAD, corners, 4, quad, 1);
    }
    // One thread: several would share the work differently each time, and with the shape of the
    // tree it would change which of two triangles a ray along their common edge meets.
    tbb::task_arena(1).execute([this] { rtcCommitScene(m_tree.get()); });
    check("Unable to build the tree over the scene");
}

void EmbreeRayCaster::check(const char* what) const
{
    if (rtcGetDeviceError(m_device.get()) != RTC_ERROR_NONE) {
        throw std::runtime_error(what);
    }
}

void EmbreeRayCaster::attach(RTCGeometryType type, const void* vertices, std::size_t vertexCount,
                             const void* indices, std::size_t indexCount)
{
    const bool isQuad = type == RTC_GEOMETRY_TYPE_QUAD;
    const std::size_t corners = isQuad ? 4 : 3;
    RTCGeometry geometry = rtcNewGeometry(m_device.get(), type);
    void* vertexBuffer = rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0,
                                                 RTC_FORMAT_FLOAT3, sizeof(Vector), vertexCount);
    void* indexBuffer = rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_INDEX, 0,
                                                isQuad ? RTC_FORMAT_UINT4 : RTC_FORMAT_UINT3,
                                                corners * sizeof(std::uint32_t), indexCount);
    if (vertexBuffer != nullptr && indexBuffer != nullptr) {
        std::copy_n(static_cast<const Vector*>(vertices), vertexCount,
                    static_cast<Vector*>(vertexBuffer));
        std::copy_n(static_cast<const std::uint32_t*>(indices), corners * indexCount,
                    static_cast<std::uint32_t*>(indexBuffer));
        rtcCommitGeometry(geometry);
        rtcAttachGeometry(m_tree.get(), geometry);
    }
    rtcReleaseGeometry(geometry);
    check("Unable to store the triangles of the scene");
}

Vector EmbreeRayCaster::getExtent() const
{
    RTCBounds bounds{};
    rtcGetSceneBounds(m_tree.get(), &bounds);
    return {bounds.upper_x - bounds.lower_x, bounds.upper_y - bounds.lower_y,
            bounds.upper_z - bounds.lower_z};
}

bool EmbreeRayCaster::intersect(const Ray& ray, Hit& hit) const
{
    RTCRayHit query{};
    query.ray = makeQuery(ray, Hit::s_infinity);
    query.hit.geomID = RTC_INVALID_GEOMETRY_ID;
    RTCIntersectContext context;
    rtcInitIntersectContext(&context);
    rtcIntersect1(m_tree.get(), &context, &query);
    hit.distance = query.ray.tfar;
    hit.geometry = query.hit.geomID;
    hit.triangle = query.hit.primID;
    hit.u = query.hit.u;
    hit.v = query.hit.v;
    hit.normal = normalize({query.hit.Ng_x, query.hit.Ng_y, query.hit.Ng_z});
    return hit.geometry != RTC_INVALID_GEOMETRY_ID;
}

bool EmbreeRayCaster::isOccluded(const Ray& ray, float distance) const
{
    RTCRay query = makeQuery(ray, distance);
    RTCIntersectContext context;
    rtcInitIntersectContext(&context);
    rtcOccluded1(m_tree.get(), &context, &query);
    return query.tfar < 0.0F;
}

} // namespace

std::unique_ptr<const RayCaster> RayCaster::create(Scene& scene)
{
    return std::make_unique<const EmbreeRayCaster>(scene);
}

const bool RayCaster::s_isPlain = false;

} // namespace render
