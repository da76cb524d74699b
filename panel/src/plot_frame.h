#ifndef GPU_PANEL_PLOT_FRAME_H
#define GPU_PANEL_PLOT_FRAME_H

#include <array>
#include <cstdint>
#include <string>

#include "gpu_feed/feed_data.h"
#include "imgui.h"
#include "time_axis.h"

namespace gpu_panel {

/// What all plots of a GPU draw from in one frame.
class PlotFrame {
public:
    /// All three must outlive it. `width`: what all plots have, labels included.
    PlotFrame(const gpu_feed::FeedGpu& gpu, const gpu_feed::FeedMoment& moment, TimeAxis* axis, float width);

    const gpu_feed::FeedGpu& Gpu;
    const gpu_feed::FeedMoment& Moment;
    TimeAxis* const Axis;
    /// Seconds between two samples now.
    const double Interval;

    // ---- Sizes in pixels ----

    const float Font;
    const float Width;
    /// The place of labels beside the fields; 0 where there is no room for them.
    const float Gutter;
    /// The fields have whole columns.
    const float FieldWidth;
    float FieldHeight() const { return 5.0F * Font; }
    float BandHeight() const { return 0.75F * Font; }
    float HeadingHeight() const { return 1.25F * Font; }
    /// Between plots.
    float Space() const { return 0.6F * Font; }
    /// Of curves and of what marks a moment.
    float LineThickness() const { return Font < 20.0F ? 1.0F : 2.0F; }

    // ---- Times ----

    /// A column of pixels is so long, and this is the last one, counted from the clock's epoch.
    const double ColumnSeconds;
    const int64_t LastColumn;
    int64_t FirstColumn() const { return LastColumn - static_cast<int64_t>(FieldWidth) + 1; }
    /// The middle of a column in a field that begins at `left`. Whole columns scroll, so that curves keep their shape.
    float XOf(int64_t column, float left) const {
        return left + FieldWidth - 0.5F - static_cast<float>(LastColumn - column);
    }
    float XOf(double moment, float left) const;
    double MomentAt(float x, float left) const;
    /// Whether the axis ends now: it follows the present, and sampling is not paused.
    bool EndsNow() const { return Axis->To() >= Moment.Now; }

    // ---- What headings say ----

    /// Finds the sample that headings show: that at the pointer, or else the latest one.
    void ChooseSample();
    /// Null where there is no sample, or only an old one that is not to be shown as current.
    const GpuTelemetrySample* Shown = nullptr;
    /// Whether that is the sample at the pointer.
    bool bHovered = false;
    /// When the pointer's sample was taken, with and without the time of day; empty when there is no pointer.
    std::array<char, 64> When{};
    std::array<char, 32> Ago{};
    /// What was used over the time shown.
    gpu_feed::EnergyCount Energy() const;
    /// `moment` as a time of day: hours, minutes and seconds, or without the seconds.
    std::array<char, 16> TimeOfDay(double moment, bool bWithSeconds) const;

private:
    const GpuTelemetrySample* SampleAt(double moment) const;
};

/// A duration without the seconds of long ones.
std::string ShortDuration(double seconds);

}  // namespace gpu_panel

#endif  // GPU_PANEL_PLOT_FRAME_H
