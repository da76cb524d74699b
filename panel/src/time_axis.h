#ifndef GPU_PANEL_TIME_AXIS_H
#define GPU_PANEL_TIME_AXIS_H

namespace gpu_panel {

/// The time that all plots of a panel show. All moments are seconds of the steady clock.
class TimeAxis {
public:
    /// To be called once per frame before anything is drawn: an axis that follows ends at `now`.
    void Update(double now);

    /// The ends of what is shown.
    double From() const { return To() - Seconds; }
    double To() const { return End; }

private:
    double Seconds = 120.0;
    double End = 0.0;
};

}  // namespace gpu_panel

#endif  // GPU_PANEL_TIME_AXIS_H
