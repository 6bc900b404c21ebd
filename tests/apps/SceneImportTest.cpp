#include <apps/TALORender/SceneImport.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include <tests/apps/kyTestFolder.h>
#include <tests/support/kyTestMessage.h>

using namespace render;

namespace {

const std::string s_plyHeader = "ply\n"
                                "format ascii 1.0\n"
                                "comment two triangles that share an edge\n"
                                "element vertex 4\n"
                                "property float x\n"
                                "property float y\n"
                                "property float z\n"
                                "element face 2\n"
                                "property list uchar int vertex_indices\n"
                                "end_header\n";
const std::string s_plyBody = "0 0 0\n1 0 0\n1 1 0\n0 1 0\n3 0 1 2\n3 0 2 3\n";

template <class T> std::string bytesOf(std::initializer_list<T> values, bool isBigEndian)
{
    std::string bytes;
    for (const T& value : values) {
        std::string part(reinterpret_cast<const char*>(&value), sizeof value);
        bytes += isBigEndian ? std::string(part.rbegin(), part.rend()) : part;
    }
    return bytes;
}

std::string binaryPly(bool isBigEndian)
{
    std::string file = s_plyHeader;
    file.replace(file.find("ascii"), 5, isBigEndian ? "binary_big_endian" : "binary_little_endian");
    file += bytesOf<float>({0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0}, isBigEndian);
    file += '\3' + bytesOf<std::int32_t>({0, 1, 2}, isBigEndian);
    file += '\3' + bytesOf<std::int32_t>({0, 2, 3}, isBigEndian);
    return file;
}

class SceneImport : public testing::Test
{
protected:
    std::string failure(const std::string& name, const std::string& bytes)
    {
        const std::string path = m_folder.write(name, bytes);
        const std::string message = kyTest::messageOf([&] { importMesh(path); });
        const std::string prefix = "Unable to load the scene '" + path + "': ";
        EXPECT_EQ(message.substr(0, prefix.size()), prefix);
        return message.substr(std::min(prefix.size(), message.size()));
    }

    Mesh load(const std::string& name, const std::string& bytes)
    {
        return importMesh(m_folder.write(name, bytes));
    }

    kyTest::Folder m_folder;
};

} // namespace

TEST_F(SceneImport, readsTextAndBinaryPly)
{
    for (const std::string& file : {s_plyHeader + s_plyBody, binaryPly(false), binaryPly(true)}) {
        const Mesh mesh = load("scene.ply", file);
        EXPECT_EQ(mesh.positions.size(), 4U);
        EXPECT_EQ(mesh.triangles.size(), 2U);
        ASSERT_EQ(mesh.normals.size(), 4U);
        for (const Vector& normal : mesh.normals) {
            EXPECT_NEAR(std::abs(normal.z), 1.0F, 1e-5F);
        }
    }
}

TEST_F(SceneImport, splitsPolygonsOfAnObjIntoTriangles)
{
    const Mesh mesh = load("scene.obj", "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nf 1 2 3 4\n");
    EXPECT_EQ(mesh.triangles.size(), 2U);
}

TEST_F(SceneImport, joinsTheObjectsOfAFile)
{
    const Mesh mesh = load("scene.obj", "o one\nv 0 0 0\nv 1 0 0\nv 1 1 0\nf 1 2 3\n"
                                        "o two\nv 0 0 5\nv 1 0 5\nv 1 1 5\nf 4 5 6\n");
    EXPECT_EQ(mesh.triangles.size(), 2U);
    EXPECT_EQ(mesh.positions.size(), 6U);
}

TEST_F(SceneImport, leavesOutLinesAndTrianglesWithoutAnArea)
{
    const Mesh mesh =
        load("scene.obj", "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 2 0 0\nf 1 2 3\nf 1 2 4\nl 1 2\n");
    EXPECT_EQ(mesh.triangles.size(), 1U);
}

TEST_F(SceneImport, leavesOutVerticesThatNoTriangleNeeds)
{
    std::string header = s_plyHeader;
    header.replace(header.find("vertex 4"), 8, "vertex 5");
    header.replace(header.find("face 2"), 6, "face 3");
    const std::string corners = "0 0 0\n1 0 0\n1 1 0\n0 1 0\n";
    const std::string faces = "3 0 1 2\n3 0 2 3\n";
    // A triangle that is left out must not make the picture smaller, or spoil it.
    for (const char* outlier : {"2e30 -2e30 0\n", "5 0 0\n"}) {
        const Mesh mesh = load("scene.ply", header + corners + outlier + faces + "3 0 1 4\n");
        EXPECT_EQ(mesh.triangles.size(), 2U);
        EXPECT_EQ(mesh.positions.size(), 4U);
        EXPECT_EQ(mesh.normals.size(), 4U);
        for (const Vector& position : mesh.positions) {
            EXPECT_LE(maxComponent(position), 1.0F);
        }
    }
}

TEST_F(SceneImport, namesAMissingFile)
{
    const std::string path = m_folder.path("missing.ply");
    EXPECT_EQ(kyTest::messageOf([&] { importMesh(path); }),
              "Unable to load the scene '" + path + "': there is no such file");
}

TEST_F(SceneImport, namesAFolder)
{
    const std::string path = m_folder.path("");
    EXPECT_EQ(kyTest::messageOf([&] { importMesh(path); }),
              "Unable to load the scene '" + path + "': it is a folder");
}

TEST_F(SceneImport, refusesAnEmptyFile)
{
    EXPECT_EQ(failure("scene.ply", ""), "the file is empty");
}

TEST_F(SceneImport, refusesAPlyThatIsCutOffAnywhere)
{
    const std::string cutOff = "the file is cut off or damaged";
    const std::string text = s_plyHeader + s_plyBody;
    // Only the last line end may be missing.
    for (std::size_t size = 4; size + 1 < text.size(); ++size) {
        ASSERT_EQ(failure("scene.ply", text.substr(0, size)), cutOff) << size;
    }
    for (const bool isBigEndian : {false, true}) {
        const std::string binary = binaryPly(isBigEndian);
        for (std::size_t size = 4; size < binary.size(); ++size) {
            ASSERT_EQ(failure("scene.ply", binary.substr(0, size)), cutOff) << size;
        }
    }
}

TEST_F(SceneImport, refusesAPlyThatClaimsMoreThanThereIs)
{
    for (const char* claim :
         {"1000000000000000000", "18446744073709551615", "99999999999999999999", "-1", "many"}) {
        std::string header = s_plyHeader;
        header.replace(header.find("face 2") + 5, 1, claim);
        EXPECT_EQ(failure("scene.ply", header + s_plyBody), "the file is cut off or damaged")
            << claim;
    }
}

TEST_F(SceneImport, refusesAVertexThatDoesNotExist)
{
    EXPECT_EQ(failure("scene.ply", s_plyHeader + "0 0 0\n1 0 0\n1 1 0\n0 1 0\n3 0 1 2\n3 0 2 4\n"),
              "the file is cut off or damaged");
}

TEST_F(SceneImport, refusesAVertexWithoutAPlace)
{
    const std::string header =
        binaryPly(false).substr(0, binaryPly(false).find("end_header\n") + 11);
    const std::string faces = binaryPly(false).substr(header.size() + 4 * sizeof(Vector));
    for (const float wrong : {std::numeric_limits<float>::quiet_NaN(), INFINITY}) {
        const std::string corners = bytesOf<float>({0, 0, 0, 1, 0, 0, 1, 1, 0, 0, wrong, 0}, false);
        EXPECT_EQ(failure("scene.ply", header + corners + faces),
                  "a vertex has no finite position");
    }
}

TEST_F(SceneImport, refusesAModelWithoutTriangles)
{
    EXPECT_EQ(failure("scene.obj", "v 0 0 0\nv 1 0 0\nl 1 2\n"), "it holds no triangles");
    EXPECT_EQ(failure("scene.ply", "ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\n"
                                   "property float y\nproperty float z\nend_header\n0 0 0\n"),
              "it holds no triangles");
    EXPECT_EQ(failure("other.obj", "v 0 0 0\nv 1 0 0\nv 2 0 0\nf 1 2 3\n"),
              "it holds no triangles");
}

TEST_F(SceneImport, refusesWhatIsNoModel)
{
    EXPECT_FALSE(failure("scene.ply", "garbage\1\2\3").empty());
    EXPECT_FALSE(failure("scene.xyzzy", s_plyBody).empty());
}
