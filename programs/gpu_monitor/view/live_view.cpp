#include "view/live_view.h"

#include <algorithm>
#include <vector>

#include "text/text_layout.h"
#include "view/gpu_overview.h"
#include "view/gpu_page.h"
#include "view/key_help.h"

using namespace gpu_feed;

namespace {

constexpr int kMinimumHeight = 16;
/// Screens of this height list several GPUs in a table.
constexpr int kTableHeight = 40;
/// The table gets a fourth of the screen at most, and the processes an eighth.
constexpr int kTableShare = 4;
constexpr int kProcessShare = 8;

Area TakeTop(Area* rest, int rows) {
    const Area taken = {rest->X, rest->Y, rest->Width, std::min(rows, rest->Height)};
    rest->Y += taken.Height;
    rest->Height -= taken.Height;
    return taken;
}

Area TakeBottom(Area* rest, int rows) {
    const int taken = std::min(rows, rest->Height);
    rest->Height -= taken;
    return {rest->X, rest->Y + rest->Height, rest->Width, taken};
}

void DrawFooter(Canvas* canvas, const Area& area, const FeedMoment& moment, const ViewChoice& choice) {
    const std::string settings = (moment.bSimulated ? "simulated  " : "") + SpanText(choice.Seconds);
    const int end = area.X + area.Width;
    canvas->PutRight(end, area.Y, settings, Style::Strong);
    const Area rest = {area.X, area.Y, area.Width - ColumnsOf(settings) - 1, 1};
    if (moment.Now < choice.NoticeUntil) {
        canvas->Put(rest.X, rest.Y, choice.Notice, Style::Warning, rest.Width);
    } else {
        DrawKeyNames(canvas, rest, moment.Data->Gpus.size() > 1);
    }
}

void DrawStarting(Canvas* canvas, const Area& area, double wait) {
    const std::string text = "Starting NVML ... " + Number(wait, 0) + " s";
    canvas->Put(area.X + (area.Width - ColumnsOf(text)) / 2, area.Y + area.Height / 2, text, Style::Strong, area.Width);
}

std::vector<GpuOnPage> PagesOf(const FeedMoment& moment) {
    std::vector<GpuOnPage> pages;
    for (const auto& gpu : moment.Data->Gpus) pages.push_back(OnPage(moment, gpu));
    return pages;
}

void DrawOverview(Canvas* canvas, Area* rest, const std::vector<GpuOnPage>& pages, size_t selected) {
    if (pages.size() < 2) return;
    if (canvas->Height() < kTableHeight) {
        DrawGpuStrip(canvas, TakeTop(rest, 1), pages, selected);
        return;
    }
    const int rows = std::min(static_cast<int>(pages.size()), canvas->Height() / kTableShare);
    DrawGpuTable(canvas, TakeTop(rest, rows + 1), pages, selected);
    TakeTop(rest, 1);
}

void DrawPage(Canvas* canvas, Area rest, const GpuOnPage& page, const FeedMoment& moment, const ViewChoice& choice) {
    const FeedData& data = *moment.Data;
    DrawSummary(canvas, TakeTop(&rest, SummaryHeight(rest.Width)), page);
    DrawProcesses(canvas, TakeBottom(&rest, canvas->Height() / kProcessShare + 1), page, choice.Order);
    // Plots do not move while sampling is paused, so that the user can study them.
    const double until = data.State == FeedState::Paused ? data.PausedAt : moment.Now;
    const double interval = std::chrono::duration<double>(data.Interval).count();
    DrawPlots(canvas, rest, *page.Gpu, {choice.Plots, until, choice.Seconds, interval});
}

}  // namespace

void DrawView(Canvas* canvas, const FeedMoment& moment, const ViewChoice& choice) {
    if (canvas->Width() < kMinimumViewWidth || canvas->Height() < kMinimumHeight) {
        canvas->Put(0, 0,
                    "Too small: this view needs " + std::to_string(kMinimumViewWidth) + " x " +
                        std::to_string(kMinimumHeight) + ".");
        return;
    }
    Area rest = canvas->Whole();
    DrawFooter(canvas, TakeBottom(&rest, 1), moment, choice);
    if (moment.Data->Gpus.empty()) {
        DrawStarting(canvas, rest, moment.DriverSilence);
        return;
    }
    const std::vector<GpuOnPage> pages = PagesOf(moment);
    const auto isSelected = [&choice](const GpuOnPage& page) { return page.Gpu->Key == choice.Gpu; };
    const auto found = std::find_if(pages.begin(), pages.end(), isSelected);
    const auto selected = found == pages.end() ? pages.begin() : found;
    DrawOverview(canvas, &rest, pages, static_cast<size_t>(selected - pages.begin()));
    DrawPage(canvas, rest, *selected, moment, choice);
}

std::string SpanText(double seconds) {
    if (seconds <= 0.0) return "whole history";
    return "last " + (seconds < 3600.0 ? Number(seconds / 60.0, 0) + " min" : Number(seconds / 3600.0, 0) + " h");
}

std::string IntervalText(std::chrono::milliseconds interval) {
    const auto count = interval.count();
    return count % 1000 == 0 ? std::to_string(count / 1000) + " s" : std::to_string(count) + " ms";
}
