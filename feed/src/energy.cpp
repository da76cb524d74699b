#include "gpu_feed/energy.h"

#include <optional>

#include "gpu_feed/readings.h"

namespace gpu_feed {

namespace {

constexpr double kLongestGapPeriods = 3.0;

}  // namespace

EnergyCount CountEnergy(const EnergyCount& count, const GpuTelemetrySample& before, const GpuTelemetrySample& sample,
                        double periodSeconds) {
    const std::optional<double> from = ReadingValue(ReadingId::Power, before);
    const std::optional<double> to = ReadingValue(ReadingId::Power, sample);
    const double seconds = sample.TimestampSeconds - before.TimestampSeconds;
    if (!from || !to || seconds > kLongestGapPeriods * periodSeconds) return count;
    return {count.Joules + seconds * (*from + *to) / 2.0, count.Seconds + seconds};
}

}  // namespace gpu_feed
