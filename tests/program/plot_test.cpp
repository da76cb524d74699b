// What the live view draws, as cells of a canvas: plots of the history.

#include <gmock/gmock.h>

#include <clocale>
#include <cmath>

#include "view/plot.h"

namespace {

using namespace testing;

// A plot with a field of 10 x 4 cells, 20 x 16 braille dots: one is one second wide and one watt high.
constexpr Area kArea = {0, 0, 16, 6};
constexpr TimeSpan kSpan = {100.0, 120.0};
// Pairs of a time, in columns of dots of a plot of `kSpan`, and watts; -1: not read.
using Readings = std::vector<std::pair<double, double>>;

Plot PowerPlot(double highest = 15.0) {
    const auto watts = [](const auto& s) { return s.PowerWatts == -1.0 ? std::nullopt : std::optional(s.PowerWatts); };
    return {"Power", "W", {{watts, Style::Bar}}, highest};
}

Canvas Drawn(const Readings& readings, double interval, const TimeSpan& span = kSpan, const Area& area = kArea,
             GlyphSet glyphs = GlyphSet::Braille, const Plot& plot = PowerPlot()) {
    gpu_feed::SampleHistory samples;
    for (const auto& [time, watts] : readings) {
        GpuTelemetrySample sample;
        sample.TimestampSeconds = kSpan.From + 4.0 + time;
        sample.PowerWatts = watts;
        samples.Append(sample, {105.0 * time, time});
    }
    Canvas canvas(area.X + area.Width + 1, area.Y + area.Height + 1, glyphs);
    DrawPlot(&canvas, area, plot, {samples, span, interval});
    return canvas;
}

/// The watts drawn in each column of dots: one value, the lowest and the highest, or "." for none.
std::string Columns(const Canvas& canvas) {
    constexpr int kBits[4][2] = {{0x40, 0x80}, {0x04, 0x20}, {0x02, 0x10}, {0x01, 0x08}};
    std::string text;
    for (int column = 0; column < 20; ++column) {
        std::string watts;
        for (int i = 0; i < 16; ++i) {
            const wchar_t glyph = canvas.At(6 + column / 2, 4 - i / 4).Glyph;
            if (glyph < 0x2800 || ((glyph - 0x2800) & kBits[i % 4][column % 2]) == 0) continue;
            watts = (watts.empty() ? "" : watts.substr(0, watts.find('-')) + '-') + std::to_string(i);
        }
        text += ' ' + (watts.empty() ? "." : watts);
    }
    return text.substr(1, text.find_last_not_of(" ."));
}

TEST(Plot, ConnectsReadingsUnlessSomeAreMissing) {
    const std::tuple<const char*, double, Readings, const char*> cases[] = {
        {"just slowed down", 5, {{0, 0}, {1, 0}, {6, 5}}, "0 0 1 2 3 4 5"},
        {"out of range", 1, {{0, -5}, {1, 99}, {2, 0}, {3, NAN}, {4, 0}}, "0-7 8-15 0-7 . 0"},
        {"not read, then paused", 1, {{0, 3}, {1, -1}, {2, 3}, {3, 3}, {7, 3}, {8, 3}}, "3 . 3 3 . . . 3 3"},
        {"many samples per dot", 0.2, {{0, 1}, {0.2, 1}, {0.4, 9}, {0.6, 2}, {1, 2}}, "1-9 2"},
        {"just resumed", 1, {{0, 3}, {1, 3}, {6, 3}}, "3 3 . . . . 3"},
        {"slow for a while", 1, {{0, 3}, {1, 3}, {5, 3}, {9, 3}, {10, 3}}, "3 3 3 3 3 3 3 3 3 3 3"},
        {"enters", 1, {{-15, 4}, {-5, 4}, {5, 4}}, "4 4 4 4 4 4"},
        {"enters behind a gap", 1, {{-9, 4}, {-8, 4}, {2, 4}, {3, 4}}, ". . 4 4"}};
    for (const auto& [what, interval, readings, expected] : cases) {
        EXPECT_EQ(Columns(Drawn(readings, interval)), expected) << what;
    }
}

TEST(Plot, KeepsItsShapeWhileItScrolls) {
    const Readings readings = {{5.1, 12}, {6.3, 2}, {8.8, 9}, {11.9, 3}, {12.2, 14}, {14.7, 0}, {17.5, 6}};
    const std::string before = Columns(Drawn(readings, 2));
    EXPECT_EQ(Columns(Drawn(readings, 2, {103.9, 123.9})), before);
    EXPECT_EQ(". . . . " + Columns(Drawn(readings, 2, {104.3, 124.3})), before);
}

TEST(Plot, ShowsCurvesLatestValueAndAxes) {
    std::setlocale(LC_CTYPE, "C.UTF-8");
    Plot plot = PowerPlot();
    plot.Curves.push_back({[](const auto&) { return std::optional(15.0); }, Style::Limit, true, nullptr});
    const Readings rise = {{0, 0}, {6, 3}, {11, 15}, {12, -1}};
    const Canvas canvas = Drawn(rise, 5, kSpan, kArea, GlyphSet::Braille, plot);
    EXPECT_THAT(canvas.Text(), StartsWith("Power W        -\n   15┤⠉ ⠉ ⠉⡎⠁\n   10┤    ⡜\n    5┤   ⡰⠁\n    0┤⡠⠔⠊⠁\n"));
    EXPECT_THAT((std::vector{canvas.At(10, 1).Look, canvas.At(11, 1).Look}), ElementsAre(Style::Limit, Style::Bar));
    EXPECT_THAT(Drawn(rise, 5, {96.0, 115.5}, kArea, GlyphSet::Ascii, plot).Text(),
                StartsWith("Power W       15\n   15+    ' '.'\n   10+       |\n    5+      .'\n    0+   .--'\n"));
    EXPECT_THAT(Drawn(rise, 5, {60.0, 120.0}, {0, 0, 36, 6}).Text(), HasSubstr("   -60 s          -30 s          now"));
    EXPECT_THAT(Drawn(rise, 5, {-5280.0, 120.0}, {0, 0, 66, 6}).Text(),
                HasSubstr("\n-1 h 30 min            -1 h               -30 min              now\n"));
    EXPECT_THAT(Drawn(rise, 5, {120.0 - 2e6, 120.0}, {0, 0, 66, 6}).Text(),
                HasSubstr(" -20 d                     -10 d "));
}

TEST(Plot, HeadingSaysWhatFitsWhole) {
    Plot plot = PowerPlot();
    plot.Curves.front().Name = "draw";
    plot.Curves.push_back({[](const auto&) { return std::optional(15.0); }, Style::Limit, true, "limit"});
    plot.bWithEnergy = true;
    const std::pair<int, const char*> cases[] = {
        {80, "Power W  avg 6 / 15, max 15 / 15, 0.35 Wh in 12 s       --- draw 3  - - limit 15\n"},
        {58, "Power W  avg 6 / 15, max 15 / 15  --- draw 3  - - limit 15\n"},
        {24, "Power W draw 3  limit 15\n"},
        {23, "Power W          3 / 15\n"}};
    for (const auto& [width, heading] : cases) {
        const Area area = {0, 0, width, 6};
        EXPECT_THAT(Drawn({{0, 0}, {6, 6}, {11, 15}, {12, 3}}, 5, kSpan, area, GlyphSet::Braille, plot).Text(),
                    StartsWith(heading));
    }
}

TEST(Plot, LabelsAreRoundAndEven) {
    const std::tuple<double, int, const char*> cases[] = {
        {100, 3, "  100+\n   50+\n    0+\n"},
        {100, 4, "  100+\n     |\n     |\n    0+\n"},
        {320, 7, "  400+\n     |\n     |\n  200+\n     |\n     |\n    0+\n"},
        {3105, 8, "     |\n 3000+\n     |\n 2000+\n     |\n 1000+\n     |\n    0+\n"},
        {0.9, 5, " 1.00+\n 0.75+\n 0.50+\n 0.25+\n 0.00+\n"}};
    for (const auto& [highest, height, expected] : cases) {
        const Area area = {0, 0, 16, height + 2};
        EXPECT_THAT(Drawn({}, 1, kSpan, area, GlyphSet::Ascii, PowerPlot(highest)).Text(), HasSubstr(expected));
    }
}

TEST(Plot, StaysInItsArea) {
    for (int i = 0; i < 20 * 5; ++i) {
        const Area area = {3, 2, i % 20, i / 20};
        Canvas canvas = Drawn({{0, 0}, {6, 3}, {19, 15}}, 10, kSpan, area,
                              i % 3 == 0 ? GlyphSet::Braille : GlyphSet::Ascii, PowerPlot(i % 2 * 15.0));
        canvas.Clear(area);
        EXPECT_EQ(canvas.Text().find_first_not_of(" \n"), std::string::npos) << area.Width << " x " << area.Height;
    }
}

}  // namespace
