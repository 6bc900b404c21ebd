#include <apps/TALORender/Studio.h>

#include <utility>

namespace render {

namespace {

constexpr float s_pi = 3.14159265F;

enum StudioMaterial : std::uint32_t
{
    Jade,
    Backdrop
};

float radians(float degrees)
{
    return degrees * s_pi / 180.0F;
}

/// What is left to absorb so that light keeps `color` of itself over `depth` units.
Vector absorptionFor(const Vector& color, float depth)
{
    return {-std::log(color.x) / depth, -std::log(color.y) / depth, -std::log(color.z) / depth};
}

std::vector<Material> materials()
{
    std::vector<Material> result(2);
    Material& jade = result[Jade];
    jade.color = {0.12F, 0.44F, 0.26F};
    jade.translucency = 0.45F;
    jade.absorption = absorptionFor({0.28F, 0.80F, 0.50F}, 0.14F);
    jade.coat = 0.05F;
    jade.roughness = 0.2F;
    Material& backdrop = result[Backdrop];
    backdrop.color = {0.19F, 0.175F, 0.165F};
    backdrop.coat = 0.04F;
    backdrop.roughness = 0.3F;
    return result;
}

struct Bounds
{
    explicit Bounds(const std::vector<Vector>& points) : low(points.front()), high(points.front())
    {
        for (const Vector& p : points) {
            low = {std::min(low.x, p.x), std::min(low.y, p.y), std::min(low.z, p.z)};
            high = {std::max(high.x, p.x), std::max(high.y, p.y), std::max(high.z, p.z)};
        }
    }

    Vector low;
    Vector high;
};

/// Scales the model to a length of two, centres it and sets it on the floor y = 0.
void place(Mesh& model)
{
    const Bounds bounds(model.positions);
    const Vector size = bounds.high - bounds.low;
    const float scale = 2.0F / maxComponent(size);
    const Vector foot(0.5F * (bounds.low.x + bounds.high.x), bounds.low.y,
                      0.5F * (bounds.low.z + bounds.high.z));
    for (Vector& p : model.positions) {
        p = (p - foot) * scale;
    }
}

/// A camera direction: how far around the model and how high above it.
Camera aim(float around, float above)
{
    Camera camera;
    camera.forward = {-std::sin(around) * std::cos(above), -std::sin(above),
                      -std::cos(around) * std::cos(above)};
    camera.right = normalize(cross(camera.forward, {0.0F, 1.0F, 0.0F}));
    camera.up = cross(camera.right, camera.forward);
    return camera;
}

/// How far back and to which side the camera has to stand so that all points lie between the two
/// planes through it that open with the slope `slope` to both sides of `axis`.
struct Fit
{
    Fit(const std::vector<Vector>& points, const Vector& forward, const Vector& axis, float slope)
    {
        float positive = -1e30F;
        float negative = -1e30F;
        for (const Vector& p : points) {
            const float depth = dot(p, forward);
            const float side = dot(p, axis) / slope;
            positive = std::max(positive, side - depth);
            negative = std::max(negative, -side - depth);
        }
        back = 0.5F * (positive + negative);
        shift = 0.5F * (positive - negative) * slope;
    }

    float back;
    float shift;
};

/// Stands where the points just fill the picture up to a margin.
Camera frame(const std::vector<Vector>& points, float aspect)
{
    constexpr float s_margin = 0.86F;
    Camera camera = aim(radians(-28.0F), radians(14.0F));
    const float slopeUp = std::tan(radians(0.5F * 24.0F));
    const float slopeRight = slopeUp * aspect;
    const Fit sideways(points, camera.forward, camera.right, s_margin * slopeRight);
    const Fit upward(points, camera.forward, camera.up, s_margin * slopeUp);
    camera.position = camera.right * sideways.shift + camera.up * upward.shift -
                      camera.forward * std::max(sideways.back, upward.back);
    camera.right *= slopeRight;
    camera.up *= slopeUp;
    return camera;
}

/// A floor that rises in a quarter circle into a wall, across the camera's line of sight.
Mesh buildBackdrop(const Camera& camera)
{
    constexpr int s_steps = 48;
    constexpr float s_halfWidth = 40.0F;
    constexpr float s_front = -30.0F;
    constexpr float s_nearestBend = 3.5F;
    constexpr float s_radius = 4.0F;
    constexpr float s_height = 30.0F;

    // A camera on the far side stands above the foot of the bend, where it has hardly risen.
    const float distance = length({camera.position.x, 0.0F, camera.position.z});
    const float bend = std::max(s_nearestBend, distance - 0.5F * s_radius);

    const Vector up(0.0F, 1.0F, 0.0F);
    const Vector right = normalize(camera.right);
    const Vector away = normalize(cross(up, right));

    Mesh mesh;
    mesh.material = Backdrop;
    const auto addLine = [&](float along, float height, const Vector& normal) {
        for (const float side : {-s_halfWidth, s_halfWidth}) {
            mesh.positions.push_back(right * side + away * along + up * height);
            mesh.normals.push_back(normal);
        }
    };
    addLine(s_front, 0.0F, up);
    for (int i = 0; i <= s_steps; ++i) {
        const float angle = 0.5F * s_pi * static_cast<float>(i) / static_cast<float>(s_steps);
        addLine(bend + s_radius * std::sin(angle), s_radius * (1.0F - std::cos(angle)),
                up * std::cos(angle) - away * std::sin(angle));
    }
    addLine(bend + s_radius, s_height, -away);
    for (std::uint32_t i = 0; i + 3 < mesh.positions.size(); i += 2) {
        mesh.triangles.push_back({i, i + 1, i + 3});
        mesh.triangles.push_back({i, i + 3, i + 2});
    }
    return mesh;
}

/// A softbox that looks from a direction (degrees around from the camera's side, and up) at the
/// middle of the stage.
AreaLight softbox(const Camera& camera, float around, float above, float distance, float width,
                  float height, const Vector& radiance)
{
    const Vector up(0.0F, 1.0F, 0.0F);
    const Vector right = normalize(camera.right);
    const Vector toCamera = normalize(cross(right, up));
    const float a = radians(around);
    const float e = radians(above);
    const Vector from =
        (right * std::sin(a) + toCamera * std::cos(a)) * std::cos(e) + up * std::sin(e);
    const Vector centre = from * distance + Vector(0.0F, 0.5F, 0.0F);
    const Vector u = normalize(cross(up, from)) * width;
    const Vector v = normalize(cross(u, from)) * height;
    return {centre - u * 0.5F - v * 0.5F, u, v, radiance};
}

} // namespace

Studio buildStudio(Mesh model, float aspect)
{
    place(model);
    Studio studio;
    studio.camera = frame(model.positions, aspect);
    studio.scene.materials = materials();
    model.material = Jade;
    studio.scene.meshes.push_back(std::move(model));
    studio.scene.meshes.push_back(buildBackdrop(studio.camera));

    // A warm key from the left, a cool edge from behind on the right, a wide fill from above.
    studio.scene.lights = {
        softbox(studio.camera, -60.0F, 48.0F, 5.0F, 2.0F, 2.0F, Vector(1.0F, 0.86F, 0.68F) * 21.0F),
        softbox(studio.camera, 160.0F, 52.0F, 5.0F, 3.0F, 1.0F, Vector(0.72F, 0.86F, 1.0F) * 27.0F),
        softbox(studio.camera, 70.0F, 25.0F, 6.0F, 2.0F, 3.0F, Vector(0.80F, 0.90F, 1.0F) * 1.6F),
    };
    studio.scene.sky = {Vector(0.04F, 0.05F, 0.07F), Vector(0.06F, 0.065F, 0.07F),
                        Vector(0.02F, 0.02F, 0.02F)};
    return studio;
}

Camera orbit(const Camera& camera, double degrees)
{
    // The stage has the model's middle at x = z = 0.
    const double angle = degrees * 3.14159265358979 / 180.0;
    const auto sine = static_cast<float>(std::sin(angle));
    const auto cosine = static_cast<float>(std::cos(angle));
    const auto turn = [&](const Vector& v) {
        return Vector(cosine * v.x + sine * v.z, v.y, cosine * v.z - sine * v.x);
    };
    return {turn(camera.position), turn(camera.forward), turn(camera.right), turn(camera.up)};
}

} // namespace render
