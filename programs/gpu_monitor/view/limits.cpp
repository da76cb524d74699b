#include "view/limits.h"

#include <algorithm>
#include <vector>

#include "gpu_feed/limit_reasons.h"
#include "text/text_layout.h"

using namespace gpu_feed;

void DrawLimits(Canvas* canvas, const Area& area, const GpuTelemetrySample& now) {
    std::vector<LimitReason> reasons = LimitReasons(now.PerformanceLimitReasons);
    std::stable_partition(reasons.begin(), reasons.end(), [](const LimitReason& reason) { return reason.bDanger; });
    const int end = area.X + area.Width;
    int x = area.X;
    for (const LimitReason& reason : reasons) {
        if (reason.bIdle) continue;
        if (x > area.X) x = canvas->Put(x, area.Y, ", ", Style::Normal, end - x);
        x = canvas->Put(x, area.Y, reason.Word, reason.bDanger ? Style::Alarm : Style::Strong, end - x);
    }
    if (x == area.X) canvas->Put(x, area.Y, reasons.empty() ? kNotRead : "nothing, idle", Style::Strong, area.Width);
}
