#include <algorithm>
#include <iostream>
#include <string>

#include "commands/polled_feed.h"
#include "commands/watch.h"
#include "common/failure.h"
#include "gpu_feed/reading_text.h"
#include "terminal/output.h"
#include "view/gpu_page.h"
#include "view/live_view.h"
#include "view/process_list.h"

using namespace gpu_feed;

namespace {

std::string PageText(const GpuSummary& page, int width) {
    const int summary = SummaryHeight(width);
    const int processes = 1 + static_cast<int>(page.Gpu->Processes.size());
    Canvas canvas(width, summary + processes, OutputGlyphs());
    DrawSummary(&canvas, {0, 0, width, summary}, page);
    DrawProcesses(&canvas, {0, summary, width, processes}, {page}, {});
    return canvas.Text();
}

}  // namespace

int PrintView(const WatchOptions& options) {
    PolledFeed feed(options.Interval);
    int status = kExitSuccess;
    std::string text;
    const int width = std::max(static_cast<int>(OutputWidth()), kMinimumViewWidth);
    const auto isKnown = [](const FeedMoment& moment, const FeedGpu& gpu) {
        return StateOf(moment, gpu) != GpuState::Starting;
    };
    const FeedMoment moment = feed.WaitUntil(options.Gpu, isKnown);
    for (const auto& gpu : PolledFeed::Wanted(*moment.Data, options.Gpu)) {
        const GpuSummary page = SummaryOf(moment, gpu);
        text += (text.empty() ? "" : "\n") + PageText(page, width);
        if (!page.bSilent) continue;
        std::cerr << GpuInSentence(gpu->Device) << " gave no reading.\n";
        status = kExitFailure;
    }
    WriteOutput(text);
    return status;
}
