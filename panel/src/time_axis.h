#ifndef GPU_PANEL_TIME_AXIS_H
#define GPU_PANEL_TIME_AXIS_H

#include <optional>

namespace gpu_panel {

/// The time that all plots of a panel show: it follows the present, or stays where the user has moved it. All moments
/// are seconds of the steady clock.
class TimeAxis {
public:
    /// To be called once per frame before anything is drawn: an axis that follows ends at `now`.
    void Update(double now);

    /// The ends of what is shown.
    double From() const { return To() - Seconds; }
    double To() const { return End; }
    double Length() const { return Seconds; }
    bool IsFollowing() const { return bFollows; }

    /// Says that there is a sample of this moment. With the oldest ones of all GPUs, the axis knows how far it can go.
    void Include(double moment);

    /// Shows `factor` times as much; `about` stays where it is. An axis that follows goes on with it when `about` is
    /// near its end.
    void Zoom(double factor, double about);
    /// Shows the next longer (`direction` 1) or shorter (-1) of the usual spans.
    void Step(int direction);
    /// Shows everything that there is, up to the present.
    void ShowAll();
    /// Moves what is shown by `seconds`, back in time when they are negative. At the present it follows again.
    void Pan(double seconds);
    /// Ends at the present from now on.
    void Follow();

    /// Says that the pointer is at this moment, in this frame.
    void Hover(double moment) { Pointed = moment; }
    /// The moment at which the pointer is, in this frame or the one before: plots above the pointer are drawn earlier.
    std::optional<double> Hovered() const { return Pointed ? Pointed : PointedBefore; }

private:
    double Longest() const;
    void SetLength(double seconds);
    void EndAt(double end);

    double Seconds = 120.0;
    double Now = 0.0;
    double End = 0.0;
    bool bFollows = true;
    /// Of the frame before, and found so far in this one; 0: no sample.
    double Oldest = 0.0;
    double OldestSoFar = 0.0;
    std::optional<double> Pointed;
    std::optional<double> PointedBefore;
};

}  // namespace gpu_panel

#endif  // GPU_PANEL_TIME_AXIS_H
