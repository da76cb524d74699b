#include "run/overlay.h"

#include <imgui.h>
#include <poll.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "common/failure.h"
#include "common/left_changes.h"
#include "common/left_driver.h"
#include "common/signals.h"
#include "common/simulate.h"
#include "common/take_back.h"
#include "frames/frame_log.h"
#include "frames/frame_pacer.h"
#include "frames/scene_window.h"
#include "frames/stage.h"
#include "gpu_feed/clock.h"
#include "gpu_feed/monitor_feed.h"
#include "gpu_panel/gpu_panel.h"
#include "gpu_profiler.h"
#include "run/output_file.h"
#include "run/run_report.h"
#include "run/window_places.h"

using namespace gpu_feed;

namespace {

/// Without a display to wait for.
constexpr double kFramesPerSecond = 60.0;
/// More than the display shows, so that waiting for it decides where the driver does that.
constexpr double kMostOfRefreshRate = 1.1;
/// Frames that are counted begin when every GPU has been read, but not later than this.
constexpr double kLongestWarmUpSeconds = 3.0;
constexpr uint64_t kLeastWarmUpFrames = 8;
/// So many frames later, the GPU time of the last frame that counts has come.
constexpr int kFramesForLastTime = 4;
/// The sentences on standard error are not seen where a desktop has started the program.
constexpr const char* kLeftChanges = "A killed program left changes. See gpu_monitor undo.";
/// The first readings come soon after the start, if they come.
constexpr double kSilenceSeconds = 0.5;

/// Whether there is nothing more to wait for before frames are counted.
bool IsWarm(const FeedMoment& moment) {
    if (moment.Data->State == FeedState::Starting) return false;
    if (moment.DriverSilence > kSilenceSeconds) return true;
    const auto isStarting = [&moment](const auto& gpu) { return StateOf(moment, *gpu) == GpuState::Starting; };
    return std::none_of(moment.Data->Gpus.begin(), moment.Data->Gpus.end(), isStarting);
}

/// Takes the feed's changes back, where there are some. Result: the exit status.
int TakeBack(MonitorFeed* feed, const std::string& simulateOption) {
    return OutstandingChanges(*feed->Latest()).empty() ? kExitSuccess : TakeChangesBack(feed, simulateOption);
}

class Overlay {
public:
    explicit Overlay(const OverlayOptions& options)
        : Options(options),
          StopDescriptor(CatchStopSignals()),
          Screenshot(options.ScreenshotPath),
          Report(options.ReportPath),
          Frames({options.Size, static_cast<float>(options.Scale), IsHeadless(), true}),
          Feed(FeedOptions{options.Interval, IsNvmlSimulated(), [] {}, JournalFolder()}),
          Panel(&Feed, options.SimulateOption),
          OwnWindow(Frames.Renderer(), LeftChanges().empty() ? "" : kLeftChanges),
          Controls{options.Loads.front(), !IsHeadless()} {
        Running = this;
        std::atexit(EndWithoutDisplay);
    }

    ~Overlay() {
        Running = nullptr;
        StopFeed(&Feed);
    }

    Overlay(const Overlay&) = delete;
    Overlay& operator=(const Overlay&) = delete;

    /// Result: the exit status. Throws `Failure`.
    int Run() {
        try {
            if (IsHeadless()) {
                DrawAllFrames();
            } else {
                DrawUntilEnd();
            }
            WriteFiles();
        } catch (...) {
            End();
            throw;
        }
        return End();
    }

private:
    bool IsHeadless() const { return Options.FramesPerLoad > 0; }

    bool IsStopRequested() const {
        pollfd stop = {StopDescriptor, POLLIN, 0};
        return poll(&stop, 1, 0) > 0;
    }

    /// Result: the exit status.
    int End() {
        // It cannot be used any more, and taking back can take seconds.
        Frames.Shown().Hide();
        return TakeBack(&Feed, Options.SimulateOption);
    }

    /// When the display goes away, its library calls `exit`.
    static void EndWithoutDisplay() {
        if (Running == nullptr) return;
        TakeBack(&Running->Feed, Running->Options.SimulateOption);
        Running->Screenshot.Abandon();
        Running->Report.Abandon();
        std::_Exit(kExitFailure);
    }

    void DrawAllFrames() {
        const double latestStart = NowSeconds() + kLongestWarmUpSeconds;
        while (!IsStopRequested() &&
               (Frames.FrameNumber() < kLeastWarmUpFrames || (!IsWarm(Feed.Moment()) && NowSeconds() < latestStart))) {
            DrawFrame();
        }
        BeginLog();
        for (const int load : Options.Loads) {
            Controls.Load = load;
            for (int i = 0; i < Options.FramesPerLoad && !IsStopRequested(); ++i) LogFrame(DrawFrame());
        }
        for (int i = 0; Report.IsWanted() && i < kFramesForLastTime && !IsStopRequested(); ++i) DrawFrame();
    }

    void DrawUntilEnd() {
        FramePacer pacer;
        BeginLog();
        while (!Frames.Shown().IsClosing() && !IsStopRequested()) {
            if (Frames.Shown().IsMinimised()) {
                Window::WaitForInput();
                FrameEnd = NowSeconds();
                continue;
            }
            if (Frames.Shown().HasVsync() != Controls.bVsync) Frames.Shown().SetVsync(Controls.bVsync);
            const FrameCost cost = DrawFrame();
            pacer.Wait(Controls.bVsync ? kMostOfRefreshRate * Frames.Shown().RefreshRate() : kFramesPerSecond);
            if (Report.IsWanted()) LogFrame(cost);
        }
    }

    FrameCost DrawFrame(Picture* picture = nullptr) {
        const FrameCost cost = Frames.Draw(
            Controls.Load, [this] { DrawWindows(); }, picture);
        if (Report.IsWanted() && GPUProfiler::Get()->GetLatestSnapshot(&LatestFrame)) {
            Log.NoteGpuTime(LatestFrame.FrameNumber, LatestFrame.GpuFrameTimeMs);
        }
        return cost;
    }

    void BeginLog() {
        Log.Begin(Frames.FrameNumber() + 1);
        FrameEnd = NowSeconds();
    }

    void LogFrame(const FrameCost& cost) {
        const double now = NowSeconds();
        Log.Add({Controls.Load, (now - FrameEnd) * 1e3, cost, 0.0});
        FrameEnd = now;
    }

    void DrawWindows() {
        if (!Frames.Shown().AreToolsShown()) return;
        Places.Update();
        Places.PlaceScene();
        ImGui::Begin("Scene", nullptr, ImGuiWindowFlags_AlwaysAutoResize);
        OwnWindow.Draw(&Controls);
        ImGui::End();
        Places.PlacePanel();
        ImGui::Begin("GPUs");
        Panel.Draw();
        ImGui::End();
    }

    void WriteFiles() {
        if (Report.IsWanted()) {
            const RunFacts facts = {Frames.Renderer(), Frames.OpenGlVersion(), Frames.Size(),
                                    Frames.Shown().HasVsync()};
            Report.Write(ReportJson(facts, Log, Feed.Moment()));
        }
        if (Screenshot.IsWanted()) {
            Picture picture;
            DrawFrame(&picture);
            Screenshot.Write(EncodePng(picture));
        }
    }

    static Overlay* Running;

    const OverlayOptions Options;
    const int StopDescriptor;
    OutputFile Screenshot;
    OutputFile Report;
    Stage Frames;
    MonitorFeed Feed;
    gpu_panel::GpuPanel Panel;
    SceneWindow OwnWindow;
    SceneControls Controls;
    FrameLog Log;
    double FrameEnd = 0.0;
    GPUProfiler::FrameSnapshot LatestFrame;
    WindowPlaces Places;
};

Overlay* Overlay::Running = nullptr;

}  // namespace

int RunOverlay(const OverlayOptions& options) {
    PrintLeftChanges(options.SimulateOption);
    return Overlay(options).Run();
}
