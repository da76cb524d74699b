#ifndef GPU_MONITOR_TUNING_PANEL_H
#define GPU_MONITOR_TUNING_PANEL_H

#include <future>
#include <memory>
#include <string>

#include "commands/feed_requests.h"
#include "view/tuning_dialog.h"

/// Changes one GPU as the user asks: keys and the feed's answers lead from one stage of the dialog to the next. A
/// change that the user does not decide to keep goes back.
class TuningPanel {
public:
    /// `simulateOption`: for the commands that the user may type later.
    TuningPanel(FeedRequests* feed, std::shared_ptr<const gpu_feed::FeedGpu> gpu, std::string simulateOption);

    void OnKey(int key);

    /// To be called often: takes what the feed has answered.
    void OnTime();

    bool IsClosed() const { return Shown.Stage == TuningStage::Closed; }

    void Draw(Canvas* canvas, const gpu_feed::FeedMoment& moment) const { DrawTuning(canvas, moment, Shown); }

private:
    void Ask();
    void RequestCapabilities();
    void RefreshCapabilities();
    void OnMenuKey(int key);
    void OnClockKey(int key);
    void OnPowerKey(int key);
    void OnConfirmKey(int key);
    void OnKeepKey(int key);

    void ChoosePower();
    void Confirm(const gpu_feed::TuningChange& change);
    void Apply();
    void TakeResult(const gpu_feed::TuningResult& result);
    void WatchDeadline();
    void ShowTakenBack(const gpu_feed::TuningResult& result);
    void ShowMessage(DialogLines lines);

    const std::string& GpuKey() const { return Shown.Gpu->Key; }
    /// Of the setting that is being changed; null when the program has not touched it.
    const gpu_feed::TuningRecord* RecordIn(const gpu_feed::FeedMoment& moment) const;

    FeedRequests* const Feed;
    const std::string SimulateOption;
    TuningDialog Shown;
    /// Asked for again and again: other programs tune too.
    std::future<gpu_feed::TuningCapabilities> CapabilityAnswer;
    double AskedAt = 0.0;
    std::future<gpu_feed::TuningResult> Answer;
};

#endif  // GPU_MONITOR_TUNING_PANEL_H
