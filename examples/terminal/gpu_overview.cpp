#include "gpu_overview.h"

#include <algorithm>
#include <string>

#include "text_format.h"
#include "text_layout.h"

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
    /// Of the reading that it shows.
    const char* Key;
};

constexpr Column kColumns[] = {
    {"util", 5, "gpu_utilization_percent"}, {"vram", 9, "vram_used_bytes"},    {"power", 7, "power_watts"},
    {"limit", 7, "power_limit_watts"},      {"temp", 5, "temperature_c"},      {"fan", 5, "fan_percent"},
    {"graphics", 8, "graphics_clock_mhz"},  {"memory", 9, "memory_clock_mhz"},
};

constexpr int kNameWidth = 44;
constexpr int kColumnGap = 2;

void DrawTableLine(Canvas* canvas, const Area& area, const GpuOnPage& page, bool bSelected) {
    const Style look = bSelected ? Style::Selected : Style::Normal;
    canvas->Put(area.X, area.Y, GpuTitle(page.Gpu.Device), look, kNameWidth);
    int x = area.X + kNameWidth;
    for (const Column& column : kColumns) {
        x += kColumnGap + column.Width;
        if (x > area.X + area.Width) return;
        canvas->PutRight(x, area.Y, ReadingText(column.Key, page.Now));
    }
    x += kColumnGap;
    const Style wordLook = page.bSilent || IsInDanger(page.Now) ? Style::Alarm : Style::Normal;
    const std::string words = page.bSilent ? page.State : LimitText(page.Now);
    canvas->Put(x, area.Y, words, wordLook, area.X + area.Width - x);
}

void DrawTableHeading(Canvas* canvas, const Area& area) {
    int x = area.X + kNameWidth;
    for (const Column& column : kColumns) {
        x += kColumnGap + column.Width;
        if (x > area.X + area.Width) return;
        canvas->PutRight(x, area.Y, column.Heading, Style::Dim);
    }
    x += kColumnGap;
    canvas->Put(x, area.Y, "limited by", Style::Dim, area.X + area.Width - x);
}

/// A GPU in the strip: its index and how busy it is.
std::string StripWord(const GpuOnPage& page) {
    return std::to_string(page.Gpu.Device.Index) + ' ' +
           (page.bSilent ? "no data" : ReadingText("gpu_utilization_percent", page.Now));
}

}  // namespace

void DrawGpuTable(Canvas* canvas, const Area& area, const std::vector<GpuOnPage>& pages, size_t selected) {
    DrawTableHeading(canvas, area);
    const size_t room = static_cast<size_t>(std::max(area.Height - 1, 0));
    size_t next = FirstShown(pages.size(), room, selected);
    for (int y = area.Y + 1; y < area.Y + area.Height && next < pages.size(); ++y, ++next) {
        DrawTableLine(canvas, {area.X, y, area.Width, 1}, pages[next], next == selected);
    }
}

void DrawGpuStrip(Canvas* canvas, const Area& area, const std::vector<GpuOnPage>& pages, size_t selected) {
    constexpr int kWordWidth = 8;
    const int labelEnd = canvas->Put(area.X, area.Y, "GPU ", Style::Dim);
    const size_t room = static_cast<size_t>(std::max((area.X + area.Width - labelEnd) / kWordWidth, 1));
    const size_t first = FirstShown(pages.size(), room, selected);
    int x = labelEnd;
    for (size_t i = first; i < std::min(first + room, pages.size()); ++i, x += kWordWidth) {
        const Style look = pages[i].bSilent ? Style::Alarm : Style::Normal;
        canvas->Put(x, area.Y, StripWord(pages[i]), i == selected ? Style::Selected : look, kWordWidth - 1);
    }
}
