#ifndef GPU_MONITOR_TUNING_DIALOG_H
#define GPU_MONITOR_TUNING_DIALOG_H

#include <memory>
#include <string>

#include "gpu_feed/feed_data.h"
#include "view/canvas.h"
#include "view/dialog.h"
#include "view/tuning_choice.h"

enum class TuningStage {
    /// The driver is being asked what can be changed.
    Asking,
    Menu,
    ChoosingClocks,
    ChoosingPower,
    /// The user is being asked whether to make a change.
    Confirming,
    Applying,
    /// The user is being asked whether to keep a change.
    Keeping,
    TakingBack,
    /// The user reads how a change ended.
    Message,
    Closed,
};

/// What the dialog that changes one GPU shows.
struct TuningDialog {
    /// As it was when the dialog was opened.
    std::shared_ptr<const gpu_feed::FeedGpu> Gpu;
    TuningStage Stage = TuningStage::Asking;
    /// The driver's latest answer.
    GpuClockCapabilities Clocks = {};
    GpuPowerCapabilities Power = {};
    bool bRights = true;
    ClockChoice ChosenClocks = {};
    PowerChoice ChosenPower = {};
    /// Why the chosen power limit cannot be set, for the user.
    std::string Problem = {};
    /// The change that the user is making.
    gpu_feed::TuningChange Change{gpu_feed::TuningChange::Kind::ResetClocks};
    /// Whether the driver's latest answer was given after the change.
    bool bReadBack = false;
    DialogLines Message = {};
};

void DrawTuning(Canvas* canvas, const gpu_feed::FeedMoment& moment, const TuningDialog& dialog);

/// Whether the driver lets the power limit be set, and whether it has a default to go back to.
bool CanSetPower(const TuningDialog& dialog);
bool CanSetDefault(const TuningDialog& dialog);

#endif  // GPU_MONITOR_TUNING_DIALOG_H
