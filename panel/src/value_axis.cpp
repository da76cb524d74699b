#include "value_axis.h"

#include <cmath>

#include "gpu_feed/plotting.h"

namespace gpu_panel {

namespace {

constexpr double kSpaces = 3.0;
/// What is shown must fit with this to spare before the axis shrinks.
constexpr double kReserve = 1.1;

double StepFor(double highest) {
    return gpu_feed::RoundStep(highest / kSpaces);
}

}  // namespace

double ValueAxis::TopFor(double highest) {
    return std::ceil(highest / StepFor(highest) - kTolerance) * StepFor(highest);
}

void ValueAxis::Reach(double highest) {
    if (highest <= Highest && TopFor(highest * kReserve) >= Highest) return;
    Highest = TopFor(highest);
    Distance = StepFor(highest);
}

void ValueAxis::EndAt(double top) {
    Highest = top;
    Distance = StepFor(top);
}

}  // namespace gpu_panel
