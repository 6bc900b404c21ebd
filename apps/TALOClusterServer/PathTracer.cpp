#include <apps/TALOClusterServer/PathTracer.h>

#include <cstdint>
#include <utility>

#include <tbb/parallel_for.h>

#include <apps/TALOClusterServer/RayCaster.h>
#include <apps/TALOClusterServer/Sampler.h>
#include <apps/TALOClusterServer/Sampling.h>

namespace render {

namespace {

constexpr float s_pi = 3.14159265F;
constexpr int s_maxBounces = 8;
/// From this bounce on, paths that carry little light are ended at random.
constexpr int s_rouletteBounce = 1;
/// One path adds no more than this after its first bounce: a little light is given up for
/// pictures without bright specks.
constexpr float s_brightest = 2.5F;
/// Seen by way of another surface, coats are at least this rough: what they would throw there as a
/// sharp caustic, few paths would find.
constexpr float s_indirectRoughness = 0.5F;

Vector limited(const Vector& light)
{
    const float most = maxComponent(light);
    return most > s_brightest ? light * (s_brightest / most) : light;
}

/// How much a sample of density `own` counts when another way would have had density `other`.
float weight(float own, float other)
{
    const float ownSquared = own * own;
    return ownSquared / (ownSquared + other * other);
}

/// The light that a surface point sends on: coat over body.
class Reflection
{
public:
    Reflection(const Material& material, const Vector& normal, const Vector& out,
               float leastRoughness)
        : m_material(material),
          m_basis(normal),
          m_facets(std::max(material.roughness, leastRoughness)),
          m_out(m_basis.toLocal(out)),
          m_coat(fresnel(m_out.z))
    {
        const float body = (1.0F - m_coat) * maxComponent(material.color);
        m_coatShare =
            material.coat > 0.0F ? std::clamp(m_coat / (m_coat + body), 0.2F, 0.9F) : 0.0F;
    }

    /// The share of the paths that go on at the coat; the rest enters the body.
    float coatShare() const { return m_coatShare; }

    /// What the body gets of the light that goes through the coat, per path that enters it.
    float entering() const { return (1.0F - m_coat) / (1.0F - m_coatShare); }

    /// Reflected light towards the viewer times the cosine, and the density of choosing `in`.
    Vector evaluate(const Vector& in, float& density) const
    {
        const Vector local = m_basis.toLocal(in);
        density = 0.0F;
        if (!(local.z > 0.0F)) {
            return {};
        }
        const float scattered = 1.0F - m_material.translucency;
        density = (1.0F - m_coatShare) * scattered * local.z / s_pi;
        Vector result = m_material.color *
                        (scattered * (1.0F - m_coat) * (1.0F - fresnel(local.z)) * local.z / s_pi);
        if (m_material.coat > 0.0F) {
            const Vector facet = normalize(m_out + local);
            density += m_coatShare * m_facets.density(m_out, facet);
            result += Vector(fresnel(dot(local, facet)) * m_facets.reflect(m_out, local, facet) *
                             local.z);
        }
        return result;
    }

    Vector sampleCoat(Sampler::Pair random) const
    {
        const Vector facet = m_facets.sample(m_out, random);
        return m_basis.toWorld(facet * (2.0F * dot(m_out, facet)) - m_out);
    }

    Vector sampleBody(Sampler::Pair random) const { return m_basis.toWorld(sampleCosine(random)); }

private:
    float fresnel(float cosine) const
    {
        if (!(m_material.coat > 0.0F)) {
            return 0.0F;
        }
        const float c = std::clamp(1.0F - cosine, 0.0F, 1.0F);
        const float c2 = c * c;
        return m_material.coat + (1.0F - m_material.coat) * c2 * c2 * c;
    }

    const Material& m_material;
    Basis m_basis;
    Microfacets m_facets;
    Vector m_out;
    float m_coat;
    float m_coatShare = 0.0F;
};

} // namespace

/// The scene, what its rays meet, and the paths through it.
class PathTracer::Paths
{
public:
    explicit Paths(Scene scene);

    Vector follow(Ray ray, Sampler& sampler) const;

private:
    void chooseLights();

    bool isLight(const Hit& hit) const { return hit.geometry >= m_scene.meshes.size(); }
    Vector shadingNormal(const Hit& hit) const;
    Vector skyLight(const Vector& direction) const;
    /// Density, over directions, with which a light is asked for its point at that distance.
    float lightDensity(std::size_t light, float distance, float cosine) const;
    /// Light that arrives straight from a light and leaves as `reflect(in, density)` says.
    template <class Reflect>
    Vector askLight(const Vector& point, const Vector& normal, Sampler& sampler,
                    const Reflect& reflect) const;
    Vector offset(const Vector& point, const Vector& normal) const
    {
        return point + normal * m_step;
    }

    Scene m_scene;
    std::unique_ptr<const RayCaster> m_rays;
    /// A distance that no rounding crosses: rays leave a surface from this far above it.
    float m_step;

    /// Of the lights: unit normal, area, and the share of the questions each is asked.
    std::vector<Vector> m_lightNormals;
    std::vector<float> m_lightAreas;
    std::vector<float> m_lightShares;
};

PathTracer::Paths::Paths(Scene scene)
    : m_scene(std::move(scene)),
      m_rays(RayCaster::create(m_scene)),
      m_step(1e-5F * length(m_rays->getExtent()))
{
    chooseLights();
}

void PathTracer::Paths::chooseLights()
{
    float total = 0.0F;
    for (const AreaLight& light : m_scene.lights) {
        const Vector across = cross(light.edgeU, light.edgeV);
        m_lightNormals.push_back(normalize(across));
        m_lightAreas.push_back(length(across));
        m_lightShares.push_back(m_lightAreas.back() * maxComponent(light.radiance));
        total += m_lightShares.back();
    }
    for (float& share : m_lightShares) {
        share = total > 0.0F ? share / total : 0.0F;
    }
}

Vector PathTracer::Paths::shadingNormal(const Hit& hit) const
{
    const Mesh& mesh = m_scene.meshes[hit.geometry];
    const Triangle& t = mesh.triangles[hit.triangle];
    return normalize(mesh.normals[t[0]] * (1.0F - hit.u - hit.v) + mesh.normals[t[1]] * hit.u +
                     mesh.normals[t[2]] * hit.v);
}

Vector PathTracer::Paths::skyLight(const Vector& direction) const
{
    const float height = std::clamp(direction.y, -1.0F, 1.0F);
    return height > 0.0F ? mix(m_scene.sky.horizon, m_scene.sky.zenith, std::sqrt(height))
                         : mix(m_scene.sky.horizon, m_scene.sky.nadir, std::sqrt(-height));
}

float PathTracer::Paths::lightDensity(std::size_t light, float distance, float cosine) const
{
    return m_lightShares[light] * distance * distance / (m_lightAreas[light] * cosine);
}

template <class Reflect>
Vector PathTracer::Paths::askLight(const Vector& point, const Vector& normal, Sampler& sampler,
                                   const Reflect& reflect) const
{
    const Sampler::Pair choice = sampler.next();
    const Sampler::Pair place = sampler.next();
    if (m_lightShares.empty()) {
        return {};
    }
    std::size_t light = 0;
    float rest = choice.u;
    while (light + 1 < m_lightShares.size() && rest >= m_lightShares[light]) {
        rest -= m_lightShares[light++];
    }
    const AreaLight& source = m_scene.lights[light];
    const Vector target = source.corner + source.edgeU * place.u + source.edgeV * place.v;
    const Vector origin = offset(point, normal);
    const float distance = length(target - origin);
    const Vector in = normalize(target - origin);
    const float cosine = -dot(in, m_lightNormals[light]);
    if (!(cosine > 0.0F) || !(dot(in, normal) > 0.0F) || !(m_lightShares[light] > 0.0F)) {
        return {};
    }
    float density = 0.0F;
    const Vector reflected = reflect(in, density);
    if (!(maxComponent(reflected) > 0.0F) ||
        m_rays->isOccluded({origin, in}, distance * (1.0F - 1e-4F))) {
        return {};
    }
    const float asked = lightDensity(light, distance, cosine);
    return source.radiance * reflected * (weight(asked, density) / asked);
}

Vector PathTracer::Paths::follow(Ray ray, Sampler& sampler) const
{
    Vector light;
    Vector carried(1.0F);
    // The density with which the ray's direction was chosen; the camera's is its only way.
    float density = 0.0F;
    for (int bounce = 0; bounce < s_maxBounces; ++bounce) {
        const auto collect = [&](const Vector& more) {
            light += bounce == 0 ? carried * more : limited(carried * more);
        };
        Hit hit;
        if (!m_rays->intersect(ray, hit)) {
            collect(skyLight(ray.direction));
            break;
        }
        if (isLight(hit)) {
            const std::size_t source = hit.geometry - m_scene.meshes.size();
            const float cosine = -dot(ray.direction, m_lightNormals[source]);
            if (cosine > 0.0F) {
                const float asked = bounce == 0 ? 0.0F : lightDensity(source, hit.distance, cosine);
                collect(m_scene.lights[source].radiance *
                        (bounce == 0 ? 1.0F : weight(density, asked)));
            }
            break;
        }

        const Mesh& mesh = m_scene.meshes[hit.geometry];
        const Material& material = m_scene.materials[mesh.material];
        const Vector out = -ray.direction;
        Vector point = ray.origin + ray.direction * hit.distance;
        Vector normal = dot(hit.normal, out) < 0.0F ? -hit.normal : hit.normal;
        Vector shading = shadingNormal(hit);
        if (dot(shading, normal) < 0.0F) {
            shading = -shading;
        }
        // Seen from behind, an interpolated normal means nothing.
        if (!(dot(shading, out) > 1e-3F)) {
            shading = normal;
        }
        const Reflection reflection(material, shading, out,
                                    bounce == 0 ? 0.0F : s_indirectRoughness);
        collect(askLight(point, normal, sampler, [&](const Vector& in, float& chosen) {
            return reflection.evaluate(in, chosen);
        }));

        const Sampler::Pair choice = sampler.next();
        const Sampler::Pair aim = sampler.next();
        Vector in;
        const float body = (choice.u - reflection.coatShare()) / (1.0F - reflection.coatShare());
        if (body < 0.0F || body >= material.translucency) {
            in = body < 0.0F ? reflection.sampleCoat(aim) : reflection.sampleBody(aim);
            const Vector reflected = reflection.evaluate(in, density);
            if (!(density > 0.0F) || !(dot(in, normal) > 0.0F)) {
                break;
            }
            carried *= reflected * (1.0F / density);
        } else {
            // Through the body, and out again where it ends.
            const Vector inside = Basis(-normal).toWorld(sampleCosine(aim));
            Hit exit;
            const Vector start = offset(point, -normal);
            if (!m_rays->intersect({start, inside}, exit) || isLight(exit) ||
                m_scene.meshes[exit.geometry].material != mesh.material) {
                break;
            }
            carried *= material.color * reflection.entering() *
                       Vector(exponentialDecay(material.absorption.x * exit.distance),
                              exponentialDecay(material.absorption.y * exit.distance),
                              exponentialDecay(material.absorption.z * exit.distance));
            point = start + inside * exit.distance;
            normal = dot(exit.normal, inside) < 0.0F ? -exit.normal : exit.normal;
            const Basis basis(normal);
            collect(askLight(point, normal, sampler, [&](const Vector& lit, float& chosen) {
                chosen = std::max(0.0F, dot(lit, normal)) / s_pi;
                return Vector(chosen);
            }));
            in = basis.toWorld(sampleCosine(sampler.next()));
            density = std::max(1e-6F, dot(in, normal)) / s_pi;
        }

        if (bounce >= s_rouletteBounce) {
            const float survival = std::min(0.95F, maxComponent(carried));
            if (!(choice.v < survival)) {
                break;
            }
            carried *= 1.0F / survival;
        }
        ray = {offset(point, normal), in};
    }
    return light;
}

PathTracer::PathTracer(Scene scene) : m_paths(std::make_unique<const Paths>(std::move(scene))) {}

PathTracer::~PathTracer() = default;

namespace {

/// Spreads a pixel over its neighbours as a tent of two pixels' width.
float tent(float random)
{
    return random < 0.5F ? std::sqrt(2.0F * random) - 1.0F : 1.0F - std::sqrt(2.0F - 2.0F * random);
}

/// The direction through a point of the image, in pixels from its upper left corner.
Ray cameraRay(const Frame& frame, float x, float y)
{
    const float u = 2.0F * x / static_cast<float>(frame.width) - 1.0F;
    const float v = 1.0F - 2.0F * y / static_cast<float>(frame.height);
    const Camera& camera = frame.camera;
    return {camera.position, normalize(camera.forward + camera.right * u + camera.up * v)};
}

} // namespace

std::vector<Vector> PathTracer::render(const Frame& frame, const Tile& tile,
                                       const std::atomic<bool>& stop) const
{
    std::vector<Vector> pixels(tile.pixelCount());
    // A path takes microseconds, a pixel may take seconds.
    const auto isStopped = [&] { return stop.load(std::memory_order_relaxed); };
    const auto renderPixel = [&](std::uint32_t x, std::uint32_t y) {
        Vector sum;
        for (std::uint32_t path = 0; path < frame.samples && !isStopped(); ++path) {
            Sampler sampler(x, y, path);
            const Sampler::Pair place = sampler.next();
            sum += m_paths->follow(cameraRay(frame, static_cast<float>(x) + 0.5F + tent(place.u),
                                             static_cast<float>(y) + 0.5F + tent(place.v)),
                                   sampler);
        }
        return sum * (1.0F / static_cast<float>(frame.samples));
    };
    tbb::parallel_for(std::uint32_t{0}, tile.height, [&](std::uint32_t row) {
        for (std::uint32_t column = 0; column < tile.width && !isStopped(); ++column) {
            pixels[std::size_t{row} * tile.width + column] =
                renderPixel(tile.x + column, tile.y + row);
        }
    });
    return pixels;
}

} // namespace render
