#include "view/gpu_overview.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>

#include "gpu_feed/reading_text.h"
#include "gpu_feed/readings.h"
#include "view/cut_text.h"
#include "view/limits.h"

using namespace gpu_feed;

namespace {

/// The first entry that is shown when `room` of `count` are: the selected one is near the middle.
size_t FirstShown(size_t count, size_t room, size_t selected) {
    if (count <= room) return 0;
    return std::min(selected - std::min(selected, room / 2), count - room);
}

struct Column {
    const char* Heading;
    int Width;
    ReadingId Id;
    /// Drawn behind the reading in a table with plots.
    std::optional<PlotId> Plot = std::nullopt;
};

constexpr Column kColumns[] = {
    {"util", 5, ReadingId::GpuUtilization},    {"vram", 9, ReadingId::VramUsed},      {"power", 7, ReadingId::Power},
    {"limit", 7, ReadingId::PowerLimit},       {"temp", 5, ReadingId::Temperature},   {"fan", 5, ReadingId::Fan},
    {"graphics", 8, ReadingId::GraphicsClock}, {"memory", 9, ReadingId::MemoryClock},
};
constexpr Column kColumnsWithPlots[] = {
    {"util", 5, ReadingId::GpuUtilization, PlotId::Utilization},
    {"power", 7, ReadingId::Power, PlotId::Power},
    {"vram", 9, ReadingId::VramUsed},
    {"temp", 5, ReadingId::Temperature},
    {"limit", 7, ReadingId::PowerLimit},
    {"fan", 5, ReadingId::Fan},
    {"graphics", 8, ReadingId::GraphicsClock},
    {"memory", 9, ReadingId::MemoryClock},
};
constexpr int kPlotCountInTable = 2;
/// Columns are left out where plots would be narrower than this part of the screen.
constexpr int kPlotShare = 8;

constexpr int kShortestName = 18;
constexpr int kLongestName = 44;
/// An index of two digits and 16 letters. Names are not cut before they are as short as this.
constexpr int kLongestShortName = 24;
/// For the words that say what limits the clocks: "application clocks" and the mark of a cut list.
constexpr int kWordsWidth = 19;

/// What a table shows of each GPU.
struct Table {
    std::vector<Column> Columns;
    int NameWidth;
    /// Of the GPU's lines.
    int Rows = 1;
    /// 0 in a table without plots.
    int PlotWidth = 0;
    const PlotView* View = nullptr;
};

int WidthOf(const std::vector<Column>& columns) {
    int width = 0;
    for (const Column& column : columns) width += kColumnGap + column.Width;
    return width;
}

/// The columns that the longest of the short names takes.
int ShortNameWidth(const std::vector<GpuSummary>& pages) {
    int width = kShortestName;
    for (const GpuSummary& page : pages) {
        width = std::max(width, ColumnsOf(ShortGpuTitle(page.Gpu->Device, kLongestShortName)));
    }
    return std::min(width, kLongestShortName);
}

Table PlainTable(int width, const std::vector<GpuSummary>& pages) {
    Table table = {{std::begin(kColumns), std::end(kColumns)}, ShortNameWidth(pages)};
    const auto roomForWords = [&] { return width - table.NameWidth - WidthOf(table.Columns) - kColumnGap; };
    // What limits the clocks is more useful than the memory clock.
    if (roomForWords() < kWordsWidth) table.Columns.pop_back();
    table.NameWidth = std::clamp(table.NameWidth + roomForWords() - kWordsWidth, table.NameWidth, kLongestName);
    return table;
}

Table TableWithPlots(int width, const std::vector<GpuSummary>& pages, int rows, const PlotView& view) {
    Table table = {{std::begin(kColumnsWithPlots), std::end(kColumnsWithPlots)}, ShortNameWidth(pages), rows, 0, &view};
    const auto plotWidth = [&] { return (width - table.NameWidth - WidthOf(table.Columns)) / kPlotCountInTable - 1; };
    while (table.Columns.size() > kPlotCountInTable && plotWidth() < width / kPlotShare) table.Columns.pop_back();
    table.PlotWidth = plotWidth();
    return table;
}

/// Calls `draw` for each column that finds room, with the column of the canvas behind it. Result: where the words about
/// limits begin.
template <typename Draw>
int ForEachColumn(const Table& table, const Area& area, const Draw& draw) {
    int x = area.X + table.NameWidth;
    for (const Column& column : table.Columns) {
        x += kColumnGap + column.Width;
        if (x > area.X + area.Width) break;
        draw(column, x);
        if (column.Plot) x += 1 + table.PlotWidth;
    }
    return x + kColumnGap;
}

void DrawReadings(Canvas* canvas, const Area& area, const GpuSummary& page, const Table& table) {
    const int x = ForEachColumn(table, area, [&](const Column& column, int end) {
        canvas->PutRight(end, area.Y, ReadingText(column.Id, page.Now, canvas->IsUnicode()));
        if (column.Plot) {
            DrawSmallPlot(canvas, {end + 1, area.Y, table.PlotWidth, area.Height}, *column.Plot, *page.Gpu,
                          *table.View);
        }
    });
    const int rest = area.X + area.Width - x;
    if (table.View == nullptr && rest > 0) {
        DrawLimits(canvas, {x, area.Y, rest, 1}, page.Now);
    } else if (table.Rows > 1 && page.Now.PerformanceLimitReasons != 0) {
        DrawLimits(canvas, {area.X, area.Y + 1, table.NameWidth, 1}, page.Now);
    }
}

void DrawGpu(Canvas* canvas, const Area& area, const GpuSummary& page, const Table& table, bool bSelected) {
    const std::string name = ShortGpuTitle(page.Gpu->Device, table.NameWidth);
    PutCut(canvas, {area.X, area.Y, table.NameWidth, 1}, name, bSelected ? Style::Selected : Style::Normal);
    if (page.IsChanged()) canvas->PutGlyph(area.X + table.NameWidth, area.Y, L'*', Style::Warning);
    if (page.bSilent) {
        const int x = area.X + table.NameWidth + kColumnGap;
        PutCut(canvas, {x, area.Y, area.X + area.Width - x, 1}, page.State, Style::Alarm);
    } else {
        DrawReadings(canvas, area, page, table);
    }
}

/// How many of the GPUs are shown; empty when all are.
std::string ShownText(size_t shown, size_t count) {
    return shown < count ? std::to_string(shown) + " of " + std::to_string(count) + " GPUs" : "";
}

void DrawHeading(Canvas* canvas, const Area& area, const std::string& shown, const Table& table) {
    canvas->Put(area.X, area.Y, shown, Style::Normal);
    const int x = ForEachColumn(table, area, [&](const Column& column, int end) {
        canvas->PutRight(end, area.Y, column.Heading, Style::Heading);
    });
    if (table.View == nullptr) PutCut(canvas, {x, area.Y, area.X + area.Width - x, 1}, "limited by", Style::Heading);
}

void DrawTable(Canvas* canvas, const Area& area, const std::vector<GpuSummary>& pages, size_t selected,
               const Table& table) {
    const size_t room = std::min(static_cast<size_t>(std::max(area.Height - 1, 0) / table.Rows), pages.size());
    const size_t first = FirstShown(pages.size(), room, selected);
    DrawHeading(canvas, {area.X, area.Y, area.Width, 1}, ShownText(room, pages.size()), table);
    // Plots of several rows do not touch those of the next GPU.
    const int height = std::max(table.Rows - 1, 1);
    for (size_t i = 0; i < room; ++i) {
        const int y = area.Y + 1 + static_cast<int>(i) * table.Rows;
        DrawGpu(canvas, {area.X, y, area.Width, height}, pages[first + i], table, first + i == selected);
    }
}

/// A GPU in the strip: its index and its utilization, or an exclamation mark when it gives no data.
std::string StripWord(const GpuSummary& page) {
    const std::string busy = page.bSilent ? "!" : ReadingNumber(ReadingId::GpuUtilization, page.Now);
    return std::to_string(page.Gpu->Device.Index) + ':' + busy;
}

}  // namespace

void DrawGpuTable(Canvas* canvas, const Area& area, const std::vector<GpuSummary>& pages, size_t selected) {
    DrawTable(canvas, area, pages, selected, PlainTable(area.Width, pages));
}

void DrawGpuPlots(Canvas* canvas, const Area& area, const std::vector<GpuSummary>& pages, size_t selected, int rows,
                  const PlotView& view) {
    DrawTable(canvas, area, pages, selected, TableWithPlots(area.Width, pages, rows, view));
}

void DrawGpuStrip(Canvas* canvas, const Area& area, const std::vector<GpuSummary>& pages, size_t selected) {
    constexpr int kWordWidth = 7;
    constexpr int kShownWidth = 14;
    int x = canvas->Put(area.X, area.Y, "GPU util % ", Style::Normal);
    const int end = area.X + area.Width - kShownWidth;
    const size_t room = std::min(static_cast<size_t>(std::max((end - x) / kWordWidth, 1)), pages.size());
    const size_t first = FirstShown(pages.size(), room, selected);
    for (size_t i = first; i < first + room; ++i, x += kWordWidth) {
        const Style changed = pages[i].IsChanged() ? Style::Warning : Style::Normal;
        const Style look = pages[i].bSilent ? Style::Alarm : changed;
        canvas->Put(x, area.Y, StripWord(pages[i]), i == selected ? Style::Selected : look, kWordWidth - 1);
    }
    canvas->PutRight(area.X + area.Width, area.Y, ShownText(room, pages.size()), Style::Normal);
}
