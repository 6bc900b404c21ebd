// What the plain ray caster finds. PathTracerTest looks at the pictures of the build's ray caster.

#include <apps/TALOClusterServer/RayCaster.h>

#include <cmath>
#include <limits>
#include <random>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <tests/apps/kyTestScene.h>
#include <tests/apps/kyTestTiles.h>

using namespace render;

namespace {

Mesh makeMesh(std::vector<Vector> positions)
{
    Mesh mesh;
    for (std::uint32_t i = 0; i + 2 < positions.size(); i += 3) {
        mesh.triangles.push_back({i, i + 1, i + 2});
    }
    mesh.normals.assign(positions.size(), {0, 0, 1});
    mesh.positions = std::move(positions);
    return mesh;
}

Scene makeScene(std::vector<Vector> positions)
{
    Scene scene;
    scene.materials.resize(1);
    scene.meshes = {makeMesh(std::move(positions))};
    return scene;
}

/// Straight down on a place of the plane z = 0.
Ray downOn(float x, float y)
{
    return {{x, y, 5.0F}, {0.0F, 0.0F, -1.0F}};
}

class Numbers
{
public:
    /// Between -1 and 1.
    float next() { return m_spread(m_engine); }
    Vector nextVector()
    {
        const float x = next();
        const float y = next();
        return {x, y, next()};
    }

private:
    std::mt19937 m_engine{42};
    std::uniform_real_distribution<float> m_spread{-1.0F, 1.0F};
};

/// The distance at which a ray meets a triangle by Cramer's rule in double precision; infinity if
/// it passes. `margin` becomes how far inside the place is, 0 at an edge.
double distanceTo(const Ray& ray, const Vector& a, const Vector& b, const Vector& c, double& margin)
{
    const auto det = [](const Vector& p, const Vector& q, const Vector& r) {
        const double px = p.x;
        const double py = p.y;
        const double pz = p.z;
        return px * (double{q.y} * r.z - double{q.z} * r.y) -
               py * (double{q.x} * r.z - double{q.z} * r.x) +
               pz * (double{q.x} * r.y - double{q.y} * r.x);
    };
    const Vector e = b - a;
    const Vector f = c - a;
    const Vector o = ray.origin - a;
    const double whole = det(e, f, -ray.direction);
    const double u = det(o, f, -ray.direction) / whole;
    const double v = det(e, o, -ray.direction) / whole;
    const double t = det(e, f, o) / whole;
    margin = std::min({u, v, 1.0 - u - v});
    return margin >= 0.0 && t >= 0.0 ? t : std::numeric_limits<double>::infinity();
}

} // namespace

TEST(PlainRayCaster, saysThatItIsPlain)
{
    EXPECT_TRUE(RayCaster::s_isPlain);
}

TEST(PlainRayCaster, meetsWhatALookAtEveryTriangleFinds)
{
    Numbers numbers;
    std::vector<Vector> corners;
    for (int i = 0; i < 500; ++i) {
        const Vector place = numbers.nextVector() * 3.0F;
        for (int corner = 0; corner < 3; ++corner) {
            corners.push_back(place + numbers.nextVector() * 0.5F);
        }
    }
    Scene scene = makeScene(corners);
    const auto caster = RayCaster::create(scene);
    int met = 0;
    int missed = 0;
    for (int i = 0; i < 5000; ++i) {
        const Ray ray{numbers.nextVector() * 4.0F, normalize(numbers.nextVector())};
        double nearest = std::numeric_limits<double>::infinity();
        bool isClear = true;
        for (std::size_t face = 0; face < corners.size(); face += 3) {
            double margin = 0.0;
            nearest = std::min(nearest, distanceTo(ray, corners[face], corners[face + 1],
                                                   corners[face + 2], margin));
            isClear = isClear && std::abs(margin) > 1e-4;
        }
        if (!isClear || std::abs(nearest) < 1e-4) {
            continue; // too close to an edge to tell in single precision
        }
        Hit hit;
        ASSERT_EQ(caster->intersect(ray, hit), std::isfinite(nearest));
        if (std::isfinite(nearest)) {
            ++met;
            const Vector place = ray.origin + ray.direction * hit.distance;
            const Triangle& t = scene.meshes[0].triangles[hit.triangle];
            const Vector named = corners[t[0]] * (1.0F - hit.u - hit.v) + corners[t[1]] * hit.u +
                                 corners[t[2]] * hit.v;
            EXPECT_NEAR(hit.distance, nearest, 1e-3);
            EXPECT_NEAR(length(named - place), 0.0F, 1e-3F);
            EXPECT_NEAR(dot(hit.normal, corners[t[1]] - corners[t[0]]), 0.0F, 1e-4F);
            EXPECT_NEAR(length(hit.normal), 1.0F, 1e-5F);
            EXPECT_TRUE(caster->isOccluded(ray, hit.distance * 1.01F));
            EXPECT_FALSE(caster->isOccluded(ray, hit.distance * 0.99F));
        } else {
            ++missed;
            EXPECT_FALSE(caster->isOccluded(ray, 1000.0F));
        }
    }
    EXPECT_GT(met, 500);
    EXPECT_GT(missed, 500);
}

TEST(PlainRayCaster, noRaySlipsThroughBetweenTriangles)
{
    // A fan around a hub, with corners at no round numbers.
    constexpr int spokes = 37;
    const auto rim = [](int i) {
        const float angle = 6.2831853F * static_cast<float>(i % spokes) / spokes;
        return Vector(3.0F * std::cos(angle), 3.0F * std::sin(angle), 0.3F * std::sin(5 * angle));
    };
    const Vector hub(0.1F, -0.2F, 0.7F);
    std::vector<Vector> corners;
    for (int i = 0; i < spokes; ++i) {
        corners.insert(corners.end(), {hub, rim(i), rim(i + 1)});
    }
    Scene scene = makeScene(corners);
    const auto caster = RayCaster::create(scene);
    const Vector eye(0.37F, 0.11F, 6.0F);
    for (int i = 0; i < spokes; ++i) {
        for (int step = 0; step < 200; ++step) {
            const Vector onEdge = mix(hub, rim(i), static_cast<float>(step) / 201.0F);
            Hit hit;
            EXPECT_TRUE(caster->intersect({eye, normalize(onEdge - eye)}, hit)) << i << ' ' << step;
        }
    }
}

TEST(PlainRayCaster, ofSeveralInOnePlaceTheFirstOfTheSceneCounts)
{
    // Far more than fit into one leaf.
    const std::vector<Vector> corners{{-1, -1, 0}, {1, -1, 0}, {0, 1, 0}};
    std::vector<Vector> repeated;
    for (int i = 0; i < 100; ++i) {
        repeated.insert(repeated.end(), corners.begin(), corners.end());
    }
    Scene scene = makeScene(repeated);
    scene.meshes.push_back(makeMesh(repeated));
    const auto caster = RayCaster::create(scene);
    Hit hit;
    ASSERT_TRUE(caster->intersect(downOn(0.1F, 0.1F), hit));
    EXPECT_EQ(hit.geometry, 0U);
    EXPECT_EQ(hit.triangle, 0U);
}

TEST(PlainRayCaster, aSceneWithoutTrianglesIsMetByNoRay)
{
    Scene scene = makeScene({});
    const auto caster = RayCaster::create(scene);
    Hit hit;
    EXPECT_FALSE(caster->intersect(downOn(0.0F, 0.0F), hit));
    EXPECT_FALSE(caster->isOccluded(downOn(0.0F, 0.0F), 1e20F));
}

TEST(PlainRayCaster, aPictureOfASceneWithoutTrianglesIsItsSky)
{
    Scene scene = makeScene({});
    scene.sky = {Vector(0.5F), Vector(0.5F), Vector(0.5F)};
    const PathTracer tracer(std::move(scene));
    for (const Vector& pixel :
         tracer.render(kyTest::makeFrame(8, 6, 2), {0, 0, 8, 6}, kyTest::s_go)) {
        EXPECT_EQ(pixel, Vector(0.5F));
    }
}

TEST(PlainRayCaster, trianglesWithoutAnAreaAreMetByNoRay)
{
    const Vector point(0.0F, 0.0F, 1.0F);
    Scene scene = makeScene({point,
                             point,
                             point, //
                             {-1, 0, 1},
                             {0, 0, 1},
                             {1, 0, 1}, //
                             {-1, 0, 1},
                             {1, 0, 1},
                             {-1, 0, 1}, //
                             {-2, -2, 0},
                             {2, -2, 0},
                             {0, 2, 0}});
    const auto caster = RayCaster::create(scene);
    for (const float x : {-0.5F, 0.0F, 0.25F}) {
        Hit hit;
        ASSERT_TRUE(caster->intersect(downOn(x, 0.0F), hit));
        EXPECT_EQ(hit.triangle, 3U);
        EXPECT_EQ(hit.distance, 5.0F);
    }
    // Along the line that they lie on.
    Hit hit;
    EXPECT_FALSE(caster->intersect({{-3, 0, 1}, {1, 0, 0}}, hit));
}

TEST(PlainRayCaster, aRayWithinTheSideOfABoxMeetsWhatIsThere)
{
    // The ray lies in the sides y = 0 and x = 0 of the box around both, up and down alike.
    Scene scene = makeScene({{0, 0, 1}, {2, 0, 1}, {0, 2, 1}, {0, 0, 2}, {2, 0, 2}, {0, 2, 2}});
    const auto caster = RayCaster::create(scene);
    Hit hit;
    ASSERT_TRUE(caster->intersect({{0, 0, 5}, {0, 0, -1}}, hit));
    EXPECT_EQ(hit.distance, 3.0F);
    ASSERT_TRUE(caster->intersect({{0, 0, -5}, {0, 0, 1}}, hit));
    EXPECT_EQ(hit.distance, 6.0F);
    ASSERT_TRUE(caster->intersect({{1, 0, -5}, {-0.0F, 0, 1}}, hit));
    EXPECT_EQ(hit.distance, 6.0F);
    EXPECT_FALSE(caster->intersect({{0, 0, 5}, {0, 0, 1}}, hit));
}

TEST(PlainRayCaster, lightsAreNumberedBehindTheMeshes)
{
    Scene scene = makeScene({{-1, -1, 0}, {1, -1, 0}, {0, 1, 0}});
    scene.lights = {{{8, 8, 2}, {1, 0, 0}, {0, 1, 0}, Vector(1.0F)},
                    {{4, 4, 2}, {1, 0, 0}, {0, 1, 0}, Vector(1.0F)}};
    const auto caster = RayCaster::create(scene);
    Hit hit;
    ASSERT_TRUE(caster->intersect(downOn(0.0F, 0.0F), hit));
    EXPECT_EQ(hit.geometry, 0U);
    // Either half.
    for (const float x : {4.1F, 4.9F}) {
        ASSERT_TRUE(caster->intersect(downOn(x, 4.5F), hit));
        EXPECT_EQ(hit.geometry, 2U);
        EXPECT_EQ(hit.distance, 3.0F);
    }
}

TEST(PlainRayCaster, theExtentIsThatOfMeshesAndLights)
{
    Scene scene = makeScene({{-1, -1, 0}, {1, -1, 0}, {0, 1, 0}});
    scene.lights = {{{8, 8, 2}, {1, 0, 0}, {0, 1, 0}, Vector(1.0F)}};
    EXPECT_EQ(RayCaster::create(scene)->getExtent(), Vector(10, 10, 2));
}

TEST(PlainRayCaster, takesThePositionsOutOfTheScene)
{
    Scene scene = kyTest::makeScene();
    const auto caster = RayCaster::create(scene);
    for (const Mesh& mesh : scene.meshes) {
        EXPECT_TRUE(mesh.positions.empty());
        EXPECT_FALSE(mesh.normals.empty());
    }
}

TEST(PlainRayCaster, everyDivisionIntoTilesInEveryOrderGivesTheSamePixels)
{
    const PathTracer tracer(kyTest::makeScene());
    const PathTracer other(kyTest::makeScene());
    const Frame frame = kyTest::makeFrame(50, 37, 4);
    const std::vector<Vector> whole = kyTest::renderTiled(tracer, frame, 50, 0);
    EXPECT_EQ(kyTest::renderTiled(other, frame, 16, 1), whole);
    EXPECT_EQ(kyTest::renderTiled(tracer, frame, 7, 2), whole);
    // The comparison means something: the picture is not of one colour.
    EXPECT_NE(whole.front(), whole[whole.size() / 2]);
}
