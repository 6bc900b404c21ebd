#pragma once

#include <string>

#include <apps/common/Scene.h>

namespace render {

/// Reads a model file (PLY, OBJ and what else the import library knows) as one mesh with smooth
/// normals in material 0.
///
/// Lines, points, triangles without an area and vertices of nothing else are left out. Throws
/// kyNetError naming the file if it does not exist, is empty, is damaged or cut off, or holds no
/// triangles.
Mesh importMesh(const std::string& path);

} // namespace render
