#ifndef GPU_OVERLAY_STAGE_H
#define GPU_OVERLAY_STAGE_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "frames/interface.h"
#include "frames/offscreen.h"
#include "frames/picture.h"
#include "frames/window.h"
#include "scene/scene.h"

struct StageOptions {
    PixelSize Size{1280, 800};
    /// How much larger than usual texts are; 0: as the desktop wants them.
    float Scale = 0.0F;
    /// Draws into memory, as large as `Size`, as fast as possible.
    bool bHeadless = false;
    /// Waits for the display after each frame.
    bool bVsync = true;
};

/// What a frame took of the thread that draws it, in milliseconds.
struct FrameCost {
    /// Time, without waiting for the display.
    double WorkMs = 0.0;
    /// Processor time.
    double CpuMs = 0.0;
};

/// The window with everything that draws into it: OpenGL, the scene, ImGui, and the profiler, which measures them.
///
/// Threads: belongs to the main thread. There is one per process.
class Stage {
public:
    /// Throws `Failure`.
    explicit Stage(const StageOptions& options);
    ~Stage();

    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    /// Draws a frame: the scene with this load, and what `drawTools` draws with ImGui over it. `picture` gets the frame
    /// when it is not null.
    FrameCost Draw(int load, const std::function<void()>& drawTools, Picture* picture = nullptr);

    Window& Shown() { return Output; }
    PixelSize Size() const;
    /// The number of the latest frame, as the profiler counts.
    uint64_t FrameNumber() const { return Drawn; }
    /// What draws, in the driver's words.
    std::string Renderer() const;
    std::string OpenGlVersion() const;

private:
    /// Makes the profiler known to the library, and ends it in time.
    struct OpenProfiler {
        OpenProfiler();
        ~OpenProfiler();
    };

    void DrawContent(int load, const std::function<void()>& drawTools);

    const StageOptions Options;
    Window Output;
    std::unique_ptr<Offscreen> Memory;
    OpenProfiler Profiler;
    Scene Background;
    Interface Tools;
    const double Start;
    uint64_t Drawn = 0;
};

#endif  // GPU_OVERLAY_STAGE_H
