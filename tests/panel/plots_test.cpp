// The plots of the panel: their columns, their time axis, and what they show a user who points, turns the wheel or
// drags.

#include "gpu_plots.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
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
    auto random = [seed = 7U]() mutable { return (seed = seed * 1664525U + 1013904223U) >> 16U; };
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
        std::map<int64_t, std::pair<float, float>> expected;
        for (size_t i = 0; i < history.size(); ++i) {
            const int64_t column = columns.ColumnOf(history[i].TimestampSeconds);
            const bool bOpens = expected.count(column) == 0;
            auto& [lowest, highest] = expected.try_emplace(column, NAN, NAN).first->second;
            const float watts = history[i].PowerWatts < 0.0 ? NAN : static_cast<float>(history[i].PowerWatts);
            lowest = std::fmin(lowest, watts);
            highest = std::fmax(highest, watts);
            if (!bOpens || i < 2 || i + 1 == history.size()) continue;
            EXPECT_EQ(columns.IsBehindGap(columns.Find(column)), IsGap(between(i), between(i - 1), between(i + 1)));
        }
        ASSERT_EQ(columns.End() - columns.Begin(), expected.size());
        // The oldest column may have had samples that have left the history.
        for (size_t i = columns.Begin() + 1; i < columns.End(); ++i) {
            const auto [lowest, highest] = expected[columns.ColumnAt(i)];
            EXPECT_THAT(columns.ValuesAt(kPower, i).Lowest, NanSensitiveFloatEq(lowest));
            EXPECT_THAT(columns.ValuesAt(kPower, i).Highest, NanSensitiveFloatEq(highest));
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
        {"zoom too far out", [](TimeAxis* axis) { axis->Zoom(1e6, kNow - 60.0); }, 0.0, 1000.0},
        {"pan", [](TimeAxis* axis) { axis->Pan(-100.0); }, 101.0, 120.0},
        {"pan beyond the oldest", [](TimeAxis* axis) { axis->Pan(-1e6); }, 881.0, 120.0},
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
        Gpu.PeriodSeconds = 1.0;
        Moment.Now = kNow;
        // Samples are missing from 60 s to 40 s ago.
        for (int ago = 5999; ago >= 0; ago -= ago == 60 ? 20 : 1) {
            Gpu.Samples.Append(PowerSample(kNow - ago, 100.5 + ago % 10));
        }
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

    void MoveTo(float x, float y) {
        ImGui::GetIO().MousePos = {x, y};
        Frame();
        Frame();
    }

    void Wheel(float steps) {
        ImGui::GetIO().MouseWheel = steps;
        Frame();
    }

    /// Points at so many seconds ago, in the first plot.
    void PointAt(double ago) {
        const ImVec4& field = ImGui::GetDrawData()->CmdLists[1]->CmdBuffer[0].ClipRect;
        const double share = (kNow - ago - Axis.From()) / Axis.Length();
        MoveTo(field.x + static_cast<float>(share) * (field.z - field.x), (field.y + field.w) / 2.0F);
    }

    /// Whether the first plot's curve, or what is filled below it, has a triangle at a moment.
    bool HasCurve(double ago) const {
        const ImDrawList& field = *ImGui::GetDrawData()->CmdLists[1];
        const ImVec4& place = field.CmdBuffer[0].ClipRect;
        const auto x = place.z - static_cast<float>(ago / Axis.Length()) * (place.z - place.x);
        for (int i = 0; i < field.IdxBuffer.Size; i += 3) {
            const auto corner = [&](int n) { return field.VtxBuffer[field.IdxBuffer[i + n]]; };
            const auto [left, right] = std::minmax({corner(0).pos.x, corner(1).pos.x, corner(2).pos.x});
            const bool bOfCurve = ((corner(0).col ^ CurrentPalette().Accent) & ~IM_COL32_A_MASK) == 0;
            if (bOfCurve && left < x && x < right) return true;
        }
        return false;
    }

    FeedGpu Gpu;
    FeedMoment Moment;
    TimeAxis Axis;
    GpuPlots Plots[2];
    float ScrollY = 0.0F;
};

TEST_F(GpuPlotsTest, HeadingsShowTheSampleAtThePointerInAllPlotsAndAGapHasNeitherValueNorLine) {
    EXPECT_EQ(Seen("100.5 W").size(), 2U);
    EXPECT_TRUE(Seen("Temperature").empty());
    PointAt(37.2);
    EXPECT_EQ(Seen("107.5 W").size(), 2U);
    EXPECT_EQ(Seen("37 s ago").size(), 2U);
    PointAt(50.0);
    EXPECT_EQ(Seen("- W").size(), 2U);
    EXPECT_FALSE(HasCurve(50.0));
    EXPECT_TRUE(HasCurve(30.0));
}

TEST_F(GpuPlotsTest, WheelOverAPlotZoomsAboutThePointerAndElsewhereScrolls) {
    PointAt(90.0);
    Wheel(1.0F);
    EXPECT_NEAR(Axis.Length(), 96.0, 1e-6);
    EXPECT_NEAR(kNow - 90.0 - Axis.From(), 0.25 * Axis.Length(), 1.0);
    EXPECT_EQ(ScrollY, 0.0F);
    // The plot comes below the pointer while the user still scrolls.
    MoveTo(1000.0F, 30.0F);
    for (int i = 0; i < 3; ++i) Wheel(-0.2F);
    EXPECT_GT(ScrollY, 0.0F);
    EXPECT_NEAR(Axis.Length(), 96.0, 1e-6);
}

TEST_F(GpuPlotsTest, DraggingPansADoubleClickFollowsAgainAndNoBufferIsTooLargeFor16BitIndices) {
    PointAt(60.0);
    ImGuiIO& io = ImGui::GetIO();
    io.MouseDown[0] = true;
    Frame();
    MoveTo(io.MousePos.x + 380.0F, io.MousePos.y);
    EXPECT_NEAR(kNow - Axis.To(), 12.0, 0.3);
    for (const bool bDown : {false, true, false, true}) {
        io.MouseDown[0] = bDown;
        Frame();
    }
    EXPECT_TRUE(Axis.IsFollowing());
    Axis.ShowAll();
    Frame();
    const ImDrawData& data = *ImGui::GetDrawData();
    for (int i = 0; i < data.CmdListsCount; ++i) EXPECT_LT(data.CmdLists[i]->VtxBuffer.Size, 1 << 16);
}

}  // namespace
