#ifndef GPU_OVERLAY_SCENE_H
#define GPU_OVERLAY_SCENE_H

/// The picture behind the panel. Needs an OpenGL 3.3 context that is current for as long as it lives.
class Scene {
public:
    /// Draws into the framebuffer that is bound, and fills it. `load`, 1 to 100, sets how much the GPU has to do.
    void Draw(int width, int height, double seconds, int load);
};

#endif  // GPU_OVERLAY_SCENE_H
