#ifndef GPU_PANEL_VALUE_AXIS_H
#define GPU_PANEL_VALUE_AXIS_H

namespace gpu_panel {

/// The vertical axis of a plot: from 0 to a round value. It grows at once with what is shown, and shrinks only when
/// that leaves some room, so that it does not change to and fro.
class ValueAxis {
public:
    /// `highest`: of what is shown; above 0.
    void Reach(double highest);
    /// As `Reach`, with exactly this value at the top.
    void EndAt(double top);

    double Top() const { return Highest; }
    /// From one line with a label to the next, and how many of them are above 0: at most three.
    double Step() const { return Distance; }
    int Steps() const { return static_cast<int>(Highest / Distance + kTolerance); }

private:
    static constexpr double kTolerance = 1e-6;

    static double TopFor(double highest);

    double Highest = 0.0;
    double Distance = 1.0;
};

}  // namespace gpu_panel

#endif  // GPU_PANEL_VALUE_AXIS_H
