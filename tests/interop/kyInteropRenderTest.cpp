// The renderer of this system, and render servers of the other one. scripts/interop.sh starts the
// services and says in the environment where they listen.

#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tests/apps/kyTestFolder.h>
#include <tests/apps/kyTestModel.h>
#include <tests/apps/kyTestPng.h>
#include <tests/interop/kyInteropEnvironment.h>
#include <tests/support/kyTestProgram.h>

namespace {

std::string nodeOf(const std::string& name)
{
    return kyTest::interopNode(name).toString();
}

class InteropRender : public testing::Test
{
protected:
    using Words = std::vector<std::string>;

    /// Renders, which must succeed without a word, on servers that all say that they cast their
    /// rays without Embree.
    kyTest::Picture render(const Words& nodes, const std::string& servers,
                           const Words& more = {}) const
    {
        const std::string output = m_folder.path("out.png");
        Words arguments{m_scene,  "-o",      output,      "--servers", servers,
                        "--size", "200x150", "--samples", "2"};
        for (const std::string& node : nodes) {
            arguments.insert(arguments.end(), {"--node", node});
        }
        arguments.insert(arguments.end(), more.begin(), more.end());
        const kyTest::ProgramResult result =
            kyTest::runProgram(kyTest::programPath("TALORender"), arguments);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.errors, "");
        EXPECT_THAT(result.output, testing::HasSubstr("\nrays:       cast without Embree by " +
                                                      servers + " of " + servers + " server"));
        return kyTest::decodePng(kyTest::readFile(output));
    }

    const kyTest::Folder m_folder;
    const std::string m_scene = m_folder.write("scene.obj", kyTest::makeModel());
};

} // namespace

TEST_F(InteropRender, serversOfTheOtherSystemRenderTheSamePictureEveryTime)
{
    const kyTest::Picture picture = render({nodeOf("FAR_RENDER")}, "2");
    EXPECT_EQ(picture.width, 200U);
    EXPECT_EQ(picture.height, 150U);
    EXPECT_GT(std::set<std::uint8_t>(picture.pixels.begin(), picture.pixels.end()).size(), 10U);
    EXPECT_TRUE(render({nodeOf("FAR_RENDER")}, "2") == picture);
    EXPECT_TRUE(render({nodeOf("FAR_RENDER")}, "1") == picture);
}

TEST_F(InteropRender, bothSystemsRenderTheSamePicture)
{
    const kyTest::Picture picture = render({nodeOf("NEAR_RENDER")}, "1");
    EXPECT_TRUE(render({nodeOf("FAR_RENDER")}, "1") == picture);
    EXPECT_TRUE(render({nodeOf("NEAR_RENDER"), nodeOf("FAR_RENDER")}, "4") == picture);
}

TEST_F(InteropRender, keyCompressionAndRelayChangeNothing)
{
    const kyTest::Picture picture = render({nodeOf("FAR_RENDER")}, "1");
    const Words encrypted{
        "--key", kyTest::interopVariable("KEY"), "--image-compression", "zstd", "--relay", "tree"};
    EXPECT_TRUE(render({nodeOf("FAR_RENDER_WITH_KEY")}, "3", encrypted) == picture);
}
