#include "view/plot.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <string>
#include <utility>

#include "gpu_feed/plotting.h"
#include "gpu_feed/reading_text.h"
#include "view/cut_text.h"
#include "view/plot_field.h"

using namespace gpu_feed;

namespace {

/// Columns of the vertical axis and its labels, the same for all plots, so that their time axes have the same scale.
constexpr int kMargin = 6;
constexpr int kLeastFieldWidth = 10;
/// Values that are older than so many intervals are not shown as current.
constexpr double kStaleIntervals = 4.0;

using SamplePointers = std::vector<const GpuTelemetrySample*>;

// ---- Scales ----

/// The labels of the vertical axis, which begins at 0 in the lowest row.
struct ValueAxis {
    /// From one label to the next, in values and in rows.
    double Step;
    int Rows;
    /// In the highest row.
    double Highest;
};

/// The axis of round labels in even distances that leaves least room above `highest`.
ValueAxis AxisFor(double highest, int height) {
    const int spaces = std::max(height - 1, 1);
    // Labels stand closer in a low field, which has room for few of them.
    const int fewestRows = 1 + height / 7;
    const int mostRows = height < 5 ? spaces : std::max(spaces / 2, fewestRows);
    ValueAxis best{0.0, 0, HUGE_VAL};
    for (int rows = fewestRows; rows <= mostRows; ++rows) {
        const double step = RoundStep(highest * rows / spaces);
        const double reached = step * spaces / rows;
        if (reached < best.Highest) best = {step, rows, reached};
    }
    return best;
}

/// Where times and values lie among the dots of a field.
struct Scale {
    double Highest;
    double DotSeconds;
    /// Columns and rows of dots.
    int Width;
    int Height;
    /// The last column, in dots since the clock's epoch.
    double End;
};

/// It scrolls by `step` columns.
Scale ScaleOf(double highest, int width, int height, const TimeSpan& span, int step) {
    Scale scale{highest, 0.0, width, height, 0.0};
    // Whole microseconds: the difference of two large times is not exact, which would move dots between two frames.
    const double microseconds = std::round((span.To - span.From) * 1e6);
    scale.DotSeconds = std::max(microseconds, 1.0) / 1e6 / scale.Width;
    scale.End = std::floor(span.To / scale.DotSeconds / step) * step + step - 1;
    return scale;
}

/// Counted in whole dots since the clock's epoch, so that a plot keeps its shape while it scrolls.
double ColumnOf(double time, const Scale& scale) {
    return std::floor(time / scale.DotSeconds) - scale.End + scale.Width - 1;
}

int RowOf(double value, const Scale& scale) {
    const double share = (scale.Highest - value) / scale.Highest;
    return static_cast<int>(std::lround(std::fmin(std::fmax(share, 0.0), 1.0) * (scale.Height - 1)));
}

// ---- Curves ----

/// What a curve shows.
struct CurveFacts {
    const Curve* Of = nullptr;
    /// Of each sample that is shown; NaN where it was not read.
    std::vector<double> Values;
    /// Over the time shown.
    double Lowest = HUGE_VAL;
    double Highest = 0.0;
    double Sum = 0.0;
    int Count = 0;
    /// In the newest sample, unless a gap has followed it.
    std::optional<double> Latest;
};

CurveFacts FactsOf(const Curve& curve, const ShownHistory& shown) {
    CurveFacts facts;
    facts.Of = &curve;
    facts.Values.reserve(shown.Samples.size());
    const double fresh = shown.Span.To - kStaleIntervals * shown.Interval;
    for (const GpuTelemetrySample* sample : shown.Samples) {
        const double time = sample->TimestampSeconds;
        const double value = facts.Values.emplace_back(curve.Value(*sample).value_or(NAN));
        if (time < shown.Span.From || time > shown.Span.To) continue;
        const bool bRead = std::isfinite(value);
        facts.Latest = bRead && time >= fresh ? std::optional(value) : std::nullopt;
        if (!bRead) continue;
        facts.Lowest = std::min(facts.Lowest, value);
        facts.Highest = std::max(facts.Highest, value);
        facts.Sum += value;
        ++facts.Count;
    }
    return facts;
}

std::vector<CurveFacts> FactsOf(const Plot& plot, const ShownHistory& shown) {
    std::vector<CurveFacts> curves;
    for (const Curve& curve : plot.Curves) curves.push_back(FactsOf(curve, shown));
    return curves;
}

/// What the axis has to reach.
double HighestOf(const Plot& plot, const std::vector<CurveFacts>& curves, const SamplePointers& samples) {
    double highest = plot.Highest;
    for (const CurveFacts& facts : curves) highest = std::max(highest, facts.Highest);
    for (auto sample = samples.rbegin(); plot.Ceiling != nullptr && sample != samples.rend(); ++sample) {
        if (const std::optional<double> value = plot.Ceiling(**sample)) return std::max(highest, *value);
    }
    return highest;
}

double TimeBefore(const SamplePointers& samples, size_t i) {
    return samples[i]->TimestampSeconds - samples[i - 1]->TimestampSeconds;
}

/// Whether samples are missing before sample `i`.
bool IsBehindGap(const SamplePointers& samples, size_t i, double interval) {
    const double earlier = i >= 2 ? TimeBefore(samples, i - 1) : interval;
    const double later = i + 1 < samples.size() ? TimeBefore(samples, i + 1) : interval;
    return IsGap(TimeBefore(samples, i), earlier, later);
}

Trace TraceOf(const CurveFacts& facts, const ShownHistory& shown, const Scale& scale) {
    const SamplePointers& samples = shown.Samples;
    Trace trace(scale.Width);
    std::optional<Dot> previous;
    for (size_t i = 0; i < samples.size(); ++i) {
        std::optional<Dot> dot;
        if (std::isfinite(facts.Values[i])) {
            dot = Dot{ColumnOf(samples[i]->TimestampSeconds, scale), RowOf(facts.Values[i], scale)};
            trace.Touch(*dot);
            if (previous && !IsBehindGap(samples, i, shown.Interval)) trace.Connect(*previous, *dot);
        }
        previous = dot;
    }
    return trace;
}

// ---- Heading ----

int WidthOf(const std::vector<StyledText>& texts) {
    int width = 0;
    for (const StyledText& each : texts) width += ColumnsOf(each.Text);
    return width;
}

/// How much the heading says of several curves: their values, also their names, also what their lines look like.
enum class Legend { Values, Names, Lines };

std::vector<StyledText> LatestTexts(const std::vector<CurveFacts>& curves, int decimals, Legend legend) {
    std::vector<StyledText> texts;
    for (const CurveFacts& facts : curves) {
        if (facts.Of->Name == nullptr) continue;
        const std::string name = facts.Of->Name;
        const bool bNamed = !name.empty() && legend != Legend::Values;
        if (!texts.empty()) texts.push_back({bNamed ? "  " : " / ", Style::Normal});
        if (bNamed && legend == Legend::Lines) texts.push_back({facts.Of->bDashed ? "- - " : "--- ", facts.Of->Look});
        if (bNamed) texts.push_back({name + ' ', Style::Normal});
        texts.push_back(
            {facts.Latest ? Number(*facts.Latest, decimals) : kNotRead, facts.Latest ? Style::Strong : Style::Normal});
    }
    return texts;
}

/// One number of each curve, behind the word for it; empty while a curve has no value.
std::string FactText(const char* word, const std::vector<CurveFacts>& curves, int decimals,
                     double (*numberOf)(const CurveFacts& facts)) {
    std::string text;
    for (const CurveFacts& facts : curves) {
        if (facts.Of->Name == nullptr) continue;
        if (facts.Count == 0) return {};
        text += (text.empty() ? std::string(word) + ' ' : " / ") + Number(numberOf(facts), decimals);
    }
    return text;
}

std::string EnergyText(const EnergyCount& energy) {
    return energy.Seconds < 1.0 ? "" : WattHoursText(energy) + " in " + DurationText(energy.Seconds);
}

/// What was over the time shown, as much as there is room for.
std::vector<StyledText> FactTexts(const Plot& plot, const std::vector<CurveFacts>& curves, const EnergyCount& energy,
                                  int room) {
    const auto fact = [&](const char* word, double (*numberOf)(const CurveFacts& facts)) -> StyledText {
        return {FactText(word, curves, plot.Decimals, numberOf), Style::Normal};
    };
    const std::vector<StyledText> all = {fact("min", [](const CurveFacts& facts) { return facts.Lowest; }),
                                         fact("avg", [](const CurveFacts& facts) { return facts.Sum / facts.Count; }),
                                         fact("max", [](const CurveFacts& facts) { return facts.Highest; }),
                                         {plot.bWithEnergy ? EnergyText(energy) : "", Style::Normal}};
    std::vector<StyledText> shown(all.size());
    // The most useful ones find room first.
    for (const size_t i : {1U, 3U, 2U, 0U}) {
        shown[i] = all[i];
        if (WidthOfParts(shown) > room) shown[i].Text.clear();
    }
    return shown;
}

void DrawHeading(Canvas* canvas, const Area& area, const Plot& plot, const std::vector<CurveFacts>& curves,
                 const EnergyCount& energy) {
    const int end = area.X + area.Width;
    int x = canvas->Put(area.X, area.Y, plot.Title, Style::Title, area.Width);
    x = canvas->Put(x + 1, area.Y, UnitText(plot.Unit, canvas->IsUnicode()), Style::Normal, end - x - 1);
    std::vector<StyledText> latest;
    for (const Legend legend : {Legend::Lines, Legend::Names, Legend::Values}) {
        latest = LatestTexts(curves, plot.Decimals, legend);
        if (x + 1 + WidthOf(latest) <= end) break;
    }
    const int latestStart = end - WidthOf(latest);
    if (x >= latestStart) return;
    x += kColumnGap;
    const int room = latestStart - kColumnGap - x;
    PutParts(canvas, {x, area.Y, room, 1}, FactTexts(plot, curves, energy, room));
    x = latestStart;
    for (const auto& [text, look] : latest) x = canvas->Put(x, area.Y, text, look);
}

// ---- Axes ----

/// Labels in the columns before `field`, and the axis beside it.
void DrawValueAxis(Canvas* canvas, const Area& field, const ValueAxis& axis) {
    const int end = field.X - 1;
    for (int y = 0; y < field.Height; ++y) {
        canvas->PutGlyph(end, field.Y + y, canvas->IsUnicode() ? L'│' : L'|', Style::Frame);
    }
    for (int i = 0; i * axis.Rows < field.Height; ++i) {
        const int y = field.Y + field.Height - 1 - i * axis.Rows;
        const std::string text = Number(i * axis.Step, DecimalsOf(axis.Step));
        if (ColumnsOf(text) < kMargin) canvas->PutRight(end, y, text, Style::Normal);
        canvas->PutGlyph(end, y, canvas->IsUnicode() ? L'┤' : L'+', Style::Frame);
    }
}

/// How long ago a moment was: -45 s, -5 min, -1 h 30 min.
std::string AgoText(double secondsAgo, bool bInSeconds) {
    if (secondsAgo < 1.0) return "now";
    return '-' + (bInSeconds ? Number(secondsAgo, 0) + " s" : DurationText(secondsAgo));
}

/// From now to the left; each label is centered below its column where the area allows it.
void DrawTimeAxis(Canvas* canvas, const Area& area, const Area& field, const TimeSpan& span) {
    constexpr double kLongestInSeconds = 120.5;
    constexpr double kLeastColumns = 14.0;
    const double seconds = span.To - span.From;
    const double columnsPerSecond = field.Width / seconds;
    const double step = RoundTimeStep(kLeastColumns / columnsPerSecond);
    const int end = area.X + area.Width;
    // Half a column more, because the length of a span is not exact.
    for (int i = 0; i * step * columnsPerSecond < field.Width + 0.5; ++i) {
        const std::string text = AgoText(i * step, seconds < kLongestInSeconds);
        const int middle = field.X + field.Width - 1 - static_cast<int>(std::lround(i * step * columnsPerSecond));
        const int x = std::min(middle - ColumnsOf(text) / 2, end - ColumnsOf(text));
        if (x >= area.X) canvas->Put(x, area.Y + area.Height - 1, text, Style::Normal);
    }
}

/// The glyphs of a cell that is filled from below, by eighths, halves or thirds.
const wchar_t* FillingGlyphs(const Canvas& canvas) {
    if (canvas.HasBraille()) return L"\u2581\u2582\u2583\u2584\u2585\u2586\u2587\u2588";
    return canvas.IsUnicode() ? L"\u2584\u2588" : L".:|";
}

/// The part of `area` for curves, beside the heading and the axes. A small area has no axes.
Area PlaceOfField(const Area& area) {
    const int left = area.Width >= kMargin + kLeastFieldWidth ? kMargin : 0;
    const int below = area.Height >= 3 ? 1 : 0;
    return {area.X + left, area.Y + 1, area.Width - left, area.Height - 1 - below};
}

}  // namespace

ShownHistory::ShownHistory(const SampleHistory& history, const TimeSpan& span, double interval)
    : Span(span), Interval(interval) {
    std::optional<size_t> newest;
    size_t oldest = 0;
    int before = 0;
    for (size_t i = history.size(); i-- > 0 && before < 2;) {
        const double time = history[i].TimestampSeconds;
        Samples.push_back(&history[i]);
        if (time < span.From) ++before;
        if (time < span.From || time > span.To) continue;
        if (!newest) newest = i;
        oldest = i;
    }
    std::reverse(Samples.begin(), Samples.end());
    if (!newest) return;
    const EnergyCount& last = history.EnergyAt(*newest);
    const EnergyCount& first = history.EnergyAt(oldest);
    Energy = {last.Joules - first.Joules, last.Seconds - first.Seconds};
}

void DrawPlot(Canvas* canvas, const Area& area, const Plot& plot, const ShownHistory& shown) {
    if (area.Width <= 0 || area.Height <= 0) return;
    const std::vector<CurveFacts> curves = FactsOf(plot, shown);
    DrawHeading(canvas, area, plot, curves, shown.Energy);
    const Area place = PlaceOfField(area);
    if (place.Height <= 0 || !(shown.Span.To > shown.Span.From)) return;
    Field field(place, canvas->HasBraille());
    const ValueAxis axis = AxisFor(HighestOf(plot, curves, shown.Samples), place.Height);
    if (place.X > area.X) DrawValueAxis(canvas, place, axis);
    // Whole cells keep their shape; two at once, because each time most of what is drawn is sent anew.
    constexpr int kScrolledCells = 2;
    const int step = kScrolledCells * field.DotColumns() / place.Width;
    const Scale scale = ScaleOf(axis.Highest, field.DotColumns(), field.DotRows(), shown.Span, step);
    for (const CurveFacts& facts : curves) field.Draw(TraceOf(facts, shown, scale), facts.Of->Look, facts.Of->bDashed);
    field.Show(canvas);
    if (place.Y + place.Height < area.Y + area.Height) DrawTimeAxis(canvas, area, place, shown.Span);
}

void DrawBars(Canvas* canvas, const Area& area, const Plot& plot, const ShownHistory& shown) {
    if (area.Width <= 0 || area.Height <= 0 || !(shown.Span.To > shown.Span.From)) return;
    const std::wstring glyphs = FillingGlyphs(*canvas);
    const int parts = static_cast<int>(glyphs.size());
    const std::vector<CurveFacts> curves = FactsOf(plot, shown);
    const double highest = HighestOf(plot, curves, shown.Samples);
    const Scale scale = ScaleOf(highest, area.Width, area.Height * parts, shown.Span, 1);
    const Trace trace = TraceOf(curves.front(), shown, scale);
    for (int column = 0; column < scale.Width; ++column) {
        const int height = scale.Height - std::min(trace.Columns()[static_cast<size_t>(column)].First, scale.Height);
        for (int row = 0; row * parts < height; ++row) {
            const wchar_t glyph = glyphs[static_cast<size_t>(std::min(height - row * parts, parts) - 1)];
            canvas->PutGlyph(area.X + column, area.Y + area.Height - 1 - row, glyph, plot.Curves.front().Look);
        }
    }
}
