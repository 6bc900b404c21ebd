#pragma once

#include <apps/common/Scene.h>

class kyNetSerializer;

namespace render {

/// How scenes, frames and tiles travel, and what of them is accepted.
///
/// A scene, little-endian, each array led by the number of its elements (8 bytes):
///
///     materials   of 9 floats
///     meshes      material (4 bytes), positions, normals (3 floats each), triangles (3 x 4 bytes)
///     lights      of 12 floats
///     sky         9 floats
///
/// Whatever arrives is checked before it is used: a number of elements against the limits before
/// anything is allocated, and memory grows only as the elements themselves arrive. All functions
/// throw kyNetError, and what the serializer throws.

/// Writes a scene.
void putScene(kyNetSerializer& out, const Scene& scene);

/// Reads a scene and checks it.
Scene getScene(kyNetSerializer& in);

/// Throws if anything in the scene is no number, or names a material or vertex that does not
/// exist, or exceeds the limits.
void checkScene(const Scene& scene);

/// Throws if the frame is empty, too large, or its camera looks nowhere.
void checkFrame(const Frame& frame);

/// Throws if the tile is empty, too large for one buffer, or not within the frame.
void checkTile(const Tile& tile, const Frame& frame);

} // namespace render
