#ifndef GPU_OVERLAY_INTERFACE_H
#define GPU_OVERLAY_INTERFACE_H

struct GLFWwindow;

/// Dear ImGui in a window. There is one per process.
class Interface {
public:
    /// `scale`: how much larger than usual texts are.
    Interface(GLFWwindow* window, float scale);
    ~Interface();

    Interface(const Interface&) = delete;
    Interface& operator=(const Interface&) = delete;

    /// Not between `Begin` and `Draw`. Does nothing where the scale is in force already.
    void SetScale(float scale);

    /// Begins a frame: afterwards, ImGui takes widgets.
    static void Begin();
    /// Draws the widgets into the framebuffer that is bound.
    static void Draw();

private:
    float Scale = 0.0F;
};

#endif  // GPU_OVERLAY_INTERFACE_H
