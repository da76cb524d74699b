#ifndef GPU_MONITOR_TUNING_PANEL_H
#define GPU_MONITOR_TUNING_PANEL_H

#include <cstddef>
#include <future>
#include <memory>
#include <optional>
#include <string>

#include "gpu_feed/clock_groups.h"
#include "gpu_feed/monitor_feed.h"
#include "view/canvas.h"
#include "view/dialog.h"

/// The dialog that changes one GPU. A change that the user does not decide to keep goes back.
class TuningPanel {
public:
    /// `simulateOption`: for the commands that the user is told.
    TuningPanel(gpu_feed::MonitorFeed* feed, std::shared_ptr<const gpu_feed::FeedGpu> gpu, std::string simulateOption);

    void OnKey(int key);

    /// To be called often: takes what the feed has answered.
    void OnTime();

    bool IsClosed() const { return Now == Stage::Closed; }

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
        TakingBack,
        /// Something is told that the user has to see.
        Told,
        Closed,
    };

    void Ask();
    void RefreshCapabilities();
    void OnMenuKey(int key);
    void OnClockKey(int key);
    void OnPowerKey(int key);
    void OnConfirmKey(int key);
    void OnKeepKey(int key);

    void BeginClocks();
    void BeginPower();
    void ChoosePower();
    void Confirm(const gpu_feed::TuningChange& change);
    void Apply();
    void TakeResult(const gpu_feed::TuningResult& result);
    void WatchDeadline();
    void TellTakenBack(const gpu_feed::TuningResult& result);
    void Tell(DialogLines lines);

    GpuClockPair ChosenPair() const;
    double ChosenWatts() const;
    bool CanSetPower() const { return Capabilities.Power.State == GpuCapabilityState::Supported; }
    bool CanSetDefault() const { return CanSetPower() && Capabilities.Power.DefaultWatts > 0.0; }
    /// What the program has set and not taken back; null when there is none.
    const gpu_feed::TuningRecord* Record(const gpu_feed::FeedData& data, gpu_feed::TuningControl control) const;
    /// What a change goes back to, as far as can be told now; none when there is no way back.
    std::optional<gpu_feed::TuningChange> WayBack(const gpu_feed::FeedData& data) const;
    std::string WayBackText() const;

    Dialog Content() const;
    Dialog MenuDialog() const;
    Dialog ClockDialog() const;
    Dialog PowerDialog() const;
    Dialog ConfirmDialog() const;
    Dialog KeepDialog() const;
    Dialog WaitDialog(const std::string& what) const;

    gpu_feed::MonitorFeed* const Feed;
    /// As it was when the dialog was opened.
    const std::shared_ptr<const gpu_feed::FeedGpu> Gpu;
    const std::string SimulateOption;

    Stage Now = Stage::Asking;
    /// What the driver tells is asked for again and again: other programs tune too.
    std::future<gpu_feed::TuningCapabilities> CapabilityAnswer;
    gpu_feed::TuningCapabilities Capabilities;
    double AskedAt = 0.0;
    std::future<gpu_feed::TuningResult> Answer;
    gpu_feed::TuningChange Wanted{gpu_feed::TuningChange::Kind::ResetClocks};
    /// Whether `Capabilities` were told after `Wanted` was made.
    bool bReadBack = false;
    DialogLines Message;

    gpu_feed::ClockGroups Groups;
    size_t MemoryPlace = 0;
    size_t GraphicsPlace = 0;
    double Watts = 0.0;
    /// What is being typed in place of `Watts`.
    std::string Typed;
    std::string Problem;
};

#endif  // GPU_MONITOR_TUNING_PANEL_H
