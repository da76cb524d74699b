#ifndef GPU_OVERLAY_WINDOW_H
#define GPU_OVERLAY_WINDOW_H

struct GLFWwindow;

/// Width and height in pixels.
struct PixelSize {
    int Width;
    int Height;
};

/// The window, with an OpenGL 3.3 context that is current on the thread that makes it. There is one per process.
class Window {
public:
    /// Throws `Failure` when there is no display or no OpenGL 3.3.
    Window(PixelSize size, bool bVisible);
    ~Window();

    Window(const Window&) = delete;
    Window& operator=(const Window&) = delete;

    GLFWwindow* Handle() const { return Created; }

    /// Takes the user's input, which ImGui gets. The second waits for some, but not for long.
    static void TakeInput();
    static void WaitForInput();
    /// Whether the user has closed the window, also with Ctrl+Q.
    bool IsClosing() const;
    bool IsMinimised() const;
    /// F1 turns this off and on.
    bool AreToolsShown() const { return bToolsShown; }
    void Hide();

    /// What can be drawn into; 0 by 0 while the window is minimised.
    PixelSize Framebuffer() const;
    /// How much larger than usual the desktop wants texts.
    float ContentScale() const;

    /// Frames per second of the fastest display, as far as that is known.
    double RefreshRate();
    /// Whether `Show` waits for the display. The driver may ignore it.
    void SetVsync(bool bOn);
    bool HasVsync() const { return bVsync; }

    /// Ends the frame: shows what was drawn.
    void Show();

private:
    static void OnKey(GLFWwindow* window, int key, int scanCode, int action, int modifiers);

    GLFWwindow* Created = nullptr;
    bool bToolsShown = true;
    bool bVsync = false;
    double KnownRate = 0.0;
    double AskRateAt = 0.0;
};

#endif  // GPU_OVERLAY_WINDOW_H
