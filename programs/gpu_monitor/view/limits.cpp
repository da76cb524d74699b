#include "view/limits.h"

#include <string>
#include <vector>

#include "gpu_feed/reading_text.h"
#include "view/cut_text.h"

using namespace gpu_feed;

namespace {

/// What limits the clocks, in the order in which it is shown.
std::vector<StyledText> StyledLimits(const GpuTelemetrySample& now) {
    std::vector<StyledText> limits;
    for (const LimitReason& limit : ShownLimits(now)) {
        limits.push_back({limit.Word, limit.bDanger ? Style::Alarm : Style::Strong});
    }
    return limits;
}

/// The first words of `text` that fit into `columns`, without a comma at the end.
std::string FirstWords(const std::string& text, int columns) {
    const size_t space = text.rfind(' ', static_cast<size_t>(columns));
    return space == std::string::npos ? "" : text.substr(0, text.find_last_not_of(", ", space) + 1);
}

}  // namespace

int WidthOfLimits(const GpuTelemetrySample& now) {
    return WidthOfParts(StyledLimits(now));
}

void DrawLimits(Canvas* canvas, const Area& area, const GpuTelemetrySample& now) {
    if (area.Width <= 0) return;
    std::vector<StyledText> limits = StyledLimits(now);
    if (WidthOfParts(limits) <= area.Width) {
        PutParts(canvas, area, limits);
        return;
    }
    const int room = area.Width - 1;
    while (limits.size() > 1 && WidthOfParts(limits) > room) limits.pop_back();
    if (WidthOfParts(limits) > room) limits.front().Text = FirstWords(limits.front().Text, room);
    const int end = PutParts(canvas, area, limits);
    canvas->PutGlyph(end, area.Y, CutMark(*canvas), Style::Strong);
}
