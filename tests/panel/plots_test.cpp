// The plots of the panel: their columns, their time axis, and what they show a user who points, turns the wheel or
// drags.

#include "gpu_plots.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <iterator>
#include <map>
#include <random>
#include <utility>

#include "gpu_feed/plotting.h"
#include "screen.h"

namespace {

using namespace testing;
using namespace gpu_feed;
using namespace gpu_panel;

constexpr double kNow = 50000.0;
constexpr size_t kPower = 1;

GpuTelemetrySample PowerSample(double moment, double watts) {
    GpuTelemetrySample sample;
    sample.TimestampSeconds = moment;
    sample.PowerWatts = watts;
    return sample;
}

// Some samples come one by one, as from a feed, the others at once; the interval changes, samples are missing, and some
// have no power.
TEST(PlotColumnsTest, ColumnsHoldTheExtremesAndGapsOfTheirSamplesHoweverTheyCame) {
    std::mt19937 random(7);
    SampleHistory history;
    PlotColumns columns;
    double moment = kNow;
    for (size_t i = 0; i < SampleHistory::kMostSamples + 3000; ++i) {
        const double interval = i / 500 % 2 == 0 ? 1.0 : 10.0;
        moment += random() % 50 == 0 ? 8.0 * interval : interval;
        history.Append(PowerSample(moment, random() % 5 == 0 ? -1.0 : static_cast<double>(random() % 300)));
        if (i >= 4000 && i < 8000) columns.Update(history, interval, 7.0);
    }
    const auto between = [&](size_t i) { return history[i].TimestampSeconds - history[i - 1].TimestampSeconds; };
    for (const double length : {7.0, 0.25}) {
        columns.Update(history, 10.0, length);
        std::map<int64_t, std::pair<double, double>> expected;
        for (size_t i = 0; i < history.size(); ++i) {
            const int64_t column = columns.ColumnOf(history[i].TimestampSeconds);
            const bool bOpens = expected.count(column) == 0;
            auto& [lowest, highest] = expected.try_emplace(column, NAN, NAN).first->second;
            const double watts = history[i].PowerWatts < 0.0 ? NAN : history[i].PowerWatts;
            lowest = std::fmin(lowest, watts);
            highest = std::fmax(highest, watts);
            if (!bOpens || i < 2 || i + 1 == history.size()) continue;
            EXPECT_EQ(columns.IsBehindGap(columns.Find(column)), IsGap(between(i), between(i - 1), between(i + 1)));
        }
        ASSERT_EQ(columns.End() - columns.Begin(), expected.size());
        // The oldest column may have had samples that have left the history.
        size_t i = columns.Begin() + 1;
        for (auto each = std::next(expected.begin()); each != expected.end(); ++each, ++i) {
            EXPECT_EQ(columns.ColumnAt(i), each->first);
            const auto& [lowest, highest] = columns.ValuesAt(kPower, i);
            EXPECT_THAT(lowest, NanSensitiveFloatEq(static_cast<float>(each->second.first)));
            EXPECT_THAT(highest, NanSensitiveFloatEq(static_cast<float>(each->second.second)));
        }
    }
    columns.Update({}, 1.0);
    EXPECT_FALSE(columns.HasValues(kPower));
}

TEST(TimeAxisTest, FollowsThePresentUntilItIsMovedAndStaysWithinTheHistory) {
    const struct {
        const char* Name;
        std::function<void(TimeAxis*)> Act;
        double Behind;
        double Length;
    } rows[] = {
        {"untouched", [](TimeAxis*) {}, 0.0, 120.0},
        {"zoom in the middle", [](TimeAxis* axis) { axis->Zoom(0.5, kNow - 60.0); }, 31.0, 60.0},
        {"zoom near the end", [](TimeAxis* axis) { axis->Zoom(0.5, kNow - 5.0); }, 0.0, 60.0},
        {"zoom too far in", [](TimeAxis* axis) { axis->Zoom(0.001, kNow); }, 0.0, 10.0},
        {"zoom too far out", [](TimeAxis* axis) { axis->Zoom(1e6, kNow - 60.0); }, 0.0, 1000.0},
        {"pan", [](TimeAxis* axis) { axis->Pan(-100.0); }, 101.0, 120.0},
        {"pan beyond the oldest", [](TimeAxis* axis) { axis->Pan(-1e6); }, 881.0, 120.0},
        {"pan back", [](TimeAxis* axis) { (axis->Pan(-100.0), axis->Pan(150.0)); }, 0.0, 120.0},
        {"follow again", [](TimeAxis* axis) { (axis->Pan(-100.0), axis->Follow()); }, 0.0, 120.0},
        {"longer", [](TimeAxis* axis) { axis->Step(1); }, 0.0, 300.0},
        {"shorter", [](TimeAxis* axis) { (axis->Zoom(0.9, kNow), axis->Step(-1)); }, 0.0, 60.0},
        {"all", [](TimeAxis* axis) { (axis->Pan(-9.0), axis->ShowAll()); }, 0.0, 1000.0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.Name);
        TimeAxis axis;
        axis.Include(kNow - 1000.0);
        axis.Update(kNow);
        row.Act(&axis);
        axis.Update(kNow + 1.0);
        EXPECT_NEAR(kNow + 1.0 - axis.To(), row.Behind, 1e-6);
        EXPECT_NEAR(axis.Length(), row.Length, 1e-6);
        EXPECT_EQ(axis.IsFollowing(), row.Behind == 0.0);
    }
}

class GpuPlotsTest : public testing::Test {
protected:
    GpuPlotsTest() {
        ImGui::CreateContext();
        ImGuiIO& io = ImGui::GetIO();
        io.IniFilename = nullptr;
        io.DisplaySize = {3800.0F, 150.0F};
        io.Fonts->Build();
        Data->State = FeedState::Sampling;
        Data->Interval = std::chrono::milliseconds(1000);
        Gpu.PeriodSeconds = 1.0;
        Moment.Data = Data;
        Moment.Now = kNow;
        // Samples are missing from 60 s to 40 s ago.
        for (int ago = 5999; ago >= 0; --ago) {
            if (ago < 60 && ago > 40) continue;
            Gpu.Samples.Append(PowerSample(kNow - ago, 100.0 + ago % 10 + 0.5));
        }
        Gpu.Latest = Gpu.Samples.back();
        for (int i = 0; i < 4; ++i) Frame();
    }
    ~GpuPlotsTest() override { ImGui::DestroyContext(); }

    void Frame() {
        Axis.Update(kNow);
        ImGui::NewFrame();
        ImGui::SetNextWindowPos({0.0F, 0.0F});
        ImGui::SetNextWindowSize(ImGui::GetIO().DisplaySize);
        ImGui::Begin("Host");
        for (GpuPlots& plots : Plots) plots.Draw(Gpu, Moment, &Axis);
        ScrollY = ImGui::GetScrollY();
        ImGui::End();
        ImGui::Render();
        ImGui::GetIO().MouseWheel = 0.0F;
    }

    /// Points at so many seconds ago, in the first plot.
    void PointAt(double ago) {
        const ImVec4& field = ImGui::GetDrawData()->CmdLists[1]->CmdBuffer[0].ClipRect;
        const double share = (kNow - ago - Axis.From()) / Axis.Length();
        ImGui::GetIO().MousePos = {field.x + static_cast<float>(share) * (field.z - field.x),
                                   (field.y + field.w) / 2.0F};
        Frame();
        Frame();
    }

    std::shared_ptr<FeedData> Data = std::make_shared<FeedData>();
    FeedGpu Gpu;
    FeedMoment Moment;
    TimeAxis Axis;
    GpuPlots Plots[2];
    float ScrollY = 0.0F;
};

TEST_F(GpuPlotsTest, HeadingsShowTheSampleAtThePointerInAllPlotsAndNothingInAGap) {
    EXPECT_EQ(Seen("100.5 W").size(), 2U);
    EXPECT_TRUE(Seen("Temperature").empty());
    PointAt(37.2);
    EXPECT_EQ(Seen("107.5 W").size(), 2U);
    EXPECT_EQ(Seen("37 s ago").size(), 2U);
    PointAt(50.0);
    EXPECT_EQ(Seen("- W").size(), 2U);
}

TEST_F(GpuPlotsTest, WheelOverAPlotZoomsAboutThePointerAndElsewhereScrolls) {
    PointAt(90.0);
    ImGui::GetIO().MouseWheel = 1.0F;
    Frame();
    EXPECT_NEAR(Axis.Length(), 120.0 / 1.25, 1e-6);
    EXPECT_NEAR((kNow - 90.0 - Axis.From()) / Axis.Length(), 0.25, 0.01);
    EXPECT_EQ(ScrollY, 0.0F);
    // The plot comes below the pointer while the user still scrolls.
    ImGui::GetIO().MousePos.y = 30.0F;
    for (int i = 0; i < 3; ++i) {
        Frame();
        ImGui::GetIO().MouseWheel = -0.2F;
        Frame();
    }
    EXPECT_GT(ScrollY, 0.0F);
    EXPECT_NEAR(Axis.Length(), 120.0 / 1.25, 1e-6);
}

// Backends without support for large buffers have 16-bit indices.
TEST_F(GpuPlotsTest, DraggingPansADoubleClickFollowsAgainAndNoBufferGrowsTooLarge) {
    PointAt(60.0);
    ImGui::GetIO().MouseDown[0] = true;
    Frame();
    ImGui::GetIO().MousePos.x += 380.0F;
    Frame();
    EXPECT_NEAR(kNow - Axis.To(), 12.0, 0.3);
    for (int i = 0; i < 5; ++i) {
        ImGui::GetIO().MouseDown[0] = i % 2 != 0;
        Frame();
    }
    EXPECT_TRUE(Axis.IsFollowing());
    Axis.ShowAll();
    Frame();
    for (int i = 0; i < ImGui::GetDrawData()->CmdListsCount; ++i) {
        EXPECT_LT(ImGui::GetDrawData()->CmdLists[i]->VtxBuffer.Size, 1 << 16);
    }
}

}  // namespace
