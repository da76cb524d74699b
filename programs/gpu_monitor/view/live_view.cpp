#include "view/live_view.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "text/text_layout.h"
#include "view/dialog.h"
#include "view/gpu_overview.h"

using namespace gpu_feed;

namespace {

constexpr int kMinimumHeight = 16;
/// From here on, several GPUs are listed in a table.
constexpr int kTableHeight = 40;
/// Of the screen, for the table and for the processes.
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

struct KeyName {
    const char* Key;
    const char* Name;
};

constexpr const char* kGpuKey = "Tab";
constexpr KeyName kFooterKeys[] = {{"q", "quit"},      {"?", "help"},     {"t", "tune"},
                                   {kGpuKey, "GPU"},   {"1-5", "plots"},  {"+-", "zoom"},
                                   {"space", "pause"}, {"i", "interval"}, {"s", "sort"}};

void DrawFooter(Canvas* canvas, const Area& area, const FeedMoment& moment, const ViewChoice& choice) {
    const std::string settings = (moment.bSimulated ? "simulated  " : "") + SpanText(choice.Seconds);
    const int end = area.X + area.Width;
    canvas->PutRight(end, area.Y, settings, Style::Strong);
    const int room = end - ColumnsOf(settings) - 1;
    if (!choice.Notice.empty()) {
        canvas->Put(area.X, area.Y, choice.Notice, Style::Warning, room - area.X);
        return;
    }
    int x = area.X;
    for (const auto& [key, name] : kFooterKeys) {
        if (x + ColumnsOf(key) + 1 + ColumnsOf(name) > room) return;
        if (key == kGpuKey && moment.Data->Gpus.size() < 2) continue;
        x = canvas->Put(x, area.Y, key, Style::Strong) + 1;
        x = canvas->Put(x, area.Y, name, Style::Dim) + 2;
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
    // A pause is for looking at the plots: they stand still.
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

void DrawHelp(Canvas* canvas) {
    std::string plots;
    for (size_t i = 0; i < PlotNames().size(); ++i) {
        plots += (i == 0 ? "" : ", ") + std::to_string(i + 1) + ' ' + PlotNames()[i];
    }
    DrawDialog(canvas, {"Keys",
                        {{"Tab Left Right  another GPU"},
                         {"1 to 5          show or hide a plot: " + plots},
                         {"+ -             shorter or longer time axis"},
                         {"space           pause or resume sampling"},
                         {"i I             longer or shorter interval"},
                         {"s               sort processes"},
                         {"t               tune: lock clocks, set the power limit"},
                         {"q               leave; asks what becomes of changes"},
                         {""},
                         {"Power: shaded what the limit can be, marked limit and default. A dash: the driver gives no "
                          "value. A gap in a plot: a time without."}},
                        "Any key closes"});
}

std::string SpanText(double seconds) {
    if (seconds <= 0.0) return "whole history";
    return "last " + (seconds < 3600.0 ? Number(seconds / 60.0, 0) + " min" : Number(seconds / 3600.0, 0) + " h");
}

std::string IntervalText(std::chrono::milliseconds interval) {
    const auto count = interval.count();
    return count % 1000 == 0 ? std::to_string(count / 1000) + " s" : std::to_string(count) + " ms";
}
