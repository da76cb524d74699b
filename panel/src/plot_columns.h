#ifndef GPU_PANEL_PLOT_COLUMNS_H
#define GPU_PANEL_PLOT_COLUMNS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "gpu_feed/sample_history.h"
#include "plot_table.h"

namespace gpu_panel {

/// The history of a GPU as plots of one scale draw it: for each column of pixels that has samples, the lowest and the
/// highest value of each curve. Columns are counted from the clock's epoch, so that scrolling changes none of them, and
/// a new sample changes only the last one.
///
/// Values are in the units of the plots, NaN where none was read.
class PlotColumns {
public:
    struct Range {
        float Lowest;
        float Highest;
    };

    PlotColumns();

    /// Takes what is new in `history`, and drops what has left it. `interval`: the seconds between two samples now.
    void Update(const gpu_feed::SampleHistory& history, double interval);
    /// As `Update`, with columns of so many seconds from now on.
    void Update(const gpu_feed::SampleHistory& history, double interval, double columnSeconds);

    double ColumnSeconds() const { return SecondsPerColumn; }
    int64_t ColumnOf(double moment) const;

    /// Those that have samples, oldest first: they are numbered from `Begin` to `End`.
    size_t Begin() const { return First; }
    size_t End() const { return Columns.size(); }
    /// The first one at or behind a column.
    size_t Find(int64_t column) const;
    int64_t ColumnAt(size_t i) const { return Columns[i]; }
    /// Whether samples are missing before it.
    bool IsBehindGap(size_t i) const { return Gaps[i] != 0; }
    const Range& ValuesAt(size_t curve, size_t i) const { return Values[curve][i]; }
    /// All limiting reasons of its samples.
    uint64_t ReasonsAt(size_t i) const { return Reasons[i]; }

    /// Whether any column has a value of this curve.
    bool HasValues(size_t curve) const { return Read[curve] > 0; }
    bool HasReasons() const { return WithReasons > 0; }

private:
    void Clear();
    void Append(const GpuTelemetrySample& sample, double interval);
    void OpenColumn(int64_t column, bool bBehindGap);
    void DropBefore(int64_t column);

    double SecondsPerColumn = 1.0;
    /// Of the newest sample, from the one before it to it, and from the one before that.
    double Newest = 0.0;
    double Before = 0.0;
    double EarlierBefore = 0.0;
    bool bNewestOpened = false;

    /// Where the dropped columns end. They are removed when there is no room for more.
    size_t First = 0;
    std::vector<int64_t> Columns;
    std::vector<uint8_t> Gaps;
    std::vector<uint64_t> Reasons;
    std::array<std::vector<Range>, kCurves.size()> Values;
    /// How many columns have a value of each curve, and how many have a limiting reason.
    std::array<size_t, kCurves.size()> Read{};
    size_t WithReasons = 0;
};

}  // namespace gpu_panel

#endif  // GPU_PANEL_PLOT_COLUMNS_H
