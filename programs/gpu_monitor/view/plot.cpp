#include "view/plot.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <utility>

#include "text/text_layout.h"

namespace {

/// At least so many columns are left of the axis, so that the axes of plots above one another are aligned.
constexpr int kLabelWidth = 5;
constexpr int kLeastFieldWidth = 10;
constexpr double kGapFactor = 2.5;
/// Values that are older than so many intervals are not shown as current.
constexpr double kStaleIntervals = 4.0;

/// A place among the dots of a field of cells, or outside of it.
struct Dot {
    double Column;
    int Row;
};

/// The rows from `First` to `Last`; empty where `First` is behind `Last`.
struct RowRange {
    int First = INT_MAX;
    int Last = INT_MIN;
};

/// The dots of one curve. Each column has a range of them, so that the peaks of all its samples stay visible.
class Trace {
public:
    explicit Trace(int columns) : Ranges(static_cast<size_t>(columns)) {}

    const std::vector<RowRange>& Columns() const { return Ranges; }
    void Touch(const Dot& dot);
    void Connect(const Dot& from, const Dot& to);

private:
    double Width() const { return static_cast<double>(Ranges.size()); }

    std::vector<RowRange> Ranges;
};

void Trace::Touch(const Dot& dot) {
    if (dot.Column < 0.0 || dot.Column >= Width()) return;
    RowRange& range = Ranges[static_cast<size_t>(dot.Column)];
    range.First = std::min(range.First, dot.Row);
    range.Last = std::max(range.Last, dot.Row);
}

int RowBetween(const Dot& from, const Dot& to, double column) {
    const double share = (column - from.Column) / (to.Column - from.Column);
    return from.Row + static_cast<int>(std::lround(share * (to.Row - from.Row)));
}

void Trace::Connect(const Dot& from, const Dot& to) {
    const int first = static_cast<int>(std::clamp(from.Column, -1.0, Width()));
    const int last = static_cast<int>(std::clamp(to.Column, -1.0, Width()));
    for (int column = first; column < last; ++column) {
        const int row = RowBetween(from, to, column);
        const int rise = RowBetween(from, to, column + 1) - row;
        Touch({static_cast<double>(column), row});
        // Neighbours share a steep rise, each up to the middle; where it is one row, their corners connect.
        if (rise == 0) continue;
        const int middle = row + rise / 2;
        Touch({static_cast<double>(column), middle});
        Touch({column + 1.0, middle + (rise > 0 ? 1 : -1)});
    }
}

/// The cells that curves are drawn in, each divided into dots.
class Field {
public:
    Field(const Area& place, bool bWithBraille);

    int DotColumns() const { return Place.Width * DotsAcross; }
    int DotRows() const { return Place.Height * DotsDown; }
    void Draw(const Trace& trace, Style look);
    void Show(Canvas* canvas) const;

private:
    struct DottedCell {
        unsigned int Dots = 0;
        Style Look = Style::Normal;
    };

    void SetDot(int column, int row, Style look);
    wchar_t Glyph(unsigned int dots) const;

    Area Place;
    bool bBraille;
    int DotsAcross;
    int DotsDown;
    std::vector<DottedCell> Cells;
};

Field::Field(const Area& place, bool bWithBraille)
    : Place(place),
      bBraille(bWithBraille),
      DotsAcross(bWithBraille ? 2 : 1),
      DotsDown(bWithBraille ? 4 : 3),
      Cells(static_cast<size_t>(place.Width) * static_cast<size_t>(place.Height)) {}

void Field::SetDot(int column, int row, Style look) {
    // In Unicode's block of braille patterns, the lowest row has the highest bits.
    constexpr unsigned int kDots[4][2] = {{0x01, 0x08}, {0x02, 0x10}, {0x04, 0x20}, {0x40, 0x80}};
    const int place = row / DotsDown * Place.Width + column / DotsAcross;
    DottedCell& cell = Cells[static_cast<size_t>(place)];
    cell.Dots |= kDots[row % DotsDown][column % DotsAcross];
    cell.Look = look;
}

void Field::Draw(const Trace& trace, Style look) {
    for (int column = 0; column < DotColumns(); ++column) {
        const RowRange& range = trace.Columns()[static_cast<size_t>(column)];
        for (int row = range.First; row <= range.Last; ++row) SetDot(column, row, look);
    }
}

wchar_t Field::Glyph(unsigned int dots) const {
    constexpr wchar_t kFirstBraillePattern = 0x2800;
    // By height, the lowest bit at the top.
    constexpr const wchar_t* kAscii = L" '-'.:.|";
    return bBraille ? static_cast<wchar_t>(kFirstBraillePattern + static_cast<wchar_t>(dots)) : kAscii[dots];
}

void Field::Show(Canvas* canvas) const {
    for (int i = 0; i < Place.Width * Place.Height; ++i) {
        const DottedCell& cell = Cells[static_cast<size_t>(i)];
        if (cell.Dots == 0) continue;
        canvas->PutGlyph(Place.X + i % Place.Width, Place.Y + i / Place.Width, Glyph(cell.Dots), cell.Look);
    }
}

/// Where times and values lie among the dots of a field.
struct Scale {
    double Lowest;
    double Highest;
    double DotSeconds;
    /// Columns and rows of dots.
    int Width;
    int Height;
    /// `To` of the span, in dots since the clock's epoch.
    double End;
};

/// Above `Lowest` in any case, because their distance is divided by.
double HighestOf(const Plot& plot) {
    return plot.Highest > plot.Lowest ? plot.Highest : plot.Lowest + 1.0;
}

Scale ScaleOf(const Plot& plot, const Field& field, const TimeSpan& span) {
    Scale scale{plot.Lowest, HighestOf(plot), 0.0, field.DotColumns(), field.DotRows(), 0.0};
    // Whole microseconds: the difference of two large times is not exact, which would move dots between two frames.
    const double microseconds = std::round((span.To - span.From) * 1e6);
    scale.DotSeconds = std::max(microseconds, 1.0) / 1e6 / scale.Width;
    scale.End = std::floor(span.To / scale.DotSeconds);
    return scale;
}

/// Counted in whole dots since the clock's epoch, so that a plot keeps its shape while it scrolls.
double ColumnOf(double time, const Scale& scale) {
    return std::floor(time / scale.DotSeconds) - scale.End + scale.Width - 1;
}

int RowOf(double value, const Scale& scale) {
    const double share = (scale.Highest - value) / (scale.Highest - scale.Lowest);
    return static_cast<int>(std::lround(std::fmin(std::fmax(share, 0.0), 1.0) * (scale.Height - 1)));
}

using Samples = std::vector<const GpuTelemetrySample*>;

/// The samples that took place, oldest first: those of the span and two before it. A line enters the span from the
/// second of these, unless the first one shows that there is a gap.
Samples SamplesFor(const TimeSpan& span, const gpu_feed::SampleHistory& all) {
    Samples samples;
    int before = 0;
    for (auto sample = all.rbegin(); sample != all.rend() && before < 2; ++sample) {
        if (sample->TimestampSeconds == 0.0) continue;
        samples.push_back(&*sample);
        if (sample->TimestampSeconds < span.From) ++before;
    }
    std::reverse(samples.begin(), samples.end());
    return samples;
}

std::optional<double> ValueOf(const Curve& curve, const GpuTelemetrySample& sample) {
    const std::optional<double> value = curve.Value(sample);
    return value && std::isfinite(*value) ? value : std::nullopt;
}

double TimeBefore(const Samples& samples, size_t i) {
    return samples[i]->TimestampSeconds - samples[i - 1]->TimestampSeconds;
}

/// Whether samples are missing before sample `i`. The times around it decide, because the interval may have changed.
bool IsBehindGap(const Samples& samples, size_t i, double interval) {
    const double earlier = i >= 2 ? TimeBefore(samples, i - 1) : interval;
    const double later = i + 1 < samples.size() ? TimeBefore(samples, i + 1) : interval;
    return TimeBefore(samples, i) > kGapFactor * std::max(earlier, later);
}

Trace TraceOf(const Curve& curve, const Samples& samples, const Scale& scale, double interval) {
    Trace trace(scale.Width);
    std::optional<Dot> previous;
    for (size_t i = 0; i < samples.size(); ++i) {
        const std::optional<double> value = ValueOf(curve, *samples[i]);
        std::optional<Dot> dot;
        if (value) dot = Dot{ColumnOf(samples[i]->TimestampSeconds, scale), RowOf(*value, scale)};
        if (dot) trace.Touch(*dot);
        if (dot && previous && !IsBehindGap(samples, i, interval)) trace.Connect(*previous, *dot);
        previous = dot;
    }
    return trace;
}

/// The value of the curve on top in the newest sample of the span, unless a gap has followed it.
std::optional<double> LatestValue(const Plot& plot, const Samples& samples, const TimeSpan& span, double interval) {
    const auto newest = std::find_if(samples.rbegin(), samples.rend(), [&span](const GpuTelemetrySample* sample) {
        return sample->TimestampSeconds <= span.To;
    });
    const double oldest = std::max(span.From, span.To - kStaleIntervals * interval);
    const bool bInSpan = newest != samples.rend() && (*newest)->TimestampSeconds >= oldest;
    return bInSpan && !plot.Curves.empty() ? ValueOf(plot.Curves.back(), **newest) : std::nullopt;
}

void DrawHeading(Canvas* canvas, const Area& area, const Plot& plot, const std::optional<double>& latest) {
    const int end = area.X + area.Width;
    int x = canvas->Put(area.X, area.Y, plot.Title, Style::Title, area.Width);
    if (!plot.Unit.empty()) x = canvas->Put(x + 1, area.Y, plot.Unit, Style::Dim, end - x - 1);
    const std::string value = latest ? Number(*latest, plot.Decimals) : kNotRead;
    if (x + 1 + ColumnsOf(value) > end) return;
    canvas->PutRight(end, area.Y, value, latest ? Style::Strong : Style::Dim);
}

struct ValueLabel {
    /// In cells below the upper end of the field.
    int Row;
    std::string Text;
};

/// From the highest to the lowest; a higher field has more of them.
std::vector<ValueLabel> ValueLabels(const Plot& plot, const Scale& scale, int height) {
    const int parts = height >= 9 ? 4 : height >= 5 ? 2 : 1;
    std::vector<ValueLabel> labels;
    for (int i = 0; i <= parts; ++i) {
        const double value = scale.Highest - (scale.Highest - scale.Lowest) * i / parts;
        const int row = RowOf(value, scale) * height / scale.Height;
        if (labels.empty() || labels.back().Row < row) labels.push_back({row, Number(value, plot.Decimals)});
    }
    return labels;
}

/// Labels that end at column `end`, and the axis there.
void DrawValueAxis(Canvas* canvas, const Area& field, const std::vector<ValueLabel>& labels) {
    const int end = field.X - 1;
    for (int y = 0; y < field.Height; ++y) {
        canvas->PutGlyph(end, field.Y + y, canvas->IsUnicode() ? L'│' : L'|', Style::Dim);
    }
    for (const ValueLabel& label : labels) {
        canvas->PutRight(end, field.Y + label.Row, label.Text, Style::Dim);
        canvas->PutGlyph(end, field.Y + label.Row, canvas->IsUnicode() ? L'┤' : L'+', Style::Dim);
    }
}

/// The shortest of the usual steps, in seconds, that leaves room for labels.
double TimeStep(double columnsPerSecond) {
    constexpr double kSteps[] = {1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 10800, 21600, 43200};
    constexpr double kLeastColumns = 14.0;
    const auto* const step = std::find_if(std::begin(kSteps), std::end(kSteps), [columnsPerSecond](double seconds) {
        return seconds * columnsPerSecond >= kLeastColumns;
    });
    return step != std::end(kSteps) ? *step : kLeastColumns / columnsPerSecond;
}

/// How long ago a moment was: -45 s, -5 min, -1 h 30 min.
std::string AgoText(double secondsAgo, bool bInSeconds) {
    constexpr int64_t kMinute = 60;
    constexpr int64_t kHour = 3600;
    const auto seconds = static_cast<int64_t>(secondsAgo);
    if (seconds == 0) return "now";
    if (bInSeconds) return '-' + std::to_string(seconds) + " s";
    const std::pair<int64_t, const char*> parts[] = {
        {seconds / kHour, " h"}, {seconds % kHour / kMinute, " min"}, {seconds % kMinute, " s"}};
    std::string text;
    for (const auto& [count, unit] : parts) {
        if (count > 0) text += (text.empty() ? "-" : " ") + std::to_string(count) + unit;
    }
    return text;
}

/// From now to the left; each label is centered below its column where the area allows it.
void DrawTimeAxis(Canvas* canvas, const Area& area, const Area& field, const TimeSpan& span) {
    constexpr double kLongestInSeconds = 120.5;
    const double seconds = span.To - span.From;
    const double columnsPerSecond = field.Width / seconds;
    const double step = TimeStep(columnsPerSecond);
    const int end = area.X + area.Width;
    // Half a column more, because the length of a span is not exact.
    for (int i = 0; i * step * columnsPerSecond < field.Width + 0.5; ++i) {
        const std::string text = AgoText(i * step, seconds < kLongestInSeconds);
        const int middle = field.X + field.Width - 1 - static_cast<int>(std::lround(i * step * columnsPerSecond));
        const int x = std::min(middle - ColumnsOf(text) / 2, end - ColumnsOf(text));
        if (x >= area.X) canvas->Put(x, area.Y + area.Height - 1, text, Style::Dim);
    }
}

/// Columns for the labels of the vertical axis and the axis itself.
int MarginOf(const Plot& plot) {
    const int lowest = ColumnsOf(Number(plot.Lowest, plot.Decimals));
    const int highest = ColumnsOf(Number(HighestOf(plot), plot.Decimals));
    return std::max({kLabelWidth, lowest, highest}) + 1;
}

/// The part of `area` for curves, beside the heading, the time axis and `margin` columns. A small area has no axes.
Area PlaceOfField(const Area& area, int margin) {
    const int left = area.Width >= margin + kLeastFieldWidth ? margin : 0;
    const int below = area.Height >= 3 ? 1 : 0;
    return {area.X + left, area.Y + 1, area.Width - left, area.Height - 1 - below};
}

}  // namespace

void DrawPlot(Canvas* canvas, const Area& area, const Plot& plot, const gpu_feed::SampleHistory& samples,
              const TimeSpan& span, double interval) {
    if (area.Width <= 0 || area.Height <= 0) return;
    const Samples shown = SamplesFor(span, samples);
    DrawHeading(canvas, area, plot, LatestValue(plot, shown, span, interval));

    const Area place = PlaceOfField(area, MarginOf(plot));
    if (place.Height <= 0 || !(span.To > span.From)) return;
    Field field(place, canvas->HasBraille());
    const Scale scale = ScaleOf(plot, field, span);
    if (place.X > area.X) DrawValueAxis(canvas, place, ValueLabels(plot, scale, place.Height));
    for (const Curve& curve : plot.Curves) field.Draw(TraceOf(curve, shown, scale, interval), curve.Look);
    field.Show(canvas);
    if (place.Y + place.Height < area.Y + area.Height) DrawTimeAxis(canvas, area, place, span);
}
