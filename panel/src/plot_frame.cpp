#include "plot_frame.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <string>

#include "gpu_feed/plotting.h"

using namespace gpu_feed;

namespace gpu_panel {

namespace {

/// Narrower plots have their labels inside.
constexpr float kLeastFontsWithGutter = 22.0F;
constexpr float kGutterFonts = 3.2F;
/// The pointer finds a sample beside a gap at this distance in pixels.
constexpr double kPointerReach = 4.0;

size_t FirstSampleFrom(const SampleHistory& samples, double moment) {
    const auto isEarlier = [](const GpuTelemetrySample& sample, double time) { return sample.TimestampSeconds < time; };
    return static_cast<size_t>(std::lower_bound(samples.begin(), samples.end(), moment, isEarlier) - samples.begin());
}

double TimeBefore(const SampleHistory& samples, size_t i) {
    return samples[i].TimestampSeconds - samples[i - 1].TimestampSeconds;
}

/// Whether samples are missing before sample `i`, which is not the first.
bool IsBehindGap(const SampleHistory& samples, size_t i, double interval) {
    const double earlier = i >= 2 ? TimeBefore(samples, i - 1) : interval;
    const double later = i + 1 < samples.size() ? TimeBefore(samples, i + 1) : interval;
    return IsGap(TimeBefore(samples, i), earlier, later);
}

}  // namespace

PlotFrame::PlotFrame(const FeedGpu& gpu, const FeedMoment& moment, TimeAxis* axis, float width)
    : Gpu(gpu),
      Moment(moment),
      Axis(axis),
      Interval(std::max(gpu.PeriodSeconds, std::chrono::duration<double>(moment.Data->Interval).count())),
      Font(ImGui::GetFontSize()),
      Width(width),
      Gutter(width >= kLeastFontsWithGutter * Font ? std::floor(kGutterFonts * Font) : 0.0F),
      FieldWidth(std::max(std::floor(width - Gutter), 1.0F)),
      ColumnSeconds(axis->Length() / static_cast<double>(FieldWidth)),
      LastColumn(static_cast<int64_t>(std::floor(axis->To() / ColumnSeconds))) {}

float PlotFrame::XOf(double moment, float left) const {
    return left + FieldWidth + static_cast<float>(moment / ColumnSeconds - static_cast<double>(LastColumn + 1));
}

double PlotFrame::MomentAt(float x, float left) const {
    return (static_cast<double>(LastColumn + 1) - static_cast<double>(left + FieldWidth - x)) * ColumnSeconds;
}

void PlotFrame::ChooseSample() {
    const std::optional<double> pointer = Axis->Hovered();
    bHovered = pointer.has_value();
    if (!bHovered) {
        const GpuState state = StateOf(Moment, Gpu);
        const bool bCurrent = state == GpuState::Live || state == GpuState::Paused;
        Shown = bCurrent && !Gpu.Samples.empty() ? &Gpu.Samples.back() : nullptr;
        return;
    }
    Shown = SampleAt(*pointer);
    const double moment = Shown != nullptr ? Shown->TimestampSeconds : *pointer;
    const double age = Moment.Now - moment;
    if (age >= 1.0) {
        std::snprintf(Ago.data(), Ago.size(), "%s ago", ShortDuration(age).c_str());
    } else {
        std::snprintf(Ago.data(), Ago.size(), "now");
    }
    std::snprintf(When.data(), When.size(), "%s, %s", Ago.data(), TimeOfDay(moment, true).data());
}

const GpuTelemetrySample* PlotFrame::SampleAt(double moment) const {
    const SampleHistory& samples = Gpu.Samples;
    if (samples.empty()) return nullptr;
    const size_t next = FirstSampleFrom(samples, moment);
    const bool bAfterAll = next == samples.size();
    const bool bNearer = !bAfterAll && (next == 0 || samples[next].TimestampSeconds - moment <
                                                         moment - samples[next - 1].TimestampSeconds);
    const GpuTelemetrySample& nearest = samples[bNearer ? next : next - 1];
    const bool bBetween = next > 0 && !bAfterAll && !IsBehindGap(samples, next, Interval);
    const bool bFollows = bAfterAll && !IsGap(moment - nearest.TimestampSeconds, Interval, Interval);
    const bool bInReach = std::fabs(moment - nearest.TimestampSeconds) <= kPointerReach * ColumnSeconds;
    return bBetween || bFollows || bInReach ? &nearest : nullptr;
}

EnergyCount PlotFrame::Energy() const {
    const SampleHistory& samples = Gpu.Samples;
    const size_t first = FirstSampleFrom(samples, Axis->From());
    const size_t end = FirstSampleFrom(samples, Axis->To());
    if (end <= first) return {};
    const EnergyCount& before = samples.EnergyAt(first);
    const EnergyCount& last = samples.EnergyAt(end - 1);
    return {last.Joules - before.Joules, last.Seconds - before.Seconds};
}

std::array<char, 16> PlotFrame::TimeOfDay(double moment, bool bWithSeconds) const {
    // Rounded, because whole seconds are not exact on the steady clock.
    constexpr double kHalfSecond = 0.5;
    const auto sinceThen = std::chrono::duration_cast<std::chrono::system_clock::duration>(
        std::chrono::duration<double>(Moment.Now - moment - kHalfSecond));
    const std::time_t time = std::chrono::system_clock::to_time_t(Moment.TimeOfDay - sinceThen);
    std::tm parts{};
    localtime_r(&time, &parts);
    std::array<char, 16> text{};
    std::strftime(text.data(), text.size(), bWithSeconds ? "%H:%M:%S" : "%H:%M", &parts);
    return text;
}

std::string ShortDuration(double seconds) {
    constexpr double kHour = 3600.0;
    constexpr double kMinute = 60.0;
    return DurationText(seconds < kHour ? seconds : std::floor(seconds / kMinute) * kMinute);
}

}  // namespace gpu_panel
