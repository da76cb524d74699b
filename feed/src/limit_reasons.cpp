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
        {0x1, {"idle", true}},
        {0x2, {"application clocks"}},
        {0x4, {"power cap"}},
        {0x8, {"hardware slowdown", false, true}},
        {0x10, {"sync boost"}},
        {0x20, {"thermal", false, true}},
        {0x40, {"hardware thermal", false, true}},
        {0x80, {"power brake", false, true}},
        {0x100, {"display clocks"}},
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
