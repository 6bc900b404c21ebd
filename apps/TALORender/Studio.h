#pragma once

#include <apps/common/Scene.h>

namespace render {

/// A model in a photographer's studio: backdrop, lights and a camera that frames it.
struct Studio
{
    Scene scene;
    Camera camera;
};

/// Puts a mesh on the stage of a studio and sets the camera up in front of it.
///
/// The model is scaled to a length of two and stands on a floor that curves up into a wall behind
/// it. The camera looks at it from the front, a little to the side and from above, as close as the
/// picture's shape (width over height) allows. The wall is so far away that the camera stays before
/// it all around the model.
Studio buildStudio(Mesh model, float aspect);

/// The camera after it has gone so many degrees around the model, on a circle about the vertical
/// axis through the model's middle; with 0 the very same.
Camera orbit(const Camera& camera, double degrees);

} // namespace render
