#ifndef GPU_MONITOR_TUNING_PANEL_H
#define GPU_MONITOR_TUNING_PANEL_H

#include <cstddef>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "canvas.h"
#include "dialog.h"
#include "monitor_feed.h"
#include "readings.h"
#include "tuning_change.h"

/// The dialog that changes one GPU. A change that the user does not decide to keep is taken back.
class TuningPanel {
public:
    /// `simulateOption`: for the commands that the user is told.
    TuningPanel(MonitorFeed* feed, ChangeLedger* ledger, std::string gpuKey, std::string simulateOption);

    void OnKey(int key);

    /// To be called often: takes answers of the driver, and a change back that is not kept in time.
    void OnTime();

    bool IsClosed() const { return Now == Stage::Closed; }

    /// Whether the dialog waits for something that is no key.
    bool IsWaiting() const;

    void Draw(Canvas* canvas) const;

private:
    enum class Stage {
        Asking,
        Menu,
        ChoosingClocks,
        ChoosingPower,
        Confirming,
        Applying,
        Keeping,
        Reverting,
        /// Something is told that the user has to see.
        Told,
        Closed,
    };

    void Ask();
    void OnMenuKey(int key);
    void OnClockKey(int key);
    void OnPowerKey(int key);
    void OnConfirmKey(int key);
    void OnKeepKey(int key);

    void BeginClocks();
    void BeginPower();
    void Confirm(const TuningChange& change);
    void Apply();
    void TakeResult(const TuningResult& result);
    void Revert();
    void TakeRevertResult(const TuningResult& result);
    void Tell(DialogLines lines);

    /// What was in force before this program changed anything; for a lock that is not known.
    TuningChange Original(const TuningChange& change) const;
    /// Whether there is a way back.
    bool CanUndo() const { return !(Undo == Wanted); }
    GpuClockPair ChosenPair() const;
    double ChosenWatts() const;
    bool CanSetPower() const { return Capabilities.Power.State == GpuCapabilityState::Supported; }

    DialogLines Lines() const;
    DialogLines MenuLines() const;
    DialogLines ClockLines() const;
    DialogLines PowerLines() const;
    DialogLines ConfirmLines() const;
    DialogLines KeepLines() const;
    DialogLines WaitLines(const std::string& what) const;

    MonitorFeed* const Feed;
    ChangeLedger* const Ledger;
    const std::string GpuKey;
    const std::string SimulateOption;
    /// As it was when the dialog was opened.
    std::shared_ptr<const FeedData> Data;
    const FeedGpu* Gpu;

    Stage Now = Stage::Asking;
    std::future<TuningCapabilities> CapabilityAnswer;
    TuningCapabilities Capabilities;
    std::future<TuningResult> Answer;
    TuningChange Wanted{TuningChange::Kind::ResetClocks};
    TuningChange Undo{TuningChange::Kind::ResetClocks};
    /// When a change is taken back that the user does not answer for, in steady-clock seconds.
    double Deadline = 0.0;
    DialogLines Message;

    ClockGroups Groups;
    size_t MemoryPlace = 0;
    size_t GraphicsPlace = 0;
    double Watts = 0.0;
    /// What is being typed in place of `Watts`.
    std::string Typed;
    std::string Problem;
};

#endif  // GPU_MONITOR_TUNING_PANEL_H
