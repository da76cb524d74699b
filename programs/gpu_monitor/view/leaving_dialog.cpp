#include "view/leaving_dialog.h"

#include <algorithm>
#include <iterator>

#include "text/change_text.h"
#include "text/text_layout.h"
#include "view/dialog.h"

using namespace gpu_feed;

std::vector<TuningRecord> OutstandingChanges(const FeedData& data) {
    std::vector<TuningRecord> records;
    std::copy_if(data.Tuning.begin(), data.Tuning.end(), std::back_inserter(records),
                 [](const TuningRecord& record) { return record.IsOutstanding(); });
    return records;
}

void DrawLeaving(Canvas* canvas, const FeedData& data) {
    DialogLines lines = {{"These changes outlast the program:"}};
    for (const TuningRecord& record : OutstandingChanges(data)) {
        lines.push_back({GpuInSentence(record.Device) + ": " + OutcomeText(record.InForce), Style::Strong});
    }
    DrawDialog(canvas, {"Leave", lines, "r take them back   k keep them   Esc stay"});
}
