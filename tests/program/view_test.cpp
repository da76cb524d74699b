// What the live view shows of made readings, and what keys do there, as cells of a canvas.

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <clocale>
#include <cstring>
#include <map>
#include <utility>

#include "commands/view_control.h"
#include "gpu_feed/limit_reasons.h"
#include "gpu_feed/tuning_text.h"
#include "view/gauge.h"
#include "view/gpu_overview.h"
#include "view/keys.h"
#include "view/limits.h"

namespace {

using namespace testing;
using namespace gpu_feed;

constexpr double kNow = 1000.0;
constexpr uint64_t kMebibyte = uint64_t{1024} * 1024;

/// A GPU that has been read every second for a minute.
FeedGpu MadeGpu(unsigned int index) {
    FeedGpu gpu;
    gpu.Key = "key " + std::to_string(index);
    gpu.Device = {"Made Board", index, "", "", "550.120", "", "", 0};
    gpu.Processes = {{300, 700 * kMebibyte, "render", "zoe", "/usr/bin/render /tmp/scene", 1.6, 5 * kMebibyte},
                     {20, 600 * kMebibyte, "train", "adam", "", 250.0, 2048 * kMebibyte},
                     {1000, 0, "", ""}};
    gpu.PeriodSeconds = 1.0;
    // clang-format off
    gpu.Latest = {kNow, 75, 100, 25, 0, 50, 3072 * kMebibyte, 4096 * kMebibyte, 0, 0, 150.0, 225.0, 250.0, 100.0, 300.0,
                  10, 2100, 2101, 9501, 1785, 2, 4, 16, 12.5, 3.0, kPowerCapReason | kHardwareThermalReason};
    // clang-format on
    GpuTelemetrySample sample = gpu.Latest;
    for (int i = 60; i >= 0; --i) {
        sample.TimestampSeconds = kNow - i;
        gpu.Samples.Append(sample);
    }
    return gpu;
}

/// The view, and the feed that it asks.
class ViewTest : public Test, protected FeedRequests {
protected:
    ViewTest() {
        std::setlocale(LC_CTYPE, "C.UTF-8");
        setenv("TZ", "UTC", 1);
        Data.State = FeedState::Sampling;
        Data.Status = "The status.";
        Data.Interval = std::chrono::seconds(1);
        SetGpus({MadeGpu(0), MadeGpu(1)});
        Control.SelectFirst(Data.Gpus[1]->Key);
    }

    void SetGpus(const std::vector<FeedGpu>& gpus) {
        Data.Gpus.clear();
        for (const FeedGpu& gpu : gpus) Data.Gpus.push_back(std::make_shared<FeedGpu>(gpu));
    }

    FeedMoment Moment() const override {
        using std::chrono::system_clock;
        return {std::make_shared<FeedData>(Data), Now, system_clock::time_point(std::chrono::hours(12)), Silence};
    }
    void SetInterval(std::chrono::milliseconds interval) override {
        Requests += std::to_string(interval.count()) + ' ';
    }
    void Pause() override { Requests += "pause "; }
    void Resume() override { Requests += "resume "; }
    void Rescan() override { Requests += "rescan "; }
    std::future<TuningCapabilities> QueryTuning(const std::string&) override {
        return (Capabilities = {}).get_future();
    }
    std::future<TuningResult> Tune(const std::string& gpuKey, const TuningChange& change, double keepSeconds) override {
        EXPECT_EQ(keepSeconds, 10.0);
        Requests += gpuKey + ": " + ActionText(change) + ' ';
        return (Result = {}).get_future();
    }
    void Keep(const std::string& gpuKey, TuningControl) override { Requests += "keep " + gpuKey; }
    std::future<TuningResult> TakeBack(const std::string& gpuKey, TuningControl) override {
        Requests += "take back " + gpuKey;
        return (Result = {}).get_future();
    }

    Canvas Drawn(int width = 80, int height = 24) {
        Control.OnTime();
        Canvas canvas(width, height, GlyphSet::Braille);
        Control.Draw(&canvas, Moment());
        return canvas;
    }
    /// Some letters are keys without a character; each other character is its own key.
    void Press(const std::string& keys) {
        static const std::map<char, int> kKeys = {
            {'U', UpKey},   {'D', DownKey}, {'L', LeftKey},  {'^', PageUpKey}, {'v', PageDownKey},
            {'<', HomeKey}, {'>', EndKey},  {'E', EnterKey}, {'X', EscapeKey}, {'B', BackspaceKey}};
        for (const char key : keys) Control.OnKey(kKeys.count(key) == 0 ? key : kKeys.at(key));
    }
    /// In each step, presses the keys before the first blank, and expects the text behind it to be shown then.
    void Follow(const std::vector<std::string>& steps) {
        for (const std::string& step : steps) {
            Press(step.substr(0, step.find(' ')));
            const std::string screen = Drawn().Text();
            EXPECT_NE(screen.find(step.substr(step.find(' ') + 1)), std::string::npos) << step << '\n' << screen;
        }
    }

    /// What the driver of a board answers whose clocks and power limit can be changed.
    void AnswerCapabilities(double watts) {
        const std::vector<GpuClockPair> pairs = {{600, 5000}, {900, 5000}, {1200, 5000}, {600, 900}, {800, 900}};
        Capabilities.set_value({{0, "", "", pairs, 910, 5000, true, "The clocks."},
                                {0, "", GpuCapabilityState::Supported, watts, 250.0, 100.0, 300.0, "The limit."}});
    }
    /// As the feed notes that a limit was 225 W and now is `watts`.
    void NoteChange(double watts, double deadline, const std::string& problem = "") {
        const TuningChange before{TuningChange::Kind::SetPower, {}, 225.0};
        Data.Tuning = {{"key 1", Data.Gpus[1]->Device, before, {before.What, {}, watts}, before, deadline, problem}};
    }
    void OpenPanel() {
        Press("t");
        AnswerCapabilities(225.0);
        Follow({" p  set a limit"});
    }
    /// Sets a limit of 150 W, which the driver takes, and is asked whether to keep it.
    void MakeChange() {
        OpenPanel();
        Follow({"p150EE Changing ..."});
        NoteChange(150.0, Now + 10.0);
        Result.set_value({GpuClockOperationResult::Success});
        Follow({"X It goes back in 10 s."});
    }

    FeedData Data;
    double Now = kNow;
    double Silence = 0.0;
    std::string Requests;
    std::promise<TuningCapabilities> Capabilities;
    std::promise<TuningResult> Result;
    ViewControl Control{this, std::chrono::milliseconds(700), "--simulate"};
};

TEST_F(ViewTest, PageShowsAllOfAGpu) {
    EXPECT_EQ(Drawn().Text(),
              R"(GPU util % 0:100  1:100
GPU 1: Made Board   Driver 550.120                             live, every 1.0 s
P2   PCIe gen 4 x16   Limited by: hardware thermal, power cap
GPU     █████████████             100 %  Power   ██████▌░░┃┆░░   150.0 / 225.0 W
VRAM    █████████▊···   3072 / 4096 MiB  Temp    █████████▊···             75 °C
Encoder ·············               0 %  Fan     █▎···········              10 %
Decoder ██████▌······              50 %  Mem I/O ███▎·········              25 %
Clocks  graphics 2100 MHz, memory 9501 MHz, SM 2101 MHz, video 1785 MHz
Limits  power 225 W, default 250 W, range 100 to 300 W
Utilization %         100  Power W  avg 150      150  Temperature °C         75
  100┤⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉     250┤⠒ ⠒ ⠒ ⠒ ⠒ ⠒ ⠒ ⠒ ⠒      100┤⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀
   50┤                          │⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉      50┤
    0┤                         0┤                         0┤
   -60 s              now     -60 s              now     -60 s              now
Graphics clock MHz   2100  VRAM GiB  avg 3.0     3.0  PCIe MiB/s    rx 12  tx 3
 2500┤⠤⠤⠤⠤⠤⠤⠤⠤⠤⠤⠤⠤⠤⠤⠤⠤⠤⠤       4┤⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀      20┤
     │                         2┤                        10┤⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉
    0┤                         0┤                         0┤⠒ ⠒ ⠒ ⠒ ⠒ ⠒ ⠒ ⠒ ⠒
   -60 s              now     -60 s              now     -60 s              now
     PID       VRAM*    CPU      MEMORY  USER       COMMAND
     300     700 MiB    2 %       5 MiB  zoe        render /tmp/scene
      20     600 MiB  250 %    2048 MiB  adam       train
    1000       0 MiB      -           -  -          -
q quit  ? help  t tune  Tab GPU  a all  1-7 plots  +- zoom            last 1 min
)");
    EXPECT_THAT(Drawn(83).Text(), HasSubstr(" x16, rx 12.5 tx 3.0 MiB/s   Limited by: hardware thermal, power cap\n"));
}

TEST_F(ViewTest, GaugesAreFilledFromEndToEnd) {
    // In each set of glyphs.
    const std::pair<std::optional<double>, std::array<const char*, 3>> gauges[] = {
        {std::nullopt, {"....\n", "····\n", "····\n"}},
        {1.0 / 32.0, {"....\n", "····\n", "▏···\n"}},
        {31.0 / 32.0, {"###.\n", "███·\n", "███▉\n"}},
        {1.5, {"####\n", "████\n", "████\n"}}};
    for (const auto& [fraction, expected] : gauges) {
        for (const GlyphSet glyphs : {GlyphSet::Ascii, GlyphSet::Blocks, GlyphSet::Braille}) {
            Canvas canvas(5, 1, glyphs);
            DrawGauge(&canvas, {0, 0, 4, 1}, fraction);
            EXPECT_EQ(canvas.Text(), expected[static_cast<size_t>(glyphs)]);
        }
    }
    // Watts, limit, default, minimum, maximum.
    const std::pair<PowerLevels, const char*> powers[] = {{{100.0, 100.0, 100.0, 0.0, 100.0}, "█████████┃\n"},
                                                          {{50.0, 100.0, -1.0, -1.0, -1.0}, "█████····┃\n"},
                                                          {{-1.0, 40.0, 50.0, 20.0, 100.0}, "··░░┃┆░░░░\n"},
                                                          {{50.0, -1.0, -1.0, -1.0, -1.0}, "··········\n"}};
    for (const auto& [levels, expected] : powers) {
        Canvas canvas(10, 1, GlyphSet::Braille);
        DrawPowerGauge(&canvas, canvas.Whole(), levels);
        EXPECT_EQ(canvas.Text(), expected);
    }
}

TEST_F(ViewTest, DangersAmongTheLimitsComeFirstAndAreRed) {
    const std::tuple<uint64_t, const char*, Style> cases[] = {
        {kIdleReason | kPowerCapReason | kDriverThermalReason, "thermal, power cap\n", Style::Alarm},
        {kApplicationClocksReason | kPowerBrakeReason, "power brake~\n", Style::Alarm},
        {kIdleReason, "nothing, idle\n", Style::Strong},
        {1U << 20U, "0x100000\n", Style::Strong}};
    for (const auto& [reasons, text, look] : cases) {
        GpuTelemetrySample sample;
        sample.PerformanceLimitReasons = reasons;
        Canvas canvas(21, 1, GlyphSet::Ascii);
        DrawLimits(&canvas, canvas.Whole(), sample);
        EXPECT_EQ(canvas.Text(), text);
        EXPECT_EQ(canvas.At(0, 0).Look, look) << text;
    }
}

TEST_F(ViewTest, StatesSayWhatAGpuDoes) {
    const std::string values = " \nLimits  power 225 W,";
    const std::string dashes = " \nLimits  power -,";
    // What the view says, the feed's state, when sampling began, the driver's silence, and of the GPU its period, when
    // it was read last, and since when it is silent.
    const std::tuple<std::string, std::string, FeedState, double, double, double, double, double> cases[] = {
        {" starting\n", dashes, FeedState::Sampling, kNow + 1.0, 0.0, 1.0, kNow, 0.0},
        {" live\n", values, FeedState::Sampling, 0.0, 0.0, 0.0, kNow, 0.0},
        {" live, every 0.25 s\n", values, FeedState::Sampling, 0.0, 0.0, 0.25, kNow, 0.0},
        {" paused\n", values, FeedState::Paused, 0.0, 0.0, 1.0, kNow, 0.0},
        {" The status.\n", dashes, FeedState::Unavailable, 0.0, 0.0, 1.0, kNow, 0.0},
        {" no data since 11:59:48 (12 s)\n", dashes, FeedState::Sampling, 0.0, 0.0, 1.0, kNow - 12.0, kNow - 12.0},
        {" no data yet\n", dashes, FeedState::Sampling, 0.0, 4.0, 1.0, 0.0, 0.0},
        {" no data\n", dashes, FeedState::Sampling, 0.0, 9.0, 1.0, kNow, 0.0}};
    for (const auto& [state, limits, feed, since, silence, period, latest, silentSince] : cases) {
        FeedGpu gpu = MadeGpu(1);
        gpu.PeriodSeconds = period;
        gpu.Latest.TimestampSeconds = latest;
        gpu.SilentSince = silentSince;
        SetGpus({gpu});
        Data.State = feed;
        Data.SamplingSince = since;
        Silence = silence;
        Follow({state, limits});
        const bool bSilent = state.find("no data") != std::string::npos;
        const bool bHanging = Drawn().Text().find("The driver has not answered for 9 s.\n") == 0;
        EXPECT_EQ(bHanging, silence == 9.0);
        EXPECT_EQ(Drawn().At(79, bHanging ? 1 : 0).Look, bSilent ? Style::Alarm : Style::Strong) << state;
        EXPECT_EQ(Drawn().Text().find(" zoe ") == std::string::npos, bSilent) << state;
    }
}

TEST_F(ViewTest, PageMarksWhatTheProgramHasChanged) {
    NoteChange(150.0, 0.0);
    const TuningChange lock{TuningChange::Kind::LockClocks, {900, 5000}};
    const TuningChange release{TuningChange::Kind::ResetClocks};
    Data.Tuning.push_back({"key 1", Data.Gpus[1]->Device, release, lock, release});
    Follow({" \nClocks  locked to 900 / 5000 MHz, graphics 2100 MHz, memory 9501 MHz\nLimits  power 225 W (changed)",
            "a \nGPU 1: Made Board * 100 %", "a PID "});
    Data.Tuning[1].InForce = release;
    NoteChange(225.0, 0.0);
    Follow({" \nClocks  graphics ", " \nLimits  power 225 W, ", "a \nGPU 1: Made Board   100 %"});
}

TEST_F(ViewTest, ManyGpusAreListedAroundTheSelectedOne) {
    FeedGpu silent = MadeGpu(1);
    silent.SilentSince = kNow - 9.0;
    FeedGpu dumb = MadeGpu(2);
    dumb.Latest = {kNow};
    SetGpus({MadeGpu(0), silent, dumb, MadeGpu(3), MadeGpu(4)});
    std::vector<GpuSummary> pages;
    for (const auto& gpu : Data.Gpus) pages.push_back(SummaryOf(Moment(), gpu));
    Canvas table(100, 4, GlyphSet::Braille);
    DrawGpuTable(&table, table.Whole(), pages, 2);
    EXPECT_EQ(table.Text(),
              R"(3 of 5 GPUs           util       vram    power    limit   temp    fan  graphics  limited by
GPU 1: Made Board    no data since 12:00:00 (0 s)
GPU 2: Made Board        -          -        -        -      -      -         -  -
GPU 3: Made Board    100 %   3072 MiB  150.0 W  225.0 W  75 °C   10 %  2100 MHz  hardware thermal…
)");
    EXPECT_EQ(table.At(0, 2).Look, Style::Selected);
    EXPECT_EQ(table.At(21, 1).Look, Style::Alarm);
    const std::tuple<int, size_t, const char*> strips[] = {{60, 4, "GPU util % 0:100  1:!    2:-    3:100  4:100\n"},
                                                           {46, 0, "GPU util % 0:100  1:!    2:-       3 of 5 GPUs\n"},
                                                           {46, 2, "GPU util % 1:!    2:-    3:100     3 of 5 GPUs\n"},
                                                           {46, 4, "GPU util % 2:-    3:100  4:100     3 of 5 GPUs\n"}};
    for (const auto& [width, selected, expected] : strips) {
        Canvas strip(width, 1, GlyphSet::Braille);
        DrawGpuStrip(&strip, strip.Whole(), pages, selected);
        EXPECT_EQ(strip.Text(), expected);
    }
}

TEST_F(ViewTest, ProcessesAreSortedScrolledCutAndNamed) {
    GpuSummary page = SummaryOf(Moment(), Data.Gpus[0]);
    const std::vector<GpuSummary> one = {page};
    const std::vector<GpuSummary> two = {page, SummaryOf(Moment(), Data.Gpus[1])};
    const std::tuple<std::vector<GpuSummary>, ProcessView, int, const char*> cases[] = {
        {one, {ProcessOrder::Memory}, 8, "     PID\n     300\n      20\n    1000\n"},
        {one, {ProcessOrder::Cpu}, 8, "     PID\n      20\n     300\n    1000\n"},
        {one, {ProcessOrder::Pid}, 8, "    PID*\n      20\n     300\n    1000\n"},
        {one, {ProcessOrder::User}, 8, "     PID\n    1000\n      20\n     300\n"},
        {one, {ProcessOrder::Name, 9}, 48, R"(     PID        VRAM    CPU  USER       3-3 of 3
      20     600 MiB  250 %  adam       train
)"},
        {two, {ProcessOrder::User, 2}, 60, R"(     PID  GPU        VRAM    CPU  USER*      COMMA… 3-4 of 6
      20    0     600 MiB  250 %  adam       train
      20    1     600 MiB  250 %  adam       train
)"},
        {one, {}, 55, R"(     PID       VRAM*    CPU  USER       COMMA… 1-1 of 3
     300     700 MiB    2 %  zoe        render /tmp/sc…
)"}};
    for (const auto& [pages, view, width, expected] : cases) {
        Canvas canvas(width, static_cast<int>(std::count(expected, expected + std::strlen(expected), '\n')),
                      GlyphSet::Braille);
        DrawProcesses(&canvas, canvas.Whole(), pages, view);
        EXPECT_EQ(canvas.Text(), expected);
    }
}

TEST_F(ViewTest, PageOfAllGpusHasSmallPlotsAndOneListOfProcesses) {
    FeedGpu rising = MadeGpu(3);
    rising.Samples = {};
    for (int second = 0; second <= 60; ++second) {
        rising.Latest.TimestampSeconds = kNow - 60.0 + second;
        rising.Latest.GpuUtilizationPercent = second * 100 / 60;
        rising.Samples.Append(rising.Latest);
    }
    rising.Latest = {kNow};
    rising.Processes.resize(5);
    SetGpus({MadeGpu(0), rising});
    Press("a");
    EXPECT_THAT(Drawn(80, 18).Text(),
                StartsWith(R"(                     util                  power                     vram   temp
GPU 0: Made Board   100 % █████████████  150.0 W ▃▃▃▃▃▃▃▃▃▃▃▃▃   3072 MiB  75 °C
hardware thermal…         █████████████          █████████████

GPU 3: Made Board       -       ▁▂▄▅▆▇█        - ▃▃▃▃▃▃▃▃▃▃▃▃▃          -      -
                          ▂▃▅▆▇████████          █████████████

     PID  GPU       VRAM*    CPU      MEMORY  USER       COMMAND
     300    0     700 MiB    2 %       5 MiB  zoe        render /tmp/scene
     300    3     700 MiB    2 %       5 MiB  zoe        render /tmp/scene
)"));
    EXPECT_EQ(Drawn().At(0, 1).Look, Style::Selected);
    Follow({"DE  1-3 of 5\n", "D  2-4 of 5\n", "DD  3-5 of 5\n", "U  2-4 of 5\n", "a PID  GPU"});
    SetGpus(std::vector<FeedGpu>(20, rising));
    Follow({" 15 of 20 GPUs", "v  7-12 of 100\n", ">^  89-94 of 100\n", "<  1-6 of 100\n"});
}

TEST_F(ViewTest, GpuIsSelectedByItsNumber) {
    SetGpus({MadeGpu(1), MadeGpu(12)});
    Follow({"g GPU number: _", "12B2 GPU number: 12_", "E \nGPU 12: ", "g1X \nGPU 12: ", "gE \nq quit",
            "g3E There is no GPU 3 ", "g1E \nGPU 1: "});
}

TEST_F(ViewTest, PlotsAreThoseThatWereChosenAndFindRoom) {
    constexpr const char* kTitles[] = {"Utilization %", "Power W",    "Temperature °C", "Graphics clock MHz",
                                       "VRAM GiB",      "PCIe MiB/s", "Frame time ms"};
    SetGpus({MadeGpu(1)});
    // Keys to press, the size of the screen, keys of the plots that are shown then, and a text on the screen.
    const std::tuple<const char*, int, int, const char*, const char*> cases[] = {
        {"", 80, 24, "123456", "0┤"},      {"", 60, 21, "12", "-60 s"},
        {"", 80, 17, "123", "now"},        {"1346--", 80, 24, "25", "-5 min"},
        {"251----", 80, 30, "1", "-45 s"}, {"1", 80, 24, "", "\nThis GPU gives no "},
        {"7", 80, 24, "", "\n1 to 7 show"}};
    for (const auto& [keys, width, height, shownKeys, text] : cases) {
        Press(keys);
        const std::string screen = Drawn(width, height).Text();
        std::string found;
        for (int i = 0; i < 7; ++i) found += screen.find(kTitles[i]) == std::string::npos ? "" : std::to_string(i + 1);
        EXPECT_EQ(found, shownKeys) << screen;
        EXPECT_EQ(screen.find("Tab GPU"), std::string::npos) << "with one GPU";
        EXPECT_NE(screen.find(text), std::string::npos) << text << '\n' << screen;
    }
    Press("2");
    Data.State = FeedState::Paused;
    Data.PausedAt = kNow;
    Now += 10.0;
    const std::string before = Drawn().Text();
    Now += 20.0;
    EXPECT_EQ(Drawn().Text(), before);
}

TEST_F(ViewTest, ScreensShowWhatFits) {
    std::vector<FeedGpu> gpus;
    for (unsigned int i = 0; i < 12; ++i) gpus.push_back(MadeGpu(i));
    SetGpus(gpus);
    const std::string tooSmall = "Too small: this view needs 60 x 16.\n";
    const std::string strip = "GPU util % 0:100";
    const std::tuple<int, int, std::string> sizes[] = {
        {59, 24, tooSmall}, {60, 15, tooSmall},         {60, 16, strip},
        {80, 39, strip},    {80, 40, "9 of 12 GPUs  "}, {80, 60, "     "}};
    for (const auto& [width, height, start] : sizes) {
        EXPECT_THAT(Drawn(width, height).Text(), StartsWith(start)) << width << " x " << height;
    }
    Press("?");
    EXPECT_THAT(Drawn(60, 9).Text(), HasSubstr("│ Any key closes "));
    EXPECT_THAT(Drawn(9, 9).Text(), HasSubstr("│ Any"));
    SetGpus({});
    Silence = 3.0;
    Follow({"?      Starting NVML ... 3 s\n"});
}

TEST_F(ViewTest, CharactersOfTwoColumnsAreWholeOrNotThere) {
    Canvas canvas(6, 1, GlyphSet::Braille);
    EXPECT_EQ(canvas.Put(0, 0, "a\u677f\u677f\u677f"), 5);
    EXPECT_EQ(canvas.Text(), "a\u677f\u677f\n");
    canvas.Put(2, 0, "b");
    EXPECT_EQ(canvas.Text(), "a b\u677f\n");
    canvas.Put(3, 0, "c");
    EXPECT_EQ(canvas.Text(), "a bc\n");
    canvas.PutRight(6, 0, "e\u0301\xff");
    EXPECT_EQ(canvas.Text(), "a bce?\n");
}

// ---- Keys ----

TEST_F(ViewTest, KeysChooseWhatIsShown) {
    Follow({"s CPU*", "s PID*", "s \nProcesses by user ", "s COMMAND*", "s VRAM*"});
    Follow({"+ last 1 min\n", "- \nPlots: last 2 min ", "- last 5 min\n", "- last 10 min\n", "- last 30 min\n",
            "- last 1 h\n", "-- whole history\n", "= last 1 h\n"});
    Follow({"h Any key closes", "q \nPlots: last 1 h ", "? a plot: 1=utilization, 2=power", "x PID"});
    Now += 2.9;
    Follow({" \nPlots: last 1 h "});
    Now += 0.2;
    Follow({" \nq quit "});
    Follow({"i \nInterval: 1 s ", "IIIII Interval: 100 ms", "iiiiiiii Interval: 10 s"});
    for (const char* const notice : {" Paused; space resumes", " Sampling goes on"}) {
        Press(" ");
        Follow({notice});
    }
    EXPECT_EQ(Requests, "1000 500 200 100 100 100 200 500 1000 2000 5000 10000 10000 10000 pause resume ");
}

// ---- Changes of a GPU ----

TEST_F(ViewTest, ClocksAreChosenFromThoseThatTheDriverLists) {
    OpenPanel();
    Follow({" Running 910 MHz graphics, 5000 MHz memory", "c Memory    5000 MHz (2 of 2)", "  600 MHz ",
            "E the clocks to 900 MHz graphics, 5000 ", "ncUE to 1200 MHz graphics", "ncDDE to 600 MHz graphics",
            "nc<E to 1200 MHz graphics", "nc>E to 600 MHz graphics", "nc^E to 1200 MHz graphics",
            "ncvE to 600 MHz graphics", "ncULE to 800 MHz graphics, 900 MHz", " cannot be brought back",
            " goes back to: clocks released.", "nrE Changing ..."});
    EXPECT_EQ(Requests, "key 1: release the clocks ");
}

TEST_F(ViewTest, PowerLimitIsTypedOrSteppedTo) {
    OpenPanel();
    Follow({"p Limit  225 W", "U Limit  226 W", "LL Limit  224 W", "^ Limit  234 W", "v Limit  224 W",
            ">U Limit  300 W", "< Limit  100 W", "12.7.5 Limit  12.75_ W", "BB Limit  12._ W", "9BB Limit  12_ W",
            "E This GPU takes 100 to 300 W.", "0.5U Limit  121 W", "120.5D Limit  120 W",
            "225E This limit is in force already.", "BBB300.1E This GPU takes 100 to 300 W.",
            "BBBBB100E set the power limit to 100 W,", " goes back to: power limit 225 W.",
            "np250E set the power limit back to the default,", "ndE Changing ..."});
    EXPECT_EQ(Requests, "key 1: set the power limit back to the default ");
}

TEST_F(ViewTest, MenuOffersWhatTheDriverSupports) {
    Silence = 3.0;
    Follow({"t Asking what can be changed ...", " The driver has not answered for 3 s."});
    Capabilities.set_value({{}, {}, false});
    Follow({" Power limit", " lacks root's rights", "crpdE Esc, t or q closes"});
    EXPECT_THAT(Drawn().Text(), Not(AnyOf(HasSubstr("lock to"), HasSubstr("set a limit"))));
    Now += 0.6;
    Drawn();
    AnswerCapabilities(225.0);
    Follow({" p  set a limit         d  set the default", " c  lock to a pair      r  release",
            " In force 225 W, default 250 W", "X Power W"});
    EXPECT_FALSE(Control.IsTuning());
}

TEST_F(ViewTest, ChangeGoesBackUnlessItIsKept) {
    MakeChange();
    Follow({"n Going back ..."});
    NoteChange(225.0, 0.0);
    Result.set_value({GpuClockOperationResult::Success});
    Follow({"X It went back to: power limit 225 W.", "E Asking what can be changed ...", "X Power W"});
    MakeChange();
    Now += 11.0;
    Follow({"y It goes back in 0 s."});
    NoteChange(150.0, 0.0, "The sentence.");
    Follow({" It could not go back:", " The sentence.", " gpu_monitor set-power --gpu 1 225 --simulate", "EX Power W"});
    MakeChange();
    NoteChange(225.0, 0.0);
    Follow({" It went back to: power limit 225 W.", "EX Power W"});
    EXPECT_THAT(Requests, Not(HasSubstr("keep")));
    MakeChange();
    Follow({" The driver took it: power limit 150 W.", " Reading it back ..."});
    AnswerCapabilities(150.0);
    Follow({" In force 150 W", "y Asking what can be changed ..."});
    EXPECT_THAT(Requests, EndsWith("key 1: set the power limit to 150 W keep key 1"));
}

TEST_F(ViewTest, ChangeThatIsNotMadeSaysWhy) {
    const std::tuple<TuningResult, const char*, bool> cases[] = {
        {{GpuClockOperationResult::NoPermission, "No rights."}, " No rights.", true},
        {{GpuClockOperationResult::Error, "Half.", HalfLock::Released}, " Half. Both locks of this GPU were", false},
        {{GpuClockOperationResult::Success}, " Done: clocks released.", false}};
    for (const auto& [result, text, bRightsAdvised] : cases) {
        OpenPanel();
        Follow({"ryE Changing ..."});
        Result.set_value(result);
        Follow({text});
        EXPECT_EQ(Drawn().Text().find("with sudo") != std::string::npos, bRightsAdvised) << Drawn().Text();
        Follow({"EX Power W"});
    }
}

}  // namespace
