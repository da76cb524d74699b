#include "plot_columns.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "gpu_feed/plotting.h"

namespace gpu_panel {

namespace {

/// A history's columns are never more than its samples. With this room, dropped ones are removed seldom.
constexpr size_t kRoom = gpu_feed::SampleHistory::kMostSamples * 5 / 4;

constexpr float kNotRead = std::numeric_limits<float>::quiet_NaN();

float ValueOf(const Curve& curve, const GpuTelemetrySample& sample) {
    const std::optional<double> value = PlottedValue(curve, sample);
    return value ? static_cast<float>(*value) : kNotRead;
}

bool IsRead(const PlotColumns::Range& range) {
    return !std::isnan(range.Lowest);
}

template <typename Element>
void RemoveFirst(size_t count, std::vector<Element>* list) {
    list->erase(list->begin(), list->begin() + static_cast<std::ptrdiff_t>(count));
}

}  // namespace

PlotColumns::PlotColumns() {
    Columns.reserve(kRoom);
    Gaps.reserve(kRoom);
    Reasons.reserve(kRoom);
    for (auto& values : Values) values.reserve(kRoom);
}

int64_t PlotColumns::ColumnOf(double moment) const {
    return static_cast<int64_t>(std::floor(moment / SecondsPerColumn));
}

size_t PlotColumns::Find(int64_t column) const {
    const auto from = Columns.begin() + static_cast<std::ptrdiff_t>(First);
    return static_cast<size_t>(std::lower_bound(from, Columns.end(), column) - Columns.begin());
}

void PlotColumns::Update(const gpu_feed::SampleHistory& history, double interval) {
    if (history.empty() || history.back().TimestampSeconds < Newest) Clear();
    if (!history.empty()) DropBefore(ColumnOf(history.front().TimestampSeconds));
    size_t next = history.size();
    while (next > 0 && history[next - 1].TimestampSeconds > Newest) --next;
    for (; next < history.size(); ++next) Append(history[next], interval);
}

void PlotColumns::Update(const gpu_feed::SampleHistory& history, double interval, double columnSeconds) {
    if (columnSeconds != SecondsPerColumn) Clear();
    SecondsPerColumn = columnSeconds;
    Update(history, interval);
}

void PlotColumns::Clear() {
    Newest = Before = EarlierBefore = 0.0;
    First = 0;
    Columns.clear();
    Gaps.clear();
    Reasons.clear();
    for (auto& values : Values) values.clear();
    Read.fill(0);
    WithReasons = 0;
}

void PlotColumns::Append(const GpuTelemetrySample& sample, double interval) {
    const bool bFirst = Begin() == End();
    const double since = bFirst ? 0.0 : sample.TimestampSeconds - Newest;
    // Only now is it known how far apart samples are since the newest one so far.
    if (!bFirst && bNewestOpened && Before > 0.0) {
        Gaps.back() = gpu_feed::IsGap(Before, EarlierBefore > 0.0 ? EarlierBefore : interval, since) ? 1 : 0;
    }
    const int64_t column = ColumnOf(sample.TimestampSeconds);
    bNewestOpened = bFirst || column != Columns.back();
    if (bNewestOpened) {
        OpenColumn(column, !bFirst && gpu_feed::IsGap(since, Before > 0.0 ? Before : interval, interval));
    }
    EarlierBefore = Before;
    Before = since;
    Newest = sample.TimestampSeconds;

    for (size_t i = 0; i < kCurves.size(); ++i) {
        const float value = ValueOf(kCurves[i], sample);
        Range& range = Values[i].back();
        if (std::isnan(value)) continue;
        if (!IsRead(range)) ++Read[i];
        range = {std::fmin(range.Lowest, value), std::fmax(range.Highest, value)};
    }
    if (Reasons.back() == 0 && sample.PerformanceLimitReasons != 0) ++WithReasons;
    Reasons.back() |= sample.PerformanceLimitReasons;
}

void PlotColumns::OpenColumn(int64_t column, bool bBehindGap) {
    if (Columns.size() == kRoom) {
        RemoveFirst(First, &Columns);
        RemoveFirst(First, &Gaps);
        RemoveFirst(First, &Reasons);
        for (auto& values : Values) RemoveFirst(First, &values);
        First = 0;
    }
    Columns.push_back(column);
    Gaps.push_back(bBehindGap ? 1 : 0);
    Reasons.push_back(0);
    for (auto& values : Values) values.push_back({kNotRead, kNotRead});
}

void PlotColumns::DropBefore(int64_t column) {
    for (; First < Columns.size() && Columns[First] < column; ++First) {
        for (size_t i = 0; i < kCurves.size(); ++i) {
            if (IsRead(Values[i][First])) --Read[i];
        }
        if (Reasons[First] != 0) --WithReasons;
    }
}

}  // namespace gpu_panel
