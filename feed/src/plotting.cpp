#include "gpu_feed/plotting.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <utility>

#include "gpu_feed/reading_text.h"

namespace gpu_feed {

namespace {

constexpr double kGapFactor = 2.5;

}  // namespace

double RoundStep(double least) {
    const double power = std::pow(10.0, std::floor(std::log10(least)));
    for (const double factor : {1.0, 2.0, 2.5, 5.0}) {
        if (factor * power >= least) return factor * power;
    }
    return 10.0 * power;
}

double RoundTimeStep(double least) {
    constexpr double kSteps[] = {1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 10800, 21600, 43200};
    constexpr double kDay = 86400.0;
    const auto* const step = std::lower_bound(std::begin(kSteps), std::end(kSteps), least);
    return step != std::end(kSteps) ? *step : kDay * RoundStep(least / kDay);
}

int DecimalsOf(double step) {
    int decimals = 0;
    while (decimals < 3 && std::fabs(step - std::round(step)) > 1e-6) {
        step *= 10.0;
        ++decimals;
    }
    return decimals;
}

bool IsGap(double seconds, double earlier, double later) {
    return seconds > kGapFactor * std::max(earlier, later);
}

std::string DurationText(double seconds) {
    constexpr int64_t kMinute = 60;
    constexpr int64_t kHour = 60 * kMinute;
    constexpr int64_t kDay = 24 * kHour;
    const auto whole = static_cast<int64_t>(seconds);
    const std::pair<int64_t, const char*> parts[] = {
        {whole / kDay, " d"}, {whole % kDay / kHour, " h"}, {whole % kHour / kMinute, " min"}, {whole % kMinute, " s"}};
    std::string text;
    for (const auto& [count, unit] : parts) {
        if (count > 0) text += (text.empty() ? "" : " ") + std::to_string(count) + unit;
    }
    return text;
}

std::string WattHoursText(const EnergyCount& energy) {
    const double wattHours = energy.Joules / 3600.0;
    return Number(wattHours, wattHours < 10.0 ? 2 : 0) + " Wh";
}

}  // namespace gpu_feed
