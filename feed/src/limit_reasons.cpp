#include "gpu_feed/limit_reasons.h"

#include <sstream>

namespace gpu_feed {

namespace {

std::string Hexadecimal(uint64_t value) {
    std::ostringstream text;
    text << "0x" << std::hex << value;
    return text.str();
}

}  // namespace

const std::vector<NamedLimitReason>& NamedLimitReasons() {
    static const std::vector<NamedLimitReason> kReasons = {
        {kIdleReason, {"idle", true}},
        {kApplicationClocksReason, {"application clocks"}},
        {kPowerCapReason, {"power cap"}},
        {kHardwareSlowdownReason, {"hardware slowdown", false, true}},
        {kSyncBoostReason, {"sync boost"}},
        {kDriverThermalReason, {"thermal", false, true}},
        {kHardwareThermalReason, {"hardware thermal", false, true}},
        {kPowerBrakeReason, {"power brake", false, true}},
        {kDisplayClocksReason, {"display clocks"}},
    };
    return kReasons;
}

std::vector<LimitReason> LimitReasons(uint64_t mask) {
    std::vector<LimitReason> reasons;
    uint64_t unnamed = mask;
    for (const auto& [bit, reason] : NamedLimitReasons()) {
        if ((mask & bit) != 0) reasons.push_back(reason);
        unnamed &= ~bit;
    }
    if (unnamed != 0) reasons.push_back({Hexadecimal(unnamed)});
    return reasons;
}

}  // namespace gpu_feed
