#ifndef GPU_MONITOR_VIEW_CONTROL_H
#define GPU_MONITOR_VIEW_CONTROL_H

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "commands/tuning_panel.h"
#include "gpu_feed/feed_requests.h"
#include "view/live_view.h"

/// How the user ends the live view.
enum class ViewEnd {
    KeepChanges,
    TakeChangesBack,
};

/// What the user does in the live view: keys become choices, dialogs and requests to the feed.
class ViewControl {
public:
    /// `interval`: that of the feed. `simulateOption`: for the commands that the user may type later.
    ViewControl(gpu_feed::FeedRequests* feed, std::chrono::milliseconds interval, std::string simulateOption);

    /// Selects the GPU with this key, unless a GPU is selected already.
    void SelectFirst(const std::string& gpuKey);

    void OnKey(int key);

    /// To be called often: takes what the feed has answered.
    void OnTime();

    /// Shows a notice for a while.
    void ShowNotice(const std::string& notice);

    void Draw(Canvas* canvas, const gpu_feed::FeedMoment& moment);

    /// Whether the dialog that changes a GPU is open: a change may be on its way.
    bool IsTuning() const { return Panel != nullptr; }

    /// Empty while the view goes on.
    std::optional<ViewEnd> End() const { return Ending; }

private:
    struct KeyAction;
    static const KeyAction kKeyActions[];

    void OnViewKey(int key);
    void OnNumberKey(int key);
    void OnLeavingKey(int key);

    void Leave();
    void OpenHelp() { bHelp = true; }
    void OpenPanel();
    void SelectNext() { SelectGpu(1); }
    void SelectPrevious() { SelectGpu(-1); }
    void SelectByNumber() { Choice.GpuNumber = ""; }
    void ShowOneOrAllGpus() { ShowAllGpus(!Choice.bAllGpus); }
    void ShowSelectedGpu() { ShowAllGpus(false); }
    void GoUp() { GoTo(-1); }
    void GoDown() { GoTo(1); }
    void ScrollPageUp() { Scroll(-Processes.Lines); }
    void ScrollPageDown() { Scroll(Processes.Lines); }
    void ScrollToFirst() { Scroll(-Processes.Entries); }
    void ScrollToLast() { Scroll(Processes.Entries); }
    void ZoomIn() { Zoom(-1); }
    void ZoomOut() { Zoom(1); }
    void PauseOrResume();
    void LengthenInterval();
    void ShortenInterval();
    void SortDifferently();

    void SelectGpu(int step);
    void Select(const std::string& gpuKey);
    void ShowAllGpus(bool bAll);
    void GoTo(int step);
    void Scroll(int lines);
    void Zoom(int step);
    void SetInterval(std::chrono::milliseconds interval);

    gpu_feed::FeedRequests* const Feed;
    const std::string SimulateOption;
    std::chrono::milliseconds Interval;
    ViewChoice Choice;
    /// As drawn last.
    ListRoom Processes;
    std::unique_ptr<TuningPanel> Panel;
    /// As the user wants it; the feed follows.
    bool bPaused = false;
    bool bHelp = false;
    /// Whether the user is being asked to take the changes back or keep them.
    bool bLeaving = false;
    std::optional<ViewEnd> Ending;
};

#endif  // GPU_MONITOR_VIEW_CONTROL_H
