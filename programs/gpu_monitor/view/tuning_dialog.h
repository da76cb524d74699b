#ifndef GPU_MONITOR_TUNING_DIALOG_H
#define GPU_MONITOR_TUNING_DIALOG_H

#include <memory>
#include <string>

#include "gpu_feed/feed_data.h"
#include "gpu_feed/tuning_flow.h"
#include "view/canvas.h"
#include "view/tuning_choice.h"

enum class TuningStage {
    /// As far as the flow has come.
    InFlow,
    ChoosingClocks,
    ChoosingPower,
    /// The user is being asked whether to make a change.
    Confirming,
    Closed,
};

/// What the dialog that changes one GPU shows.
struct TuningDialog {
    /// As it was when the dialog was opened.
    std::shared_ptr<const gpu_feed::FeedGpu> Gpu;
    gpu_feed::TuningFlow Flow;
    TuningStage Stage = TuningStage::InFlow;
    ClockChoice ChosenClocks = {};
    PowerChoice ChosenPower = {};
    /// Why the chosen power limit cannot be set, for the user.
    std::string Problem = {};
    /// The change that the user may make.
    gpu_feed::TuningChange Chosen{gpu_feed::TuningChange::Kind::ResetClocks};
};

void DrawTuning(Canvas* canvas, const gpu_feed::FeedMoment& moment, const TuningDialog& dialog);

#endif  // GPU_MONITOR_TUNING_DIALOG_H
