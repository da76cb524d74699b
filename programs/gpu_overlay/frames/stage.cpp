#include "frames/stage.h"

#define GL_GLEXT_PROTOTYPES
#include <GL/glcorearb.h>

#include <ctime>

#include "gpu_feed/clock.h"
#include "gpu_profiler.h"
#include "timer_queries.h"

using gpu_feed::NowSeconds;

namespace {

double ThreadSeconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/// Time and processor time of this thread since it was made.
class Stopwatch {
public:
    FrameCost Cost() const { return {(NowSeconds() - Start) * 1e3, (ThreadSeconds() - ThreadStart) * 1e3}; }

private:
    const double Start = NowSeconds();
    const double ThreadStart = ThreadSeconds();
};

std::string OpenGlText(GLenum name) {
    const GLubyte* const text = glGetString(name);
    return text == nullptr ? "" : reinterpret_cast<const char*>(text);
}

float ScaleOf(const StageOptions& options, const Window& window) {
    return options.Scale > 0.0F ? options.Scale : window.ContentScale();
}

}  // namespace

Stage::OpenProfiler::OpenProfiler() {
    GPUProfiler::Get()->Open(MakeOpenGlTimerQueries());
}

Stage::OpenProfiler::~OpenProfiler() {
    GPUProfiler::Get()->Close();
}

Stage::Stage(const StageOptions& options)
    : Options(options),
      Output(options.Size, !options.bHeadless),
      Memory(options.bHeadless ? std::make_unique<Offscreen>(options.Size) : nullptr),
      Tools(Output.Handle(), ScaleOf(options, Output)),
      Start(NowSeconds()) {
    Output.SetVsync(options.bVsync && !options.bHeadless);
}

Stage::~Stage() = default;

FrameCost Stage::Draw(int load, const std::function<void()>& drawTools, Picture* picture) {
    const Stopwatch stopwatch;
    Window::TakeInput();
    Tools.SetScale(ScaleOf(Options, Output));
    DrawContent(load, drawTools);
    if (picture != nullptr) *picture = ReadPicture(Size());
    FrameCost cost = stopwatch.Cost();
    if (Memory != nullptr) {
        Memory->Finish();
    } else {
        Output.Show();
    }
    if (!Output.HasVsync()) cost = stopwatch.Cost();
    return cost;
}

void Stage::DrawContent(int load, const std::function<void()>& drawTools) {
    if (Memory != nullptr) Memory->Bind();
    const PixelSize size = Size();
    GPUProfiler& profiler = *GPUProfiler::Get();
    profiler.BeginFrame();
    ++Drawn;
    Background.Draw(size.Width, size.Height, NowSeconds() - Start, load);
    Interface::Begin();
    drawTools();
    {
        const GPUProfiler::Scope scope("interface");
        Interface::Draw();
    }
    profiler.EndFrame();
}

PixelSize Stage::Size() const {
    return Memory != nullptr ? Options.Size : Output.Framebuffer();
}

std::string Stage::Renderer() const {
    return OpenGlText(GL_RENDERER);
}

std::string Stage::OpenGlVersion() const {
    return OpenGlText(GL_VERSION);
}
