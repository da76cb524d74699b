#include "view/leaving_dialog.h"

#include "gpu_feed/reading_text.h"
#include "gpu_feed/tuning_text.h"
#include "view/dialog.h"

using namespace gpu_feed;

void DrawLeaving(Canvas* canvas, const FeedData& data) {
    DialogLines lines = {{"These changes outlast the program:"}};
    for (const TuningRecord& record : OutstandingChanges(data)) {
        lines.push_back({GpuInSentence(record.Device) + ": " + OutcomeText(record.InForce), Style::Strong});
    }
    DrawDialog(canvas, {"Leave", lines, "r take them back   k keep them   Esc stay"});
}
