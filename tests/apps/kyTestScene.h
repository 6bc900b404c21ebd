#pragma once

#include <cmath>

#include <apps/common/Scene.h>

namespace kyTest {

/// A ball at the origin with the radius 1, smooth, made of triangles.
inline render::Mesh makeBall(int rings)
{
    render::Mesh mesh;
    const float pi = 3.14159265F;
    for (int ring = 0; ring <= rings; ++ring) {
        const float down = pi * static_cast<float>(ring) / static_cast<float>(rings);
        for (int step = 0; step <= 2 * rings; ++step) {
            const float around = pi * static_cast<float>(step) / static_cast<float>(rings);
            const render::Vector p(std::sin(down) * std::cos(around), std::cos(down),
                                   std::sin(down) * std::sin(around));
            mesh.positions.push_back(p);
            mesh.normals.push_back(p);
        }
    }
    const auto row = static_cast<std::uint32_t>(2 * rings + 1);
    for (std::uint32_t ring = 0; ring < static_cast<std::uint32_t>(rings); ++ring) {
        for (std::uint32_t step = 0; step + 1 < row; ++step) {
            const std::uint32_t a = ring * row + step;
            mesh.triangles.push_back({a, a + 1, a + row});
            mesh.triangles.push_back({a + 1, a + row + 1, a + row});
        }
    }
    return mesh;
}

/// A translucent, coated ball over a floor, a light and some sky.
inline render::Scene makeScene()
{
    render::Scene scene;
    scene.materials.resize(2);
    scene.materials[0].color = {0.2F, 0.6F, 0.3F};
    scene.materials[0].translucency = 0.5F;
    scene.materials[0].absorption = {1.0F, 0.2F, 0.5F};
    scene.materials[0].coat = 0.05F;
    scene.meshes = {makeBall(12)};
    render::Mesh floor;
    floor.material = 1;
    floor.positions = {{-9, -1, -9}, {-9, -1, 9}, {9, -1, 9}, {9, -1, -9}};
    floor.normals.assign(4, {0, 1, 0});
    floor.triangles = {{0, 1, 2}, {0, 2, 3}};
    scene.meshes.push_back(floor);
    scene.lights = {{{-1, 4, -1}, {2, 0, 0}, {0, 0, 2}, render::Vector(10.0F)}};
    scene.sky = {render::Vector(0.5F, 0.6F, 0.9F), render::Vector(0.4F), render::Vector(0.1F)};
    return scene;
}

/// A look at the ball from the side of positive z.
inline render::Frame makeFrame(std::uint32_t width, std::uint32_t height, std::uint32_t samples)
{
    render::Frame frame;
    frame.camera.position = {0.0F, 0.0F, 4.0F};
    frame.camera.right = {0.5F, 0.0F, 0.0F};
    frame.camera.up = {0.0F, 0.5F, 0.0F};
    frame.width = width;
    frame.height = height;
    frame.samples = samples;
    return frame;
}

} // namespace kyTest
