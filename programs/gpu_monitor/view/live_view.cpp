#include "view/live_view.h"

#include <algorithm>
#include <vector>

#include "gpu_feed/reading_text.h"
#include "view/cut_text.h"
#include "view/gpu_overview.h"
#include "view/gpu_page.h"
#include "view/key_help.h"

using namespace gpu_feed;

namespace {

constexpr int kMinimumHeight = 16;
/// Screens of this height list several GPUs in a table.
constexpr int kTableHeight = 40;
/// A list of processes that does not fit gets this part of the screen, or a larger one beside a table.
constexpr int kProcessShare = 8;
constexpr int kLargeProcessShare = 5;
/// The same on the page of all GPUs.
constexpr int kAllGpusProcessShare = 3;
/// The table leaves this part of the screen to the plots.
constexpr double kPlotShare = 0.4;
/// With more rows, small plots would not show more.
constexpr int kMostRowsPerGpu = 8;

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

/// What the user has to read now; empty when there is nothing.
std::string MessageText(const FeedMoment& moment, const ViewChoice& choice) {
    if (choice.GpuNumber) return "GPU number: " + *choice.GpuNumber + "_  Enter selects, Esc cancels";
    return moment.Now < choice.NoticeUntil ? choice.Notice : "";
}

void DrawFooter(Canvas* canvas, const Area& area, const FeedMoment& moment, const ViewChoice& choice) {
    const std::string settings = (moment.bSimulated ? "simulated  " : "") + SpanText(choice.Seconds);
    const Area rest = {area.X, area.Y, area.Width - ColumnsOf(settings) - 1, 1};
    const std::string message = MessageText(moment, choice);
    // A long message takes the room of the settings.
    const bool bFits = ColumnsOf(message) <= rest.Width;
    if (bFits) canvas->PutRight(area.X + area.Width, area.Y, settings, Style::Strong);
    if (message.empty()) {
        DrawKeyNames(canvas, rest, moment.Data->Gpus.size() > 1);
    } else {
        PutCut(canvas, bFits ? rest : area, message, Style::Warning);
    }
}

void DrawStarting(Canvas* canvas, const Area& area, double wait) {
    const std::string text = "Starting NVML ... " + Number(wait, 0) + " s";
    canvas->Put(area.X + (area.Width - ColumnsOf(text)) / 2, area.Y + area.Height / 2, text, Style::Strong, area.Width);
}

std::vector<GpuSummary> PagesOf(const FeedMoment& moment) {
    std::vector<GpuSummary> pages;
    for (const auto& gpu : moment.Data->Gpus) pages.push_back(SummaryOf(moment, gpu));
    return pages;
}

PlotView PlotViewOf(const FeedMoment& moment, const ViewChoice& choice) {
    const FeedData& data = *moment.Data;
    // Plots do not move while sampling is paused, so that the user can study them.
    const double until = data.State == FeedState::Paused ? data.PausedAt : moment.Now;
    return {choice.Plots, until, choice.Seconds, std::chrono::duration<double>(data.Interval).count()};
}

/// `room`: for the table, in rows.
void DrawOverview(Canvas* canvas, Area* rest, const std::vector<GpuSummary>& pages, size_t selected, int room) {
    if (pages.size() < 2) return;
    if (canvas->Height() < kTableHeight) {
        DrawGpuStrip(canvas, TakeTop(rest, 1), pages, selected);
        return;
    }
    // Beside the GPUs, there are the heading and a blank row.
    const int gpus = std::clamp(room - 2, 1, static_cast<int>(pages.size()));
    DrawGpuTable(canvas, TakeTop(rest, gpus + 1), pages, selected);
    TakeTop(rest, 1);
}

/// The page of one GPU. What processes and table do not need is left to the plots.
ListRoom DrawPage(Canvas* canvas, Area rest, const std::vector<GpuSummary>& pages, size_t selected,
                  const FeedMoment& moment, const ViewChoice& choice) {
    const GpuSummary& page = pages[selected];
    const int share = canvas->Height() < kTableHeight ? kProcessShare : kLargeProcessShare;
    const int wanted = CountProcesses({page}) + 1;
    const int least = std::min(wanted, canvas->Height() / share + 1);
    const int summary = SummaryHeight(rest.Width);
    const int plots = choice.Plots.any() ? static_cast<int>(kPlotShare * canvas->Height()) : 1;
    DrawOverview(canvas, &rest, pages, selected, rest.Height - summary - least - plots);
    DrawSummary(canvas, TakeTop(&rest, summary), page);
    const int processes = choice.Plots.any() ? least : std::max(rest.Height - plots, least);
    const ListRoom shown = DrawProcesses(canvas, TakeBottom(&rest, processes), {page}, choice.Processes);
    DrawPlots(canvas, rest, *page.Gpu, PlotViewOf(moment, choice));
    return shown;
}

/// The page of all GPUs. What the processes do not need is left to the GPUs, as long as they can use it.
ListRoom DrawAllGpus(Canvas* canvas, Area rest, const std::vector<GpuSummary>& pages, size_t selected,
                     const FeedMoment& moment, const ViewChoice& choice) {
    const int count = static_cast<int>(pages.size());
    const int most = std::max(rest.Height - 1 - count, rest.Height / kAllGpusProcessShare);
    const int room = rest.Height - 1 - std::min(CountProcesses(pages) + 1, most);
    const int rows = std::clamp(room / count, 1, kMostRowsPerGpu);
    const Area table = TakeTop(&rest, 1 + std::min(count, room / rows) * rows);
    DrawGpuPlots(canvas, table, pages, selected, rows, PlotViewOf(moment, choice));
    return DrawProcesses(canvas, rest, pages, choice.Processes);
}

}  // namespace

ListRoom DrawView(Canvas* canvas, const FeedMoment& moment, const ViewChoice& choice) {
    if (canvas->Width() < kMinimumViewWidth || canvas->Height() < kMinimumHeight) {
        canvas->Put(0, 0,
                    "Too small: this view needs " + std::to_string(kMinimumViewWidth) + " x " +
                        std::to_string(kMinimumHeight) + ".");
        return {};
    }
    Area rest = canvas->Whole();
    DrawFooter(canvas, TakeBottom(&rest, 1), moment, choice);
    if (moment.Data->Gpus.empty()) {
        DrawStarting(canvas, rest, moment.DriverSilence);
        return {};
    }
    // Once for the machine: which of the GPUs it hangs on cannot be seen from here.
    if (IsDriverHanging(moment)) {
        const Area line = TakeTop(&rest, 1);
        canvas->Put(line.X, line.Y, DriverSilenceText(moment.DriverSilence), Style::Alarm, line.Width);
    }
    const std::vector<GpuSummary> pages = PagesOf(moment);
    const auto isSelected = [&choice](const GpuSummary& page) { return page.Gpu->Key == choice.Gpu; };
    const auto found = std::find_if(pages.begin(), pages.end(), isSelected);
    const auto selected = found == pages.end() ? size_t{0} : static_cast<size_t>(found - pages.begin());
    return (choice.bAllGpus ? DrawAllGpus : DrawPage)(canvas, rest, pages, selected, moment, choice);
}

std::string SpanText(double seconds) {
    if (seconds <= 0.0) return "whole history";
    return "last " + (seconds < 3600.0 ? Number(seconds / 60.0, 0) + " min" : Number(seconds / 3600.0, 0) + " h");
}

std::string IntervalText(std::chrono::milliseconds interval) {
    const auto count = interval.count();
    return count % 1000 == 0 ? std::to_string(count / 1000) + " s" : std::to_string(count) + " ms";
}
