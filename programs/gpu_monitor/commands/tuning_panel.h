#ifndef GPU_MONITOR_TUNING_PANEL_H
#define GPU_MONITOR_TUNING_PANEL_H

#include <memory>
#include <string>

#include "gpu_feed/feed_requests.h"
#include "gpu_feed/tuning_flow.h"
#include "view/tuning_dialog.h"

/// Changes one GPU as the user asks: keys choose a change and lead through its flow.
class TuningPanel {
public:
    /// `simulateOption`: for the commands that the user may type later.
    TuningPanel(gpu_feed::FeedRequests* feed, const std::shared_ptr<const gpu_feed::FeedGpu>& gpu,
                std::string simulateOption);

    void OnKey(int key);

    /// To be called often: takes what the feed has answered.
    void OnTime();

    bool IsClosed() const { return Shown.Stage == TuningStage::Closed; }

    void Draw(Canvas* canvas, const gpu_feed::FeedMoment& moment) const { DrawTuning(canvas, moment, Shown); }

private:
    void OnFlowKey(int key);
    void OnMenuKey(int key);
    void OnClockKey(int key);
    void OnPowerKey(int key);
    void OnConfirmKey(int key);

    void ChoosePower();
    void Confirm(const gpu_feed::TuningChange& change);

    TuningDialog Shown;
};

#endif  // GPU_MONITOR_TUNING_PANEL_H
