// What the panel costs the render thread: 8 GPUs with full histories, every plot shown and a new sample each second,
// beside ImGui's own PlotLines of the same widths, heights and values. Nothing is rendered.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "gpu_feed/feed_requests.h"
#include "gpu_feed/limit_reasons.h"
#include "gpu_feed/readings.h"
#include "gpu_panel/gpu_panel.h"
#include "imgui.h"

using namespace gpu_feed;

namespace {

std::atomic<uint64_t> Allocations{0};

void* CountedAllocation(size_t size) {
    Allocations.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(size);
}

}  // namespace

// Not inlined, because g++ would take the pair for a mismatch.
__attribute__((noinline)) void* operator new(size_t size) {
    void* const memory = CountedAllocation(size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

__attribute__((noinline)) void operator delete(void* memory) noexcept {
    std::free(memory);
}

__attribute__((noinline)) void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}

namespace {

constexpr size_t kGpus = 8;
constexpr int kFramesPerSample = 60;
/// Of one GPU: those with curves, and the band.
constexpr int kFields = 10;
/// The curves that the panel draws.
constexpr ReadingId kCurves[] = {
    ReadingId::FrameTime,     ReadingId::Power,       ReadingId::PowerLimit,     ReadingId::Temperature,
    ReadingId::GraphicsClock, ReadingId::MemoryClock, ReadingId::GpuUtilization, ReadingId::MemoryUtilization,
    ReadingId::VramUsed,      ReadingId::PcieReceive, ReadingId::PcieTransmit,   ReadingId::Fan,
};

double ThreadSeconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/// Changes from sample to sample as under a varying load.
GpuTelemetrySample SampleOf(size_t gpu, int second) {
    const double phase = second * 0.37 + static_cast<double>(gpu);
    const double slow = 0.5 + 0.4 * std::sin(second / 97.0);
    const double load = slow + 0.1 * std::sin(phase * phase);
    GpuTelemetrySample sample;
    sample.TimestampSeconds = 1000.0 + second;
    sample.TemperatureC = static_cast<int>(40.0 + 40.0 * slow);
    sample.GpuUtilizationPercent = static_cast<int>(100.0 * load);
    sample.MemoryUtilizationPercent = static_cast<int>(50.0 * load);
    sample.VramUsedBytes = static_cast<uint64_t>(8e9 * load);
    sample.VramTotalBytes = 24'000'000'000;
    sample.PowerWatts = 350.0 * load;
    sample.PowerLimitWatts = 350.0;
    sample.FanPercent = static_cast<int>(30.0 + 50.0 * slow);
    sample.GraphicsClockMHz = static_cast<int>(1900.0 * load);
    sample.MemoryClockMHz = slow > 0.3 ? 9501 : 405;
    sample.PcieReceiveMiBPerSecond = 3000.0 * load;
    sample.PcieTransmitMiBPerSecond = 900.0 * load;
    sample.PerformanceLimitReasons = load > 0.8 ? kPowerCapReason : load < 0.2 ? kIdleReason : 0;
    sample.FrameTimeMs = 5.0 + 12.0 * load;
    return sample;
}

/// A feed that takes a sample of each GPU when the benchmark says so.
class SampledFeed final : public FeedRequests {
public:
    SampledFeed() : Gpus(kGpus) {
        for (size_t i = 0; i < kGpus; ++i) {
            Gpus[i].Key = "GPU " + std::to_string(i);
            Gpus[i].Device.Index = static_cast<unsigned int>(i);
            Gpus[i].Device.Name = "Board of the benchmark";
            Gpus[i].PeriodSeconds = 1.0;
        }
        for (Second = 0; Second < static_cast<int>(SampleHistory::kMostSamples); ++Second) Append();
        Publish();
    }

    void TakeSamples() {
        Append();
        ++Second;
        Publish();
    }

    void Advance(double seconds) { Shown.Now += seconds; }

    const SampleHistory& Samples(size_t gpu) const { return Gpus[gpu].Samples; }

    FeedMoment Moment() const override { return Shown; }
    void SetInterval(std::chrono::milliseconds) override {}
    void Pause() override {}
    void Resume() override {}
    void Rescan() override {}
    std::future<TuningCapabilities> QueryTuning(const std::string&) override { return {}; }
    std::future<TuningResult> Tune(const std::string&, const TuningChange&, double) override { return {}; }
    void Keep(const std::string&, TuningControl) override {}
    std::future<TuningResult> TakeBack(const std::string&, TuningControl) override { return {}; }

private:
    void Append() {
        for (size_t i = 0; i < kGpus; ++i) {
            Gpus[i].Latest = SampleOf(i, Second);
            Gpus[i].Samples.Append(Gpus[i].Latest);
        }
    }

    void Publish() {
        auto data = std::make_shared<FeedData>();
        data->State = FeedState::Sampling;
        data->Interval = std::chrono::milliseconds(1000);
        data->SamplingSince = 1.0;
        for (const FeedGpu& gpu : Gpus) data->Gpus.push_back(std::make_shared<const FeedGpu>(gpu));
        Shown.Data = std::move(data);
        Shown.Now = Gpus.front().Latest.TimestampSeconds;
    }

    std::vector<FeedGpu> Gpus;
    int Second = 0;
    FeedMoment Shown;
};

/// One ImGui whose window is `width` wide and shows everything, however high that is.
class Screen {
public:
    explicit Screen(float width) : Context(ImGui::CreateContext()) {
        ImGui::SetCurrentContext(Context);
        ImGuiIO& io = ImGui::GetIO();
        io.IniFilename = nullptr;
        io.BackendFlags |= ImGuiBackendFlags_RendererHasVtxOffset;
        io.DisplaySize = ImVec2(width, 30000.0F);
        io.DeltaTime = 1.0F / kFramesPerSample;
        unsigned char* pixels = nullptr;
        int size = 0;
        io.Fonts->GetTexDataAsRGBA32(&pixels, &size, &size);
    }
    ~Screen() { ImGui::DestroyContext(Context); }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    /// Result: the CPU seconds of `draw` alone.
    template <typename Draw>
    double Frame(const Draw& draw) {
        ImGui::SetCurrentContext(Context);
        ImGui::NewFrame();
        ImGui::SetNextWindowPos(ImVec2(0.0F, 0.0F));
        ImGui::SetNextWindowSize(ImGui::GetIO().DisplaySize);
        ImGui::Begin("GPUs", nullptr, ImGuiWindowFlags_NoDecoration);
        const double before = ThreadSeconds();
        draw();
        const double seconds = ThreadSeconds() - before;
        ImGui::End();
        ImGui::Render();
        return seconds;
    }

private:
    ImGuiContext* Context;
};

/// The same curves as `PlotLines` takes them: the oldest value is the one at `Oldest`.
class Lines {
public:
    explicit Lines(const SampledFeed& feed) : Feed(feed), Values(kGpus * std::size(kCurves)) {
        for (size_t i = 0; i < Values.size(); ++i) {
            for (const GpuTelemetrySample& sample : Feed.Samples(i / std::size(kCurves))) {
                Values[i].push_back(ValueOf(i, sample));
            }
        }
    }

    void TakeSamples() {
        for (size_t i = 0; i < Values.size(); ++i) {
            Values[i][Oldest] = ValueOf(i, Feed.Samples(i / std::size(kCurves)).back());
        }
        Oldest = (Oldest + 1) % SampleHistory::kMostSamples;
    }

    void Draw(ImVec2 size) const {
        for (size_t i = 0; i < Values.size(); ++i) {
            ImGui::PushID(static_cast<int>(i));
            // With a given scale, it does not look for the highest value.
            ImGui::PlotLines("", Values[i].data(), static_cast<int>(Values[i].size()), static_cast<int>(Oldest),
                             nullptr, 0.0F, 10000.0F, size);
            ImGui::PopID();
        }
    }

private:
    float ValueOf(size_t line, const GpuTelemetrySample& sample) const {
        return static_cast<float>(*ReadingValue(kCurves[line % std::size(kCurves)], sample));
    }

    const SampledFeed& Feed;
    std::vector<std::vector<float>> Values;
    size_t Oldest = 0;
};

/// The panel in its screen, with the parts of all GPUs open and their whole history shown.
class ShownPanel {
public:
    ShownPanel(SampledFeed* feed, float width) : Window(width), Panel(feed) {
        // At first only one GPU is open. The names are those of the panel's own identifiers.
        Window.Frame([&] {
            ImGui::PushID(&Panel);
            for (const auto& gpu : feed->Moment().Data->Gpus) {
                ImGui::PushID(gpu->Key.c_str());
                ImGui::GetStateStorage()->SetInt(ImGui::GetID("##gpu"), 1);
                ImGui::PopID();
            }
            ImGui::PopID();
        });
        for (int i = 0; i < kSettlingFrames; ++i) Frame();
        // The wheel zooms out as far as possible. The pointer is on a plot: the first window in the panel's.
        const ImVec4& plot = ImGui::GetDrawData()->CmdLists[1]->CmdBuffer[0].ClipRect;
        ImGuiIO& io = ImGui::GetIO();
        io.MousePos = ImVec2((plot.x + plot.z) / 2.0F, (plot.y + plot.w) / 2.0F);
        Frame();
        io.MouseWheel = -100.0F;
        Frame();
        io.MousePos = ImVec2(-FLT_MAX, -FLT_MAX);
        for (int i = 0; i < kSettlingFrames; ++i) Frame();
    }

    double Frame() {
        return Window.Frame([this] { Panel.Draw(); });
    }

    /// Each part of a plot that shows curves is a window of its own.
    bool ShowsAll() const { return ImGui::GetDrawData()->CmdListsCount > static_cast<int>(kGpus) * kFields; }

private:
    static constexpr int kSettlingFrames = 3 * kFramesPerSample;

    Screen Window;
    gpu_panel::GpuPanel Panel;
};

/// CPU times of frames.
struct Times {
    std::vector<double> Seconds;

    double Median() const {
        std::vector<double> sorted = Seconds;
        const auto middle = sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2);
        std::nth_element(sorted.begin(), middle, sorted.end());
        return *middle;
    }
    double Worst() const { return *std::max_element(Seconds.begin(), Seconds.end()); }
};

/// The argument is the width of the window; all show the whole history.
void PanelBesidePlotLines(benchmark::State& state) {
    ImGui::SetAllocatorFunctions([](size_t size, void*) { return CountedAllocation(size); },
                                 [](void* memory, void*) { std::free(memory); });
    SampledFeed feed;
    Lines lines(feed);
    const auto width = static_cast<float>(state.range(0));
    ShownPanel panel(&feed, width);
    Screen screen(width);
    const ImVec2 lineSize(width - 2.0F * ImGui::GetStyle().WindowPadding.x,
                          5.0F * ImGui::GetIO().Fonts->Fonts[0]->FontSize);

    const auto drawLines = [&] { lines.Draw(lineSize); };
    for (int i = 0; i < kFramesPerSample; ++i) screen.Frame(drawLines);

    Times ofPanel;
    Times ofLines;
    // Of frames with new samples, and of the others.
    uint64_t allocations[2] = {};
    int frame = 0;
    for ([[maybe_unused]] auto _ : state) {
        feed.Advance(1.0 / kFramesPerSample);
        const bool bNewSamples = ++frame % kFramesPerSample == 0;
        if (bNewSamples) {
            feed.TakeSamples();
            lines.TakeSamples();
        }
        const uint64_t before = Allocations.load(std::memory_order_relaxed);
        const double seconds = panel.Frame();
        allocations[bNewSamples ? 0 : 1] += Allocations.load(std::memory_order_relaxed) - before;
        if (!panel.ShowsAll()) {
            state.SkipWithError("not every plot is shown");
            break;
        }
        ofPanel.Seconds.push_back(seconds);
        ofLines.Seconds.push_back(screen.Frame(drawLines));
        state.SetIterationTime(seconds);
    }
    if (frame == 0 || ofLines.Seconds.empty()) return;
    state.counters["panel_median_ns"] = ofPanel.Median() * 1e9;
    state.counters["panel_worst_ns"] = ofPanel.Worst() * 1e9;
    state.counters["lines_median_ns"] = ofLines.Median() * 1e9;
    state.counters["lines_worst_ns"] = ofLines.Worst() * 1e9;
    state.counters["ratio_median"] = ofPanel.Median() / ofLines.Median();
    state.counters["ratio_worst"] = ofPanel.Worst() / ofLines.Worst();
    state.counters["allocations_new_samples"] = static_cast<double>(allocations[0]);
    state.counters["allocations_other_frames"] = static_cast<double>(allocations[1]);
}
BENCHMARK(PanelBesidePlotLines)->Arg(400)->Arg(1000)->Arg(1900)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
