#ifndef GPU_PANEL_OUTSTANDING_H
#define GPU_PANEL_OUTSTANDING_H

#include <string>

#include "gpu_feed/feed_requests.h"

namespace gpu_panel {

/// A setting that the program has changed and not taken back, with a way to take it back.
class OutstandingChange {
public:
    /// Takes what is published of it. Allocates nothing while that is the same. `prefix`: before what is in force.
    void Update(const gpu_feed::TuningRecord& record, const char* prefix);

    gpu_feed::TuningControl Control() const { return InForce.Control(); }

    /// `bAsking`: asks here whether to keep a change that goes back by itself.
    void Draw(gpu_feed::FeedRequests* feed, double now, bool bAsking) const;

private:
    std::string GpuKey;
    gpu_feed::TuningChange InForce{gpu_feed::TuningChange::Kind::ResetClocks};
    double Deadline = 0.0;
    std::string Text;
    /// Why it could not go back, or a warning; may be empty.
    std::string Problem;
};

}  // namespace gpu_panel

#endif  // GPU_PANEL_OUTSTANDING_H
