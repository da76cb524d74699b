// What the live view shows of the GPUs, as cells of a canvas: pages, gauges, tables, states.

#include <gmock/gmock.h>

#include <optional>
#include <utility>

#include "view/gauge.h"
#include "view/gpu_overview.h"
#include "view/limits.h"
#include "view/live_view.h"
#include "view_test.h"

namespace {

using namespace testing;
using namespace gpu_feed;

class PageTest : public ViewTest {};

Canvas View(const FeedMoment& moment, const ViewChoice& choice = {}, int width = 80, int height = 24) {
    Canvas canvas(width, height, true);
    DrawView(&canvas, moment, choice);
    return canvas;
}

/// A GPU that answers no query.
FeedGpu SpeechlessGpu(unsigned int index = 0) {
    FeedGpu gpu = MadeGpu(index);
    gpu.Device.DriverVersion.clear();
    gpu.Latest = {};
    gpu.Latest.TimestampSeconds = kNow;
    gpu.Samples.assign(3, gpu.Latest);
    return gpu;
}

/// The second one is silent, the third one answers no query.
std::vector<GpuOnPage> FivePages() {
    FeedGpu silent = MadeGpu(1);
    silent.SilentSince = kNow - 9.0;
    const FeedMoment moment = MomentOf(MadeData({MadeGpu(), silent, SpeechlessGpu(2), MadeGpu(3), MadeGpu(4)}));
    std::vector<GpuOnPage> pages;
    for (const auto& gpu : moment.Data->Gpus) pages.push_back(OnPage(moment, gpu));
    return pages;
}

TEST_F(PageTest, ShowsAllOfAGpu) {
    EXPECT_EQ(View(MomentOf(MadeData({MadeGpu(), MadeGpu(1)}))).Text(),
              R"(GPU util % 0:100  1:100
GPU 0: Made Board                                              live, every 1.0 s
Driver 550.120   PCIe gen 4 x16   P2   Limited by: hardware thermal, power cap
GPU     █████████████             100 %  Power   ██████▌░░┃┆░░   150.0 / 225.0 W
VRAM    █████████▊···   3072 / 4096 MiB  Temp    █████████▊···              75 C
Encoder ·············               0 %  Fan     █▎···········              10 %
Decoder ██████▌······              50 %  Mem I/O ███▎·········              25 %
Clocks  graphics 2100 MHz, SM 2101 MHz, memory 9501 MHz, video 1785 MHz
Limits  power 225 W, default 250 W, range 100 to 300 W
Utilization %         100  Power W               150  Temperature C          75
  100┤⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠁    250┤⠒⠒⠒⠒⠒⠒⠒⠒⠒⠒⠒⠒⠒⠒⠒⠒⠒⠒⠂    100┤⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⡀
     │                          │⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠉⠁       │
    0┤                         0┤                        20┤
   -60 s              now     -60 s              now     -60 s              now
Graphics clock MHz   2100  VRAM GiB                                          3.0
 2500┤⠤⠤⠤⠤⠤⠤⠤⠤⠤⠤⠤⠤⠤⠤⠤⠤⠤⠤⠄    4.0┤⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⣀⡀
     │                          │
    0┤                       0.0┤
   -60 s              now     -60 s                  -30 s                   now
     PID       VRAM*  USER          PROCESS
     300     700 MiB  zoe           render
      20     600 MiB  adam          train
    1000       0 MiB  -             -
q quit  ? help  t tune  Tab GPU  1-5 plots  +- zoom  space pause      last 1 min
)");
}

TEST_F(PageTest, GaugesAreFilledFromEndToEnd) {
    const std::tuple<std::optional<double>, const char*, const char*> gauges[] = {
        {std::nullopt, "····", "...."}, {0.0, "····", "...."}, {1.0 / 32.0, "▏···", "...."}, {0.5, "██··", "##.."},
        {31.0 / 32.0, "███▉", "###."},  {1.0, "████", "####"}, {1.5, "████", "####"},        {-0.5, "····", "...."}};
    for (const auto& [fraction, blocks, ascii] : gauges) {
        for (const auto& [expected, bUnicode] : {std::pair(blocks, true), {ascii, false}}) {
            Canvas canvas(5, 1, bUnicode);
            DrawGauge(&canvas, {0, 0, 4, 1}, fraction);
            EXPECT_EQ(canvas.Text(), std::string(expected) + '\n');
        }
    }
    // Watts, limit, default, minimum, maximum.
    const std::pair<PowerLevels, const char*> powers[] = {{{50.0, 80.0, 60.0, 20.0, 100.0}, "█████░┆░┃░\n"},
                                                          {{100.0, 100.0, 100.0, 0.0, 100.0}, "█████████┃\n"},
                                                          {{50.0, 100.0, -1.0, -1.0, -1.0}, "█████····┃\n"},
                                                          {{-1.0, 40.0, 50.0, 20.0, 100.0}, "··░░┃┆░░░░\n"},
                                                          {{50.0, -1.0, -1.0, -1.0, -1.0}, "··········\n"}};
    for (const auto& [levels, expected] : powers) {
        Canvas canvas(10, 1, true);
        DrawPowerGauge(&canvas, canvas.Whole(), levels);
        EXPECT_EQ(canvas.Text(), expected);
    }
}

TEST_F(PageTest, DashesStandForWhatTheDriverDoesNotGive) {
    const std::string page = View(MomentOf(MadeData({SpeechlessGpu()}))).Text();
    EXPECT_THAT(page, HasSubstr(R"(Driver -   PCIe gen - x-   state -   Limited by: -
GPU     ·············                 -  Power   ·············                 -
VRAM    ·············                 -  Temp    ·············                 -
Encoder ·············                 -  Fan     ·············                 -
Decoder ·············                 -  Mem I/O ·············                 -
Clocks  graphics -, SM -, memory -, video -
Limits  power -, default -, range -
Utilization %           -  Power W                 -  Temperature C           -
)"));
}

TEST_F(PageTest, DangersAmongTheLimitsComeFirstAndAreRed) {
    const std::tuple<uint64_t, const char*, Style> cases[] = {{0x20 | 0x4 | 0x1, "thermal, power cap\n", Style::Alarm},
                                                              {0x80 | 0x2, "power brake, applicat\n", Style::Alarm},
                                                              {0x4, "power cap\n", Style::Strong},
                                                              {0x1, "nothing, idle\n", Style::Strong},
                                                              {0, "-\n", Style::Strong},
                                                              {1U << 20U, "0x100000\n", Style::Strong}};
    for (const auto& [reasons, text, look] : cases) {
        GpuTelemetrySample sample;
        sample.PerformanceLimitReasons = reasons;
        Canvas canvas(21, 1, false);
        DrawLimits(&canvas, canvas.Whole(), sample);
        EXPECT_EQ(canvas.Text(), text);
        EXPECT_EQ(canvas.At(0, 0).Look, look) << text;
    }
}

TEST_F(PageTest, StatesSayWhatAGpuDoes) {
    using Edit = void (*)(FeedGpu & gpu, FeedData & data);
    const std::tuple<const char*, bool, double, Edit> cases[] = {
        {"starting", false, 0.0, [](FeedGpu&, FeedData& data) { data.SamplingSince = kNow + 1.0; }},
        {"live", false, 0.0, [](FeedGpu& gpu, FeedData&) { gpu.PeriodSeconds = 0.0; }},
        {"live, every 0.25 s", false, 0.0, [](FeedGpu& gpu, FeedData&) { gpu.PeriodSeconds = 0.25; }},
        {"paused", false, 0.0, [](FeedGpu&, FeedData& data) { data.State = FeedState::Paused; }},
        {"The status.", false, 0.0, [](FeedGpu&, FeedData& data) { data.State = FeedState::Unavailable; }},
        {"no data since 11:59:48 (12 s)", true, 0.0,
         [](FeedGpu& gpu, FeedData&) {
             gpu.Latest.TimestampSeconds = kNow - 12.0;
             gpu.SilentSince = kNow - 11.0;
         }},
        {"no data yet", true, 4.0, [](FeedGpu& gpu, FeedData&) { gpu.Latest = {}; }},
        {"driver hangs, no data since 12:00:00 (0 s)", true, 9.0, [](FeedGpu&, FeedData&) {}}};
    for (const auto& [state, bRed, driverSilence, edit] : cases) {
        FeedGpu gpu = MadeGpu();
        FeedData data = MadeData({});
        edit(gpu, data);
        data.Gpus = {std::make_shared<FeedGpu>(gpu)};
        const Canvas canvas = View(MomentOf(data, kNow, driverSilence));
        EXPECT_THAT(RowBehind(canvas.Text(), "GPU 0: Made Board "), EndsWith(state));
        EXPECT_EQ(canvas.At(79, 0).Look, bRed ? Style::Alarm : Style::Strong) << state;
        const bool bKnown = std::string(state).find_first_of("lp") == 0;
        EXPECT_EQ(RowBehind(canvas.Text(), "Limits  power "),
                  bKnown ? "225 W, default 250 W, range 100 to 300 W" : "-, default -, range -")
            << state;
        EXPECT_EQ(RowBehind(canvas.Text(), "     300 ").empty(), bRed) << state;
    }
}

TEST_F(PageTest, ListsTheGpusAroundTheSelectedOne) {
    const std::vector<GpuOnPage> pages = FivePages();
    Canvas table(100, 4, true);
    DrawGpuTable(&table, table.Whole(), pages, 1);
    EXPECT_EQ(table.Text(),
              R"(3 of 5 GPUs          util       vram    power    limit   temp    fan  graphics     memory  limited b
GPU 0: Made Board   100 %   3072 MiB  150.0 W  225.0 W   75 C   10 %  2100 MHz   9501 MHz  hardware
GPU 1: Made Board   no data since 12:00:00 (0 s)
GPU 2: Made Board       -          -        -        -      -      -         -          -  -
)");
    EXPECT_EQ(table.At(0, 2).Look, Style::Selected);
    EXPECT_EQ(table.At(20, 2).Look, Style::Alarm);
    const std::tuple<int, size_t, const char*> strips[] = {{60, 4, "GPU util % 0:100  1:!    2:-    3:100  4:100\n"},
                                                           {46, 0, "GPU util % 0:100  1:!    2:-       3 of 5 GPUs\n"},
                                                           {46, 2, "GPU util % 1:!    2:-    3:100     3 of 5 GPUs\n"},
                                                           {46, 4, "GPU util % 2:-    3:100  4:100     3 of 5 GPUs\n"}};
    for (const auto& [width, selected, expected] : strips) {
        Canvas strip(width, 1, true);
        DrawGpuStrip(&strip, strip.Whole(), pages, selected);
        EXPECT_EQ(strip.Text(), expected);
    }
}

TEST_F(PageTest, ProcessesAreSortedCutAndNamed) {
    const FeedMoment moment = MomentOf(MadeData({MadeGpu()}));
    GpuOnPage page = OnPage(moment, moment.Data->Gpus[0]);
    const std::pair<ProcessOrder, const char*> orders[] = {
        {ProcessOrder::Memory, "     PID\n     300\n      20\n    1000\n"},
        {ProcessOrder::Pid, "    PID*\n      20\n     300\n    1000\n"},
        {ProcessOrder::User, "     PID\n    1000\n      20\n     300\n"},
        {ProcessOrder::Name, "     PID\n    1000\n     300\n      20\n"}};
    for (const auto& [order, pids] : orders) {
        Canvas canvas(8, 4, true);
        DrawProcesses(&canvas, canvas.Whole(), page, order);
        EXPECT_EQ(canvas.Text(), pids);
    }
    page.bSimulated = true;
    Canvas canvas(50, 2, true);
    DrawProcesses(&canvas, canvas.Whole(), page, ProcessOrder::Name);
    EXPECT_EQ(canvas.Text(),
              "     PID        VRAM  USER          PROCESS*2 more\n    1000       0 MiB  -             (simulated)\n");
}

TEST_F(PageTest, PlotsAreThoseThatWereChosenAndFindRoom) {
    constexpr const char* kTitles[] = {"Utilization %", "Power W", "Temperature C", "Graphics clock MHz", "VRAM GiB"};
    // Plots by their keys, seconds, rows and columns of the screen, keys of the plots shown, and a text on the screen.
    const std::tuple<const char*, double, int, int, const char*, const char*> cases[] = {
        {"12345", 60.0, 24, 80, "12345", "-30 s"},
        {"12345", 60.0, 21, 60, "12", "-60 s"},
        {"25", 300.0, 24, 80, "25", "-5 min"},
        {"3", 0.0, 30, 80, "3", "-45 s"},
        {"12345", 0.0, 17, 80, "123", "whole history\n"},
        {"", 60.0, 24, 80, "", "\n1 to 5 show plots\n"}};
    for (const auto& [keys, seconds, height, width, shownKeys, text] : cases) {
        ViewChoice choice;
        choice.Plots.reset();
        for (const char key : std::string(keys)) choice.Plots.set(static_cast<size_t>(key - '1'));
        choice.Seconds = seconds;
        const std::string screen = View(MomentOf(MadeData({MadeGpu()})), choice, width, height).Text();
        std::string found;
        for (int i = 0; i < 5; ++i) found += screen.find(kTitles[i]) == std::string::npos ? "" : std::to_string(i + 1);
        EXPECT_EQ(found, shownKeys) << screen;
        EXPECT_NE(screen.find(text), std::string::npos) << text << '\n' << screen;
    }
    FeedData paused = MadeData({MadeGpu()});
    paused.State = FeedState::Paused;
    paused.PausedAt = kNow;
    EXPECT_EQ(View(MomentOf(paused)).Text(), View(MomentOf(paused, kNow + 20.0)).Text());
}

TEST_F(PageTest, ScreensShowWhatFits) {
    std::vector<FeedGpu> gpus;
    for (unsigned int i = 0; i < 12; ++i) gpus.push_back(MadeGpu(i));
    const FeedMoment moment = MomentOf(MadeData(gpus));
    const std::string tooSmall = "Too small: this view needs 60 x 16.\n";
    const std::string strip = "GPU util % 0:100";
    const std::tuple<int, int, std::string> sizes[] = {
        {59, 24, tooSmall}, {60, 15, tooSmall}, {60, 16, strip}, {80, 39, strip}, {80, 40, "10 of 12 GPUs  "}};
    for (const auto& [width, height, start] : sizes) {
        EXPECT_THAT(View(moment, {}, width, height).Text(), StartsWith(start)) << width << " x " << height;
    }
    EXPECT_THAT(View(MomentOf({}, kNow, 3.0)).Text(), HasSubstr("     Starting NVML ... 3 s\n"));
}

TEST_F(PageTest, CharactersOfTwoColumnsAreWholeOrNotThere) {
    Canvas canvas(6, 1, true);
    EXPECT_EQ(canvas.Put(0, 0, "a\u677f\u677f\u677f"), 5);
    EXPECT_EQ(canvas.Text(), "a\u677f\u677f\n");
    canvas.Put(2, 0, "b");
    EXPECT_EQ(canvas.Text(), "a b\u677f\n");
    canvas.Put(3, 0, "c");
    EXPECT_EQ(canvas.Text(), "a bc\n");
    canvas.PutRight(6, 0, "e\u0301\xff");
    EXPECT_EQ(canvas.Text(), "a bce?\n");
}

}  // namespace
