// Whether a program that draws feels the monitor: frames of gpu_overlay with a feed on 8 boards whose calls take as
// long as on hardware, against frames without monitor and feed, in turns. Frames without are drawn twice, which shows
// by how much equal runs differ. The panel is drawn in all of them. Needs a display, which xvfb-run gives.

#include <imgui.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <future>
#include <string>
#include <utility>
#include <vector>

#include "common/simulate.h"
#include "frames/frame_log.h"
#include "frames/frame_pacer.h"
#include "frames/stage.h"
#include "gpu_feed/monitor_feed.h"
#include "gpu_panel/gpu_panel.h"

using namespace gpu_feed;

namespace {

constexpr const char* kBoards = "8";
constexpr double kFramesPerSecond = 60.0;
constexpr double kAllowedPercent = 5.0;
constexpr PixelSize kSize = {640, 400};
/// The first frames of a turn make what the later ones use.
constexpr int kWarmUpFrames = 30;

struct Options {
    int Alternations = 20;
    int Frames = 150;
    bool bNoPanel = false;
};

/// What a feed has published, without the feed.
class KeptMoment : public FeedRequests {
public:
    explicit KeptMoment(FeedMoment moment) : Kept(std::move(moment)) {}

    FeedMoment Moment() const override { return Kept; }
    void SetInterval(std::chrono::milliseconds /*interval*/) override {}
    void Pause() override {}
    void Resume() override {}
    void Rescan() override {}
    std::future<TuningCapabilities> QueryTuning(const std::string& /*gpuKey*/) override { return {}; }
    std::future<TuningResult> Tune(const std::string& /*gpuKey*/, const TuningChange& /*change*/,
                                   double /*keepSeconds*/) override {
        return {};
    }
    void Keep(const std::string& /*gpuKey*/, TuningControl /*control*/) override {}
    std::future<TuningResult> TakeBack(const std::string& /*gpuKey*/, TuningControl /*control*/) override { return {}; }

private:
    const FeedMoment Kept;
};

/// What frames have taken, in milliseconds.
struct Costs {
    std::vector<double> Cpu;
    std::vector<double> Work;
};

class Measurement {
public:
    explicit Measurement(const Options& options) : Chosen(options) {
        Costs ignored;
        DrawWithFeed(&ignored);
    }

    void Run() {
        for (int i = 0; i < Chosen.Alternations; ++i) {
            // Each kind takes each place in the order equally often, in case a place has a cost of its own.
            for (int place = 0; place < 3; ++place) DrawTurn((i + place) % 3);
        }
    }

    void Print() const {
        std::printf("%d turns of %d frames each, %s, panel %s\n", Chosen.Alternations, Chosen.Frames,
                    Frames.Renderer().c_str(), Chosen.bNoPanel ? "hidden" : "shown");
        std::printf("%-26s %9s %9s %9s %11s %11s\n", "ms", "without", "feed", "without", "feed", "without");
        PrintLines("CPU of the render thread", &Costs::Cpu);
        PrintLines("work of the frame", &Costs::Work);
    }

private:
    void DrawTurn(int kind) {
        if (kind == 0) DrawWithout(&Without);
        if (kind == 1) DrawWithFeed(&With);
        if (kind == 2) DrawWithout(&WithoutAgain);
    }

    void DrawWithFeed(Costs* costs) {
        FeedOptions options;
        options.bSimulated = true;
        MonitorFeed feed(options);
        // NVML starts, and every GPU is read once, before frames are counted.
        while (feed.Latest()->State == FeedState::Starting) Draw(&feed, 1, nullptr);
        Draw(&feed, Chosen.Frames, costs);
        Kept = feed.Moment();
    }

    void DrawWithout(Costs* costs) {
        KeptMoment kept(Kept);
        Draw(&kept, Chosen.Frames, costs);
    }

    /// `costs` may be null.
    void Draw(FeedRequests* feed, int frames, Costs* costs) {
        gpu_panel::GpuPanel panel(feed);
        const int warmUp = costs == nullptr ? 0 : kWarmUpFrames;
        for (int i = -warmUp; i < frames; ++i) {
            const FrameCost cost = Frames.Draw(1, [&] {
                if (!Chosen.bNoPanel) DrawPanel(&panel);
            });
            Pacer.Wait(kFramesPerSecond);
            if (i < 0 || costs == nullptr) continue;
            costs->Cpu.push_back(cost.CpuMs);
            costs->Work.push_back(cost.WorkMs);
        }
    }

    static void DrawPanel(gpu_panel::GpuPanel* panel) {
        ImGui::SetNextWindowPos({0.0F, 0.0F});
        ImGui::SetNextWindowSize({0.6F * kSize.Width, 1.0F * kSize.Height});
        panel->DrawWindow("GPUs");
    }

    void PrintLines(const char* name, std::vector<double> Costs::*values) const {
        const auto without = DistributionOf(Without.*values);
        const auto with = DistributionOf(With.*values);
        const auto again = DistributionOf(WithoutAgain.*values);
        if (!without || !with || !again) return;
        PrintLine(std::string(name) + ", median", without->Median, with->Median, again->Median);
        PrintLine(std::string(name) + ", p99", without->Percentile99, with->Percentile99, again->Percentile99);
    }

    static void PrintLine(const std::string& name, double without, double with, double again) {
        const double difference = 100.0 * (with / without - 1.0);
        const double noise = 100.0 * (again / without - 1.0);
        const bool bMet = std::abs(difference) <= std::max(kAllowedPercent, std::abs(noise));
        std::printf("%-30s %9.3f %9.3f %9.3f %+9.1f %% %+9.1f %% %s\n", name.c_str(), without, with, again, difference,
                    noise, bMet ? "met" : "MISSED");
    }

    const Options Chosen;
    Stage Frames{{kSize, 1.0F, true, false}};
    FramePacer Pacer;
    FeedMoment Kept;
    Costs Without;
    Costs With;
    Costs WithoutAgain;
};

/// Throws what the parser, the window and the simulator throw.
void Run(int argc, char** argv) {
    CLI::App app("Compares frames with a feed and frames without one.", "frame_bench");
    Options options;
    app.add_option("--alternations", options.Alternations, "Turns of each kind")->capture_default_str();
    app.add_option("--frames", options.Frames, "Frames of each turn")->capture_default_str();
    app.add_flag("--no-panel", options.bNoPanel, "Draw the scene alone");
    app.parse(argc, argv);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread runs yet.
    setenv("NVML_SIM_DELAYS", "realistic", 1);
    Simulate(kBoards, false);
    Measurement measurement(options);
    measurement.Run();
    measurement.Print();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        Run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return 0;
}
