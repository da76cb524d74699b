#ifndef GPU_OVERLAY_SCENE_H
#define GPU_OVERLAY_SCENE_H

#include "scene/gl_objects.h"

/// The picture behind the panel: a disc of solids that rises and falls in waves, under lights that drift through haze.
/// Needs an OpenGL 3.3 context that is current for as long as it lives.
class Scene {
public:
    static constexpr int kLeastLoad = 1;
    static constexpr int kGreatestLoad = 100;

    /// Throws Failure when the driver does not take the shaders.
    Scene();

    /// Draws into the framebuffer that is bound, and fills it; a framebuffer without pixels stays as it is. `load`, 1
    /// to 100, sets how many solids and lights there are and how fine the solids are: how much the GPU has to do.
    /// Measures itself with the profiler's scopes and counters.
    void Draw(int width, int height, double seconds, int load);

private:
    void MakeSolidMesh(int cells);

    const GlProgram Background;
    const GlProgram Solids;
    const GlBuffer FrameValues;
    const GlBuffer SolidIndices;
    const GlVertexArray SolidMesh;
    /// The mesh that `SolidIndices` holds: cells along each edge of a face; 0 before the first one.
    int MeshCells = 0;
};

#endif  // GPU_OVERLAY_SCENE_H
