#include "view/gpu_overview.h"

#include <algorithm>
#include <string>

#include "gpu_feed/readings.h"
#include "text/reading_text.h"
#include "text/text_layout.h"

using namespace gpu_feed;

namespace {

/// The first of `count` entries that is shown when `room` of them are, with the selected one as near to the middle as
/// the ends allow.
size_t FirstShown(size_t count, size_t room, size_t selected) {
    if (count <= room) return 0;
    return std::min(selected - std::min(selected, room / 2), count - room);
}

struct Column {
    const char* Heading;
    int Width;
    ReadingId Id;
};

constexpr Column kColumns[] = {
    {"util", 5, ReadingId::GpuUtilization},    {"vram", 9, ReadingId::VramUsed},      {"power", 7, ReadingId::Power},
    {"limit", 7, ReadingId::PowerLimit},       {"temp", 5, ReadingId::Temperature},   {"fan", 5, ReadingId::Fan},
    {"graphics", 8, ReadingId::GraphicsClock}, {"memory", 9, ReadingId::MemoryClock},
};

constexpr int kShortestName = 18;
constexpr int kLongestName = 44;
constexpr int kColumnGap = 2;
/// For what limits the clocks.
constexpr int kWordsWidth = 12;

/// What the other columns leave.
int NameWidth(int width) {
    int others = kColumnGap + kWordsWidth;
    for (const Column& column : kColumns) others += kColumnGap + column.Width;
    return std::clamp(width - others, kShortestName, kLongestName);
}

void DrawReadings(Canvas* canvas, const Area& area, const GpuOnPage& page) {
    int x = area.X;
    for (const Column& column : kColumns) {
        x += kColumnGap + column.Width;
        if (x > area.X + area.Width) return;
        canvas->PutRight(x, area.Y, ReadingText(column.Id, page.Now));
    }
    x += kColumnGap;
    DrawLimits(canvas, {x, area.Y, area.X + area.Width - x, 1}, page.Now);
}

void DrawTableLine(Canvas* canvas, const Area& area, const GpuOnPage& page, bool bSelected) {
    const int nameWidth = NameWidth(area.Width);
    canvas->Put(area.X, area.Y, GpuTitle(page.Gpu->Device), bSelected ? Style::Selected : Style::Normal, nameWidth);
    const Area rest = {area.X + nameWidth, area.Y, area.Width - nameWidth, 1};
    if (page.bSilent) {
        canvas->Put(rest.X + kColumnGap, rest.Y, page.State, Style::Alarm, rest.Width - kColumnGap);
    } else {
        DrawReadings(canvas, rest, page);
    }
}

/// How many of all GPUs are shown, where that is not all.
std::string ShownText(size_t shown, size_t count) {
    return shown < count ? std::to_string(shown) + " of " + std::to_string(count) + " GPUs" : "";
}

void DrawTableHeading(Canvas* canvas, const Area& area, const std::string& shown) {
    canvas->Put(area.X, area.Y, shown, Style::Dim);
    int x = area.X + NameWidth(area.Width);
    for (const Column& column : kColumns) {
        x += kColumnGap + column.Width;
        if (x > area.X + area.Width) return;
        canvas->PutRight(x, area.Y, column.Heading, Style::Dim);
    }
    x += kColumnGap;
    canvas->Put(x, area.Y, "limited by", Style::Dim, area.X + area.Width - x);
}

/// A GPU in the strip: its index and how busy it is, or that this is not known.
std::string StripWord(const GpuOnPage& page) {
    const std::string busy = page.bSilent ? "!" : ReadingNumber(ReadingId::GpuUtilization, page.Now);
    return std::to_string(page.Gpu->Device.Index) + ':' + busy;
}

}  // namespace

void DrawGpuTable(Canvas* canvas, const Area& area, const std::vector<GpuOnPage>& pages, size_t selected) {
    const size_t room = std::min(static_cast<size_t>(std::max(area.Height - 1, 0)), pages.size());
    const size_t first = FirstShown(pages.size(), room, selected);
    DrawTableHeading(canvas, area, ShownText(room, pages.size()));
    for (size_t i = 0; i < room; ++i) {
        const int y = area.Y + 1 + static_cast<int>(i);
        DrawTableLine(canvas, {area.X, y, area.Width, 1}, pages[first + i], first + i == selected);
    }
}

void DrawGpuStrip(Canvas* canvas, const Area& area, const std::vector<GpuOnPage>& pages, size_t selected) {
    constexpr int kWordWidth = 7;
    constexpr int kShownWidth = 14;
    int x = canvas->Put(area.X, area.Y, "GPU util % ", Style::Dim);
    const int end = area.X + area.Width - kShownWidth;
    const size_t room = std::min(static_cast<size_t>(std::max((end - x) / kWordWidth, 1)), pages.size());
    const size_t first = FirstShown(pages.size(), room, selected);
    for (size_t i = first; i < first + room; ++i, x += kWordWidth) {
        const Style look = pages[i].bSilent ? Style::Alarm : Style::Normal;
        canvas->Put(x, area.Y, StripWord(pages[i]), i == selected ? Style::Selected : look, kWordWidth - 1);
    }
    canvas->PutRight(area.X + area.Width, area.Y, ShownText(room, pages.size()), Style::Dim);
}
