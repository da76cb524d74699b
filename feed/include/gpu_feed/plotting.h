#ifndef GPU_FEED_PLOTTING_H
#define GPU_FEED_PLOTTING_H

#include <string>

#include "gpu_feed/energy.h"

/// \file
/// What drawings of histories need, whatever they draw with.

namespace gpu_feed {

/// The smallest of 1, 2, 2.5, 5, 10, ... and their decimal multiples and fractions that is not below `least`, which is
/// above 0.
double RoundStep(double least);

/// The shortest of the usual distances between labels of a time axis that is not below `least`; all are in seconds.
double RoundTimeStep(double least);

/// Digits after the decimal point that show multiples of `step` exactly; at most 3.
int DecimalsOf(double step);

/// Whether samples are missing in the `seconds` between two samples. The time from the earlier one back to the one
/// before it, and from the later one to the next, decide, because the interval may have changed.
bool IsGap(double seconds, double earlier, double later);

/// A duration in its largest units: 45 s, 5 min, 1 h 30 min. Empty below one second.
std::string DurationText(double seconds);

/// An amount of energy in watt hours, with the unit.
std::string WattHoursText(const EnergyCount& energy);

}  // namespace gpu_feed

#endif  // GPU_FEED_PLOTTING_H
