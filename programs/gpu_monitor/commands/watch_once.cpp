#include <algorithm>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "commands/polled_feed.h"
#include "commands/watch.h"
#include "terminal/failure.h"
#include "terminal/output.h"
#include "text/text_layout.h"
#include "view/gpu_page.h"
#include "view/live_view.h"
#include "view/process_list.h"

using namespace gpu_feed;

namespace {

constexpr int kLookMs = 100;
/// NVML may take this long to start.
constexpr double kLongestStartSeconds = 20.0;

/// Waits until each GPU, or the one of index `only`, has a reading or has given no data for too long. Result: these
/// GPUs. Throws `Failure`.
std::vector<GpuOnPage> FirstReadings(PolledFeed* feed, std::optional<unsigned int> only) {
    for (;;) {
        const FeedMoment moment = (*feed)->Moment();
        PolledFeed::RequireUsable(*moment.Data, only);
        std::vector<GpuOnPage> pages;
        bool bComplete = moment.Data->State != FeedState::Starting;
        for (const auto& gpu : moment.Data->Gpus) {
            if (only.value_or(gpu->Device.Index) != gpu->Device.Index) continue;
            bComplete = bComplete && StateOf(moment, *gpu) != GpuState::Starting;
            pages.push_back(OnPage(moment, gpu));
        }
        if (bComplete) return pages;
        if (moment.DriverSilence >= kLongestStartSeconds) throw Failure("The driver does not answer.");
        feed->WaitForNews(kLookMs, -1);
        feed->TakeNews();
    }
}

std::string PageText(const GpuOnPage& page, int width) {
    const int summary = SummaryHeight(width);
    const int processes = 1 + static_cast<int>(page.Gpu->Processes.size());
    Canvas canvas(width, summary + processes, OutputGlyphs());
    DrawSummary(&canvas, {0, 0, width, summary}, page);
    DrawProcesses(&canvas, {0, summary, width, processes}, page, ProcessOrder::Memory);
    return canvas.Text();
}

}  // namespace

int PrintView(const WatchOptions& options) {
    PolledFeed feed(options.Interval);
    int status = kExitSuccess;
    std::string text;
    const int width = std::max(static_cast<int>(OutputWidth()), kMinimumViewWidth);
    for (const GpuOnPage& page : FirstReadings(&feed, options.Gpu)) {
        text += (text.empty() ? "" : "\n") + PageText(page, width);
        if (!page.bSilent) continue;
        std::cerr << GpuInSentence(page.Gpu->Device) << " gave no reading.\n";
        status = kExitFailure;
    }
    WriteOutput(text);
    return status;
}
