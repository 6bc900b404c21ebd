#include <apps/TALORender/Studio.h>

#include <algorithm>

#include <gtest/gtest.h>

#include <apps/common/SceneWire.h>
#include <tests/apps/kyTestScene.h>

using namespace render;

namespace {

/// Where a point is seen in the picture: from -1 to 1 both ways.
Vector project(const Camera& camera, const Vector& point)
{
    const Vector v = point - camera.position;
    const float depth = dot(v, camera.forward);
    return {dot(v, camera.right) / dot(camera.right, camera.right) / depth,
            dot(v, camera.up) / dot(camera.up, camera.up) / depth, depth};
}

} // namespace

TEST(Studio, theModelJustFillsThePictureWhateverItsShape)
{
    for (const float aspect : {0.2F, 0.75F, 1.0F, 1.333F, 5.0F}) {
        for (const Vector& stretch : {Vector(1, 1, 1), Vector(7, 1, 1), Vector(1, 9, 2)}) {
            Mesh model = kyTest::makeBall(8);
            for (Vector& p : model.positions) {
                p = p * stretch * 100.0F + Vector(1000.0F, -5.0F, 3.0F);
            }
            const Studio studio = buildStudio(model, aspect);
            float reach = 0.0F;
            for (const Vector& p : studio.scene.meshes.front().positions) {
                const Vector seen = project(studio.camera, p);
                ASSERT_GT(seen.z, 0.0F);
                reach = std::max({reach, std::abs(seen.x), std::abs(seen.y)});
            }
            EXPECT_LE(reach, 0.95F);
            EXPECT_GE(reach, 0.75F);
        }
    }
}

TEST(Studio, theModelStandsOnTheFloorAndHasALengthOfTwo)
{
    Mesh model = kyTest::makeBall(8);
    for (Vector& p : model.positions) {
        p = p * Vector(3.0F, 0.5F, 1.0F) + Vector(4.0F, 4.0F, 4.0F);
    }
    const Studio studio = buildStudio(model, 1.0F);
    float low = 1e9F;
    float left = 1e9F;
    float right = -1e9F;
    for (const Vector& p : studio.scene.meshes.front().positions) {
        low = std::min(low, p.y);
        left = std::min(left, p.x);
        right = std::max(right, p.x);
    }
    EXPECT_NEAR(low, 0.0F, 1e-5F);
    EXPECT_NEAR(right - left, 2.0F, 1e-5F);
    EXPECT_NEAR(right + left, 0.0F, 1e-5F);
}

TEST(Studio, itsSceneIsOneThatAServerAccepts)
{
    const Studio studio = buildStudio(kyTest::makeBall(4), 1.0F);
    EXPECT_NO_THROW(checkScene(studio.scene));
}

TEST(Studio, anOrbitOfNoneOrThreeHundredSixtyDegreesEndsWhereItBegan)
{
    const Camera camera = buildStudio(kyTest::makeBall(8), 1.333F).camera;
    const Camera same = orbit(camera, 0.0);
    EXPECT_EQ(same.position, camera.position);
    EXPECT_EQ(same.forward, camera.forward);
    EXPECT_EQ(same.right, camera.right);
    EXPECT_EQ(same.up, camera.up);
    const Camera around = orbit(camera, 360.0);
    EXPECT_LT(length(around.position - camera.position), 1e-5F);
}

TEST(Studio, anOrbitGoesAroundTheModelAtTheSameHeightAndLooksAtIt)
{
    const Camera camera = buildStudio(kyTest::makeBall(8), 1.333F).camera;
    const Vector middle(0.0F, 1.0F, 0.0F);
    for (const double degrees : {90.0, 180.0, 300.0}) {
        const Camera turned = orbit(camera, degrees);
        EXPECT_EQ(turned.position.y, camera.position.y);
        EXPECT_NEAR(length(turned.position), length(camera.position), 1e-4F);
        const Vector seen = project(turned, middle);
        EXPECT_NEAR(seen.x, project(camera, middle).x, 1e-5F);
        EXPECT_NEAR(seen.y, project(camera, middle).y, 1e-5F);
        EXPECT_NEAR(seen.z, project(camera, middle).z, 1e-4F);
    }
    const Vector opposite = orbit(camera, 180.0).position;
    EXPECT_NEAR(opposite.x, -camera.position.x, 1e-4F);
    EXPECT_NEAR(opposite.z, -camera.position.z, 1e-4F);
}

TEST(Studio, noWallComesBetweenTheModelAndACameraThatGoesAroundIt)
{
    for (const float aspect : {0.2F, 1.0F, 5.0F}) {
        const Studio studio = buildStudio(kyTest::makeBall(8), aspect);
        const Mesh& backdrop = studio.scene.meshes.back();
        const Vector camera = orbit(studio.camera, 180.0).position;
        const Vector away = normalize(Vector(camera.x, 0.0F, camera.z));
        for (const Vector& p : backdrop.positions) {
            const bool isBeforeTheCamera = dot(p, away) < dot(camera, away);
            EXPECT_TRUE(!isBeforeTheCamera || p.y < 0.6F * camera.y)
                << dot(p, away) << ' ' << p.y << " camera " << dot(camera, away) << ' ' << camera.y;
        }
    }
}
