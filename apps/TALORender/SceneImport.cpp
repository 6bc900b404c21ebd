#include <apps/TALORender/SceneImport.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <assimp/Importer.hpp>
#include <assimp/config.h>
#include <assimp/postprocess.h>
#include <assimp/scene.h>

#include <NetBase/buffers/kyNetError.h>
#include <apps/TALORender/PlyCheck.h>

namespace render {

namespace {

Vector toVector(const aiVector3D& v)
{
    return {v.x, v.y, v.z};
}

[[noreturn]] void fail(const std::string& path, const std::string& reason)
{
    throw kyNetError("Unable to load the scene '" + path + "': " + reason);
}

void requireFile(const std::string& path)
{
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (!std::filesystem::exists(status)) {
        fail(path, "there is no such file");
    }
    if (std::filesystem::is_directory(status)) {
        fail(path, "it is a folder");
    }
    if (std::filesystem::is_regular_file(status) && std::filesystem::file_size(path, error) == 0) {
        fail(path, "the file is empty");
    }
}

void requireComplete(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    if (!file || !content) {
        fail(path, "it cannot be read");
    }
    const std::string bytes = content.str();
    if (isPly(bytes) && !isCompletePly(bytes)) {
        fail(path, "the file is cut off or damaged");
    }
}

/// The importer's own words, without the line end it puts behind some of them.
std::string reasonOf(const Assimp::Importer& importer)
{
    std::string reason = importer.GetErrorString();
    while (!reason.empty() && (reason.back() == '\n' || reason.back() == '\r')) {
        reason.pop_back();
    }
    return reason.empty() ? "the file is damaged" : reason;
}

void requirePlace(const Vector& position, const std::string& path)
{
    if (!isFinite(position)) {
        fail(path, "a vertex has no finite position");
    }
}

/// Checks what was read, before the importer's own steps rely on it, and counts its polygons.
///
/// Those steps take a vertex that is no number for equal to any other.
std::size_t countPolygons(const aiScene& scene, const std::string& path)
{
    std::size_t polygons = 0;
    for (unsigned int i = 0; i < scene.mNumMeshes; ++i) {
        const aiMesh& mesh = *scene.mMeshes[i];
        for (unsigned int j = 0; j < mesh.mNumFaces; ++j) {
            const aiFace& face = mesh.mFaces[j];
            const bool isSound = face.mNumIndices > 0 &&
                                 std::all_of(face.mIndices, face.mIndices + face.mNumIndices,
                                             [&](unsigned int v) { return v < mesh.mNumVertices; });
            if (!isSound) {
                fail(path, "the file is cut off or damaged");
            }
            std::for_each(face.mIndices, face.mIndices + face.mNumIndices,
                          [&](unsigned int v) { requirePlace(toVector(mesh.mVertices[v]), path); });
            polygons += face.mNumIndices >= 3 ? 1 : 0;
        }
    }
    return polygons;
}

bool isSolid(const Mesh& mesh, const Triangle& t)
{
    const Vector& corner = mesh.positions[t[0]];
    const float area = length(cross(mesh.positions[t[1]] - corner, mesh.positions[t[2]] - corner));
    return std::isfinite(area) && area > 0.0F;
}

/// The triangles of a part, with all of its vertices.
Mesh toMesh(const aiMesh& part, const std::string& path)
{
    Mesh mesh;
    for (unsigned int i = 0; i < part.mNumVertices; ++i) {
        const Vector position = toVector(part.mVertices[i]);
        const Vector normal = part.HasNormals() ? toVector(part.mNormals[i]) : Vector();
        requirePlace(position, path);
        mesh.positions.push_back(position);
        mesh.normals.push_back(isFinite(normal) ? normal : Vector());
    }
    for (unsigned int i = 0; i < part.mNumFaces; ++i) {
        const aiFace& face = part.mFaces[i];
        if (face.mNumIndices != 3) {
            continue;
        }
        const Triangle triangle{face.mIndices[0], face.mIndices[1], face.mIndices[2]};
        if (isSolid(mesh, triangle)) {
            mesh.triangles.push_back(triangle);
        }
    }
    return mesh;
}

/// Appends the triangles of a part and the vertices that they need: one that only a triangle
/// without an area had would count when the picture is framed.
void append(Mesh& mesh, const Mesh& part)
{
    constexpr std::uint32_t s_none = ~0U;
    std::vector<std::uint32_t> newIndex(part.positions.size(), s_none);
    for (Triangle triangle : part.triangles) {
        for (std::uint32_t& vertex : triangle) {
            std::uint32_t& index = newIndex[vertex];
            if (index == s_none) {
                index = static_cast<std::uint32_t>(mesh.positions.size());
                mesh.positions.push_back(part.positions[vertex]);
                mesh.normals.push_back(part.normals[vertex]);
            }
            vertex = index;
        }
        mesh.triangles.push_back(triangle);
    }
}

} // namespace

Mesh importMesh(const std::string& path)
{
    requireFile(path);
    requireComplete(path);
    Assimp::Importer importer;
    importer.SetPropertyInteger(AI_CONFIG_PP_SBP_REMOVE,
                                aiPrimitiveType_POINT | aiPrimitiveType_LINE);
    importer.SetPropertyFloat(AI_CONFIG_PP_GSN_MAX_SMOOTHING_ANGLE, 66.0F);
    const aiScene* scene = importer.ReadFile(path, 0);
    if (scene != nullptr && countPolygons(*scene, path) == 0) {
        fail(path, "it holds no triangles");
    }
    if (scene != nullptr) {
        scene = importer.ApplyPostProcessing(
            aiProcess_Triangulate | aiProcess_JoinIdenticalVertices | aiProcess_GenSmoothNormals |
            aiProcess_PreTransformVertices | aiProcess_SortByPType);
    }
    if (scene == nullptr) {
        fail(path, reasonOf(importer));
    }
    Mesh mesh;
    for (unsigned int i = 0; i < scene->mNumMeshes; ++i) {
        append(mesh, toMesh(*scene->mMeshes[i], path));
    }
    if (mesh.triangles.empty()) {
        fail(path, "it holds no triangles");
    }
    return mesh;
}

} // namespace render
