#include <apps/common/SceneWire.h>

#include <cmath>
#include <functional>
#include <limits>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <tests/apps/kyTestScene.h>
#include <tests/apps/kyTestSerializer.h>
#include <tests/support/kyTestMessage.h>

using namespace render;

namespace {

/// What a receiver of the scene complains of.
std::string complaintOf(const std::function<void(Scene&)>& damage)
{
    Scene scene = kyTest::makeScene();
    damage(scene);
    kyTest::Loop loop(131072);
    putScene(loop, scene);
    loop.flush();
    return kyTest::messageOf([&] { getScene(loop); });
}

std::string frameComplaint(const std::function<void(Frame&)>& damage)
{
    Frame frame = kyTest::makeFrame(40, 30, 4);
    damage(frame);
    return kyTest::messageOf([&] { checkFrame(frame); });
}

const float s_nan = std::numeric_limits<float>::quiet_NaN();

} // namespace

TEST(SceneWire, aSceneComesBackAsItWas)
{
    const Scene scene = kyTest::makeScene();
    for (const int threshold : {64, 1000, 131072}) {
        kyTest::Loop loop(threshold);
        putScene(loop, scene);
        loop.flush();
        const Scene copy = getScene(loop);
        EXPECT_TRUE(loop.isEmpty());
        ASSERT_EQ(copy.meshes.size(), scene.meshes.size());
        for (std::size_t i = 0; i < scene.meshes.size(); ++i) {
            EXPECT_EQ(copy.meshes[i].material, scene.meshes[i].material);
            EXPECT_EQ(copy.meshes[i].positions, scene.meshes[i].positions);
            EXPECT_EQ(copy.meshes[i].normals, scene.meshes[i].normals);
            EXPECT_EQ(copy.meshes[i].triangles, scene.meshes[i].triangles);
        }
        ASSERT_EQ(copy.materials.size(), 2U);
        EXPECT_EQ(copy.materials[0].color, scene.materials[0].color);
        EXPECT_EQ(copy.materials[0].translucency, scene.materials[0].translucency);
        EXPECT_EQ(copy.materials[0].absorption, scene.materials[0].absorption);
        EXPECT_EQ(copy.materials[0].coat, scene.materials[0].coat);
        EXPECT_EQ(copy.materials[0].roughness, scene.materials[0].roughness);
        ASSERT_EQ(copy.lights.size(), 1U);
        EXPECT_EQ(copy.lights[0].corner, scene.lights[0].corner);
        EXPECT_EQ(copy.lights[0].edgeU, scene.lights[0].edgeU);
        EXPECT_EQ(copy.lights[0].edgeV, scene.lights[0].edgeV);
        EXPECT_EQ(copy.lights[0].radiance, scene.lights[0].radiance);
        EXPECT_EQ(copy.sky.zenith, scene.sky.zenith);
        EXPECT_EQ(copy.sky.horizon, scene.sky.horizon);
        EXPECT_EQ(copy.sky.nadir, scene.sky.nadir);
    }
}

TEST(SceneWire, aMeshLargerThanOneStepOfMemoryComesBackWhole)
{
    Scene scene = kyTest::makeScene();
    scene.meshes = {kyTest::makeBall(200)};
    ASSERT_GT(scene.meshes[0].triangles.size() * sizeof(Triangle), std::size_t{1} << 20);
    kyTest::Loop loop(131072);
    putScene(loop, scene);
    loop.flush();
    EXPECT_EQ(getScene(loop).meshes[0].triangles, scene.meshes[0].triangles);
}

TEST(SceneWire, aClaimAboveTheLimitIsRefusedBeforeAnythingIsAllocated)
{
    for (const std::uint64_t claim :
         {limits::s_materials + 1, ~std::uint64_t{0}, std::uint64_t{1} << 63}) {
        kyTest::Loop loop;
        loop.putValueSize(claim);
        loop.flush();
        EXPECT_EQ(kyTest::messageOf([&] { getScene(loop); }),
                  "Received an invalid scene: " + std::to_string(claim) +
                      " materials, at most 4096 are accepted");
    }
}

TEST(SceneWire, everyArrayHasALimit)
{
    const std::uint64_t claim = 1'000'000'000'000;
    const auto complaintAfter = [&](const std::function<void(kyTest::Loop&)>& begin) {
        kyTest::Loop loop;
        begin(loop);
        loop.putValueSize(claim);
        loop.flush();
        return kyTest::messageOf([&] { getScene(loop); });
    };
    const auto beginMeshes = [](kyTest::Loop& loop) { loop.putValueSize(0); };
    EXPECT_EQ(complaintAfter(beginMeshes), "Received an invalid scene: 1000000000000 meshes, at "
                                           "most 65536 are accepted");
    const auto beginPositions = [&](kyTest::Loop& loop) {
        beginMeshes(loop);
        loop.putValueSize(1);
        loop << std::uint32_t{0};
    };
    EXPECT_EQ(complaintAfter(beginPositions), "Received an invalid scene: 1000000000000 vertices, "
                                              "at most 200000000 are accepted");
    const auto beginNormals = [&](kyTest::Loop& loop) {
        beginPositions(loop);
        loop.putValueSize(1);
        loop << Vector(1.0F);
    };
    EXPECT_EQ(complaintAfter(beginNormals),
              "Received an invalid scene: 1000000000000 normals, at most 1 are accepted");
    const auto beginTriangles = [&](kyTest::Loop& loop) {
        beginNormals(loop);
        loop.putValueSize(1);
        loop << Vector(1.0F);
    };
    EXPECT_EQ(complaintAfter(beginTriangles), "Received an invalid scene: 1000000000000 triangles, "
                                              "at most 200000000 are accepted");
    const auto beginLights = [&](kyTest::Loop& loop) {
        beginMeshes(loop);
        loop.putValueSize(0);
    };
    EXPECT_EQ(complaintAfter(beginLights),
              "Received an invalid scene: 1000000000000 lights, at most 4096 are accepted");
}

TEST(SceneWire, aClaimWithinTheLimitCostsOnlyWhatArrives)
{
    // 200 million vertices are claimed, 2.4 GB; the sender stops after one.
    kyTest::Loop loop;
    loop.putValueSize(0);
    loop.putValueSize(1);
    loop << std::uint32_t{0};
    loop.putValueSize(limits::s_vertices);
    loop << Vector(1.0F);
    loop.flush();
    EXPECT_THROW(getScene(loop), kyConnectionClosed);
}

TEST(SceneWire, aSceneThatIsCutOffAnywhereIsNoScene)
{
    Scene scene = kyTest::makeScene();
    scene.meshes.erase(scene.meshes.begin());
    kyTest::Loop loop(1);
    putScene(loop, scene);
    loop.flush();
    std::size_t size = 0;
    while (!loop.isEmpty()) {
        std::uint8_t byte = 0;
        loop >> byte;
        ++size;
    }
    for (std::size_t cut = 0; cut < size; ++cut) {
        kyTest::Loop whole(1);
        putScene(whole, scene);
        whole.flush();
        kyTest::Loop part(1);
        for (std::size_t i = 0; i < cut; ++i) {
            std::uint8_t byte = 0;
            whole >> byte;
            part << byte;
        }
        part.flush();
        ASSERT_THROW(getScene(part), kyConnectionClosed) << cut;
    }
}

TEST(SceneWire, refusesWhatNobodyCanRender)
{
    const std::string prefix = "Received an invalid scene: ";
    const auto positions = [](Scene & s) -> auto&
    {
        return s.meshes[0].positions;
    };
    EXPECT_EQ(complaintOf([](Scene& s) { s.meshes.clear(); }), prefix + "nothing in it");
    EXPECT_EQ(complaintOf([](Scene& s) { s.meshes[1].material = 2; }),
              prefix + "a mesh of a material that does not exist");
    EXPECT_EQ(complaintOf([](Scene& s) { s.meshes[0].triangles.clear(); }),
              prefix + "a mesh without triangles");
    EXPECT_EQ(complaintOf([](Scene& s) { s.meshes[0].normals.pop_back(); }),
              prefix + "not one normal for each position");
    EXPECT_EQ(complaintOf([&](Scene& s) { positions(s)[3].y = s_nan; }),
              prefix + "a vertex that is no number");
    EXPECT_EQ(complaintOf([&](Scene& s) { s.meshes[0].normals[3].z = INFINITY; }),
              prefix + "a vertex that is no number");
    EXPECT_EQ(complaintOf([&](Scene& s) {
                  s.meshes[0].triangles.back()[2] = static_cast<std::uint32_t>(positions(s).size());
              }),
              prefix + "a triangle of vertices that do not exist");
    EXPECT_EQ(complaintOf([](Scene& s) { s.meshes[0].triangles[0][0] = ~0U; }),
              prefix + "a triangle of vertices that do not exist");
    for (const float wrong : {s_nan, -0.1F, 1.1F}) {
        const std::string complaint = prefix + "a material out of range";
        EXPECT_EQ(complaintOf([&](Scene& s) { s.materials[1].color.y = wrong; }), complaint);
        EXPECT_EQ(complaintOf([&](Scene& s) { s.materials[1].translucency = wrong; }), complaint);
        EXPECT_EQ(complaintOf([&](Scene& s) { s.materials[1].coat = wrong; }), complaint);
        EXPECT_EQ(complaintOf([&](Scene& s) { s.materials[1].roughness = wrong; }), complaint);
    }
    EXPECT_EQ(complaintOf([](Scene& s) { s.materials[1].absorption.z = -1.0F; }),
              prefix + "a material out of range");
    EXPECT_EQ(complaintOf([](Scene& s) { s.lights[0].edgeV = s.lights[0].edgeU; }),
              prefix + "a light without a place, an area or a colour");
    EXPECT_EQ(complaintOf([](Scene& s) { s.lights[0].corner.x = s_nan; }),
              prefix + "a light without a place, an area or a colour");
    EXPECT_EQ(complaintOf([](Scene& s) { s.lights[0].radiance.x = -1.0F; }),
              prefix + "a light without a place, an area or a colour");
    EXPECT_EQ(complaintOf([](Scene& s) { s.sky.nadir.x = INFINITY; }),
              prefix + "a sky without a colour");
    EXPECT_EQ(complaintOf([](Scene&) {}), "");
}

TEST(SceneWire, framesHaveLimits)
{
    const std::string prefix = "Received an invalid frame: ";
    EXPECT_EQ(frameComplaint([](Frame&) {}), "");
    EXPECT_EQ(frameComplaint([](Frame& f) { f.width = 0; }), prefix + "a picture of 0x30 pixels");
    EXPECT_EQ(frameComplaint([](Frame& f) { f.height = 0; }), prefix + "a picture of 40x0 pixels");
    EXPECT_EQ(frameComplaint([](Frame& f) { f.width = 32769; }),
              prefix + "a picture of 32769x30 pixels");
    EXPECT_EQ(frameComplaint([](Frame& f) { f.width = f.height = 32768; }),
              prefix + "a picture of 32768x32768 pixels");
    EXPECT_EQ(frameComplaint([](Frame& f) { f.width = f.height = 16000; }), "");
    EXPECT_EQ(frameComplaint([](Frame& f) { f.width = f.height = ~0U; }),
              prefix + "a picture of 4294967295x4294967295 pixels");
    EXPECT_EQ(frameComplaint([](Frame& f) { f.samples = 0; }), prefix + "0 samples per pixel");
    EXPECT_EQ(frameComplaint([](Frame& f) { f.samples = 1000001; }),
              prefix + "1000001 samples per pixel");
    EXPECT_EQ(frameComplaint([](Frame& f) { f.camera.forward = {}; }),
              prefix + "a camera that looks nowhere");
    EXPECT_EQ(frameComplaint([](Frame& f) { f.camera.position.x = s_nan; }),
              prefix + "a camera that looks nowhere");
    EXPECT_EQ(frameComplaint([](Frame& f) { f.camera.up.x = INFINITY; }),
              prefix + "a camera that looks nowhere");
}

TEST(SceneWire, tilesMustLieWithinTheFrame)
{
    const Frame frame = kyTest::makeFrame(400, 300, 1);
    const auto complaint = [&](const Tile& tile) {
        return kyTest::messageOf([&] { checkTile(tile, frame); });
    };
    for (const Tile& good :
         {Tile{0, 0, 1, 1}, Tile{399, 299, 1, 1}, Tile{300, 200, 100, 100}, Tile{0, 0, 33, 300}}) {
        EXPECT_EQ(complaint(good), "");
    }
    EXPECT_EQ(complaint({0, 0, 0, 5}), "Received an invalid tile: 0x5 pixels at 0,0");
    EXPECT_EQ(complaint({0, 0, 5, 0}), "Received an invalid tile: 5x0 pixels at 0,0");
    EXPECT_EQ(complaint({400, 0, 1, 1}), "Received an invalid tile: 1x1 pixels at 400,0");
    EXPECT_EQ(complaint({399, 0, 2, 1}), "Received an invalid tile: 2x1 pixels at 399,0");
    EXPECT_EQ(complaint({0, 299, 1, 2}), "Received an invalid tile: 1x2 pixels at 0,299");
    EXPECT_EQ(complaint({1, 1, ~0U, 1}), "Received an invalid tile: 4294967295x1 pixels at 1,1");
    EXPECT_EQ(complaint({~0U, 0, 2, 1}), "Received an invalid tile: 2x1 pixels at 4294967295,0");
    EXPECT_EQ(complaint({0, 0, 101, 100}), "Received an invalid tile: 101x100 pixels at 0,0");
}
