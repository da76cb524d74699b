#include "gpu_feed/limit_reasons.h"

#include <sstream>

namespace gpu_feed {

namespace {

struct NamedBit {
    uint64_t Bit;
    const char* Word;
    bool bDanger = false;
};

constexpr uint64_t kIdleBit = 0x1;
constexpr NamedBit kNamedBits[] = {
    {kIdleBit, "idle"},
    {0x2, "application clocks"},
    {0x4, "power cap"},
    {0x8, "hardware slowdown", true},
    {0x10, "sync boost"},
    {0x20, "thermal", true},
    {0x40, "hardware thermal", true},
    {0x80, "power brake", true},
    {0x100, "display clocks"},
};

std::string Hexadecimal(uint64_t value) {
    std::ostringstream text;
    text << "0x" << std::hex << value;
    return text.str();
}

}  // namespace

std::vector<LimitReason> LimitReasons(uint64_t mask) {
    std::vector<LimitReason> reasons;
    uint64_t unnamed = mask;
    for (const auto& [bit, word, bDanger] : kNamedBits) {
        if ((mask & bit) != 0) reasons.push_back({word, bit == kIdleBit, bDanger});
        unnamed &= ~bit;
    }
    if (unnamed != 0) reasons.push_back({Hexadecimal(unnamed)});
    return reasons;
}

}  // namespace gpu_feed
