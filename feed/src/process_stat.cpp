#include "process_stat.h"

#include <unistd.h>

#include <array>
#include <fstream>
#include <iterator>
#include <sstream>

namespace gpu_feed {

namespace {

// The numbers of /proc/PID/stat behind name and state, counted from 0.
constexpr size_t kUserTicks = 10;
constexpr size_t kSystemTicks = 11;
constexpr size_t kStartTicks = 18;
constexpr size_t kResidentPages = 20;

}  // namespace

std::optional<ProcessStat> ReadProcessStat(int pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    const std::string text(std::istreambuf_iterator<char>(file), {});
    // The name is in parentheses and can contain some itself.
    const size_t open = text.find('(');
    const size_t close = text.rfind(')');
    if (close == std::string::npos || open >= close) return std::nullopt;
    std::istringstream rest(text.substr(close + 1));
    std::string state;
    std::array<int64_t, kResidentPages + 1> fields{};
    rest >> state;
    for (int64_t& field : fields) rest >> field;
    if (!rest) return std::nullopt;
    const auto ticks = static_cast<double>(fields[kUserTicks] + fields[kSystemTicks]);
    return ProcessStat{text.substr(open + 1, close - open - 1), state == "Z" || state == "X",
                       static_cast<uint64_t>(fields[kStartTicks]), ticks / static_cast<double>(sysconf(_SC_CLK_TCK)),
                       static_cast<uint64_t>(fields[kResidentPages] * sysconf(_SC_PAGESIZE))};
}

}  // namespace gpu_feed
