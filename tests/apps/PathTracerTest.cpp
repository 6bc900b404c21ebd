#include <apps/TALOClusterServer/PathTracer.h>

#include <gtest/gtest.h>
#include <tbb/task_arena.h>

#include <tests/apps/kyTestScene.h>
#include <tests/apps/kyTestTiles.h>

using namespace render;

namespace {

/// A white wall that fills the picture, under a sky of one colour all around.
Scene whiteWall(const Material& material)
{
    Scene scene;
    scene.materials = {material};
    Mesh mesh;
    mesh.positions = {{-9, -9, 0}, {9, -9, 0}, {9, 9, 0}, {-9, 9, 0}};
    mesh.normals.assign(4, {0, 0, 1});
    mesh.triangles = {{0, 1, 2}, {0, 2, 3}};
    scene.meshes = {mesh};
    scene.sky = {Vector(1.0F), Vector(1.0F), Vector(1.0F)};
    return scene;
}

Frame lookAtWall(std::uint32_t samples)
{
    Frame frame;
    frame.camera.position = {0.0F, 0.0F, 3.0F};
    frame.width = 4;
    frame.height = 4;
    frame.samples = samples;
    return frame;
}

} // namespace

TEST(PathTracer, everyDivisionIntoTilesInEveryOrderGivesTheSamePixels)
{
    const PathTracer tracer(kyTest::makeScene());
    const Frame frame = kyTest::makeFrame(50, 37, 4);
    const std::vector<Vector> whole = kyTest::renderTiled(tracer, frame, 50, 0);
    EXPECT_EQ(kyTest::renderTiled(tracer, frame, 16, 1), whole);
    EXPECT_EQ(kyTest::renderTiled(tracer, frame, 7, 2), whole);
    EXPECT_EQ(kyTest::renderTiled(tracer, frame, 1, 3), whole);
    // The comparison means something: the picture is not of one colour.
    EXPECT_NE(whole.front(), whole[whole.size() / 2]);
}

TEST(PathTracer, twoTracersOfTheSameSceneAgree)
{
    const Frame frame = kyTest::makeFrame(40, 30, 4);
    const PathTracer one(kyTest::makeScene());
    const PathTracer other(kyTest::makeScene());
    EXPECT_EQ(kyTest::renderTiled(one, frame, 16, 1), kyTest::renderTiled(other, frame, 16, 2));
}

TEST(PathTracer, theNumberOfThreadsChangesNothing)
{
    const Frame frame = kyTest::makeFrame(40, 30, 4);
    std::vector<std::vector<Vector>> pictures;
    for (const int threads : {1, 2}) {
        tbb::task_arena arena(threads);
        arena.execute([&] {
            const PathTracer tracer(kyTest::makeScene());
            pictures.push_back(kyTest::renderTiled(tracer, frame, 16, 1));
        });
    }
    EXPECT_EQ(pictures[0], pictures[1]);
}

TEST(PathTracer, aPixelDependsOnTheNumberOfSamples)
{
    const PathTracer tracer(kyTest::makeScene());
    EXPECT_NE(kyTest::renderTiled(tracer, kyTest::makeFrame(20, 15, 2), 20, 0),
              kyTest::renderTiled(tracer, kyTest::makeFrame(20, 15, 3), 20, 0));
}

TEST(PathTracer, whatRaysMissIsTheSky)
{
    Scene scene = whiteWall({});
    scene.sky = {Vector(0.0F), Vector(0.25F, 0.5F, 0.75F), Vector(0.0F)};
    const PathTracer tracer(std::move(scene));
    Frame frame = lookAtWall(1);
    frame.camera.forward = {0.0F, 0.0F, 1.0F};
    frame.camera.right = {1e-6F, 0.0F, 0.0F};
    frame.camera.up = {0.0F, 1e-12F, 0.0F};
    for (const Vector& pixel : tracer.render(frame, {0, 0, 4, 4}, kyTest::s_go)) {
        EXPECT_NEAR(pixel.x, 0.25F, 1e-4F);
        EXPECT_NEAR(pixel.y, 0.5F, 1e-4F);
        EXPECT_NEAR(pixel.z, 0.75F, 1e-4F);
    }
}

TEST(PathTracer, aWhiteBodyUnderAWhiteSkyIsWhite)
{
    Material material;
    material.color = Vector(1.0F);
    const PathTracer tracer(whiteWall(material));
    for (const Vector& pixel : tracer.render(lookAtWall(16), {0, 0, 4, 4}, kyTest::s_go)) {
        EXPECT_NEAR(pixel.x, 1.0F, 1e-4F);
    }
}

TEST(PathTracer, aCoatAddsNoLight)
{
    Material material;
    material.color = Vector(1.0F);
    material.coat = 0.3F;
    material.roughness = 0.3F;
    const PathTracer tracer(whiteWall(material));
    for (const Vector& pixel : tracer.render(lookAtWall(256), {0, 0, 4, 4}, kyTest::s_go)) {
        EXPECT_LE(pixel.x, 1.02F);
        EXPECT_GE(pixel.x, 0.6F);
    }
}

TEST(PathTracer, aLightIlluminatesByTheInverseSquareOfItsDistance)
{
    // A small light straight above a diffuse floor: radiance * area / distance^2 * albedo / pi.
    const auto brightness = [](float distance) {
        Scene scene = whiteWall({});
        scene.sky = {};
        scene.lights = {
            {{-0.05F, 0.05F, distance}, {0.1F, 0.0F, 0.0F}, {0.0F, -0.1F, 0.0F}, Vector(100.0F)}};
        const PathTracer tracer(std::move(scene));
        Frame frame = lookAtWall(64);
        frame.camera.position = {1.0F, 0.0F, 1.0F};
        frame.camera.forward = normalize({-1.0F, 0.0F, -1.0F});
        frame.camera.right = {0.0F, 1e-4F, 0.0F};
        frame.camera.up = {1e-4F, 0.0F, 1e-4F};
        return tracer.render(frame, {0, 0, 1, 1}, kyTest::s_go)[0].x;
    };
    const float expected = 100.0F * 0.01F / 4.0F * 0.5F / 3.14159265F;
    EXPECT_NEAR(brightness(2.0F), expected, 0.01F * expected);
    EXPECT_NEAR(brightness(4.0F), expected / 4.0F, 0.01F * expected / 4.0F);
}

TEST(PathTracer, aLightShinesToOneSideOnly)
{
    Scene scene = whiteWall({});
    scene.sky = {};
    scene.lights = {{{-1, -1, 1}, {2, 0, 0}, {0, 2, 0}, Vector(100.0F)}}; // away from the wall
    const PathTracer tracer(std::move(scene));
    Frame frame = lookAtWall(16);
    frame.camera.position = {5.0F, 0.0F, 1.0F};
    frame.camera.forward = {0.0F, 0.0F, -1.0F};
    frame.camera.right = {0.1F, 0.0F, 0.0F};
    frame.camera.up = {0.0F, 0.1F, 0.0F};
    for (const Vector& pixel : tracer.render(frame, {0, 0, 4, 4}, kyTest::s_go)) {
        EXPECT_EQ(pixel, Vector());
    }
}

TEST(PathTracer, aTranslucentBodyGlowsOnTheSideAwayFromTheLight)
{
    const auto brightness = [](float translucency) {
        Scene scene = kyTest::makeScene();
        scene.sky = {};
        // Only the ball, lit from behind.
        scene.meshes.resize(1);
        scene.materials[0].coat = 0.0F;
        scene.materials[0].translucency = translucency;
        scene.lights = {{{-1, -1, -3}, {2, 0, 0}, {0, 2, 0}, Vector(20.0F)}};
        const PathTracer tracer(std::move(scene));
        Frame frame = kyTest::makeFrame(8, 8, 64);
        frame.camera.right *= 0.1F;
        frame.camera.up *= 0.1F;
        Vector sum;
        for (const Vector& pixel : tracer.render(frame, {0, 0, 8, 8}, kyTest::s_go)) {
            sum += pixel;
        }
        return maxComponent(sum);
    };
    EXPECT_EQ(brightness(0.0F), 0.0F);
    EXPECT_GT(brightness(0.5F), 0.1F);
}

TEST(PathTracer, aStoppedRenderReturnsBlackPixels)
{
    const PathTracer tracer(kyTest::makeScene());
    const std::atomic<bool> stopped{true};
    const std::vector<Vector> pixels =
        tracer.render(kyTest::makeFrame(20, 20, 1'000'000), {0, 0, 20, 20}, stopped);
    EXPECT_EQ(pixels, std::vector<Vector>(400));
}
