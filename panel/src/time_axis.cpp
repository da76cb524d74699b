#include "time_axis.h"

#include <algorithm>
#include <iterator>

namespace gpu_panel {

namespace {

constexpr double kSpans[] = {10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 14400, 28800, 43200, 86400};
constexpr double kShortest = kSpans[0];
/// So much can always be shown, also while there are fewer samples.
constexpr double kLeastLongest = 120.0;
/// Zooming in this near to the present, as a share of the axis, goes on following it.
constexpr double kNearEnd = 0.1;

}  // namespace

void TimeAxis::Update(double now) {
    Now = now;
    if (bFollows) End = now;
    Oldest = OldestSoFar;
    OldestSoFar = 0.0;
    PointedBefore = Pointed;
    Pointed.reset();
}

void TimeAxis::Include(double moment) {
    OldestSoFar = OldestSoFar == 0.0 ? moment : std::min(OldestSoFar, moment);
}

double TimeAxis::Longest() const {
    return Oldest == 0.0 ? kLeastLongest : std::max(kLeastLongest, Now - Oldest);
}

void TimeAxis::SetLength(double seconds) {
    Seconds = std::clamp(seconds, kShortest, Longest());
}

void TimeAxis::EndAt(double end) {
    const double earliest = std::min(Oldest == 0.0 ? Now : Oldest + Seconds, Now);
    bFollows = end >= Now;
    End = bFollows ? Now : std::max(end, earliest);
}

void TimeAxis::Zoom(double factor, double about) {
    const bool bStaysAtEnd = bFollows && about >= End - kNearEnd * Seconds;
    const double before = Seconds;
    SetLength(Seconds * factor);
    EndAt(bStaysAtEnd ? Now : about + (End - about) * Seconds / before);
}

void TimeAxis::Step(int direction) {
    const double* const longer = std::upper_bound(std::begin(kSpans), std::end(kSpans), Seconds);
    const double* const atLeast = std::lower_bound(std::begin(kSpans), std::end(kSpans), Seconds);
    if (direction > 0) SetLength(longer == std::end(kSpans) ? Longest() : *longer);
    if (direction < 0) SetLength(atLeast == std::begin(kSpans) ? kShortest : *std::prev(atLeast));
    EndAt(bFollows ? Now : End);
}

void TimeAxis::ShowAll() {
    SetLength(Longest());
    Follow();
}

void TimeAxis::Pan(double seconds) {
    EndAt(End + seconds);
}

void TimeAxis::Follow() {
    EndAt(Now);
}

}  // namespace gpu_panel
