#ifndef GPU_PANEL_GPU_PANEL_H
#define GPU_PANEL_GPU_PANEL_H

#include <memory>
#include <string>

#include "gpu_feed/feed_requests.h"

/// \file
/// The GPUs of a feed, shown with Dear ImGui in a host's own window.
///
///     gpu_feed::MonitorFeed feed(options);
///     gpu_panel::GpuPanel panel(&feed);
///     ...
///     panel.DrawWindow("GPUs");  // once per frame, between ImGui::NewFrame and ImGui::Render

namespace gpu_panel {

/// Shows what a feed publishes, and lets the user change interval, clocks and power limits through the feed.
///
/// It keeps what the user has chosen: opened parts, the time that the plots show, settings that were not applied yet.
/// Several panels may show the same feed, each with choices of its own.
///
/// Nothing changes a GPU but the buttons that say so. A change goes back unless the user keeps it in time, also when
/// the panel is not drawn any more; see `MonitorFeed`. Taking back what was kept, before the program ends, is up to the
/// host (`MonitorFeed::TakeAllBack`).
///
/// Threads: all calls, construction and destruction included, on the thread that uses the ImGui context.
///
/// Cost: never calls the monitor and never waits for the driver. Once everything that is open was drawn, a frame
/// allocates nothing; only opening parts, a change of what limits the clocks or of a GPU's state, and an open part for
/// clocks and power, which asks the driver twice a second, do.
///
/// Failure: only lack of memory throws. A missing driver, a lost GPU and refused changes are shown.
class GpuPanel {
public:
    /// `feed` is usually a `MonitorFeed`, and must outlive the panel. `simulateOption` ends the commands that the panel
    /// gives the user to type: what a host was started with that simulates GPUs, such as "--simulate"; usually empty.
    explicit GpuPanel(gpu_feed::FeedRequests* feed, const std::string& simulateOption = {});
    ~GpuPanel();

    GpuPanel(const GpuPanel&) = delete;
    GpuPanel& operator=(const GpuPanel&) = delete;

    /// Draws into ImGui's current window, as wide as it is. To be called at most once per frame.
    void Draw();

    /// Draws in a window of its own. `open`: as `ImGui::Begin` takes it; may be null.
    void DrawWindow(const char* title, bool* open = nullptr);

private:
    class Content;

    const std::unique_ptr<Content> Drawn;
};

}  // namespace gpu_panel

#endif  // GPU_PANEL_GPU_PANEL_H
