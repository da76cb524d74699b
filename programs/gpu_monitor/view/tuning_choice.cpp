#include "view/tuning_choice.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include "gpu_feed/tuning_text.h"
#include "view/keys.h"

using namespace gpu_feed;

namespace {

constexpr std::ptrdiff_t kLongStep = 10;
constexpr size_t kMaxTyped = 10;

/// `place` moved by `steps`, but not beyond the ends of `count` entries.
size_t Moved(size_t place, std::ptrdiff_t steps, size_t count) {
    const auto last = static_cast<std::ptrdiff_t>(count) - 1;
    return static_cast<size_t>(std::clamp<std::ptrdiff_t>(static_cast<std::ptrdiff_t>(place) + steps, 0, last));
}

/// How far a key moves in a list, upwards being more; 0 for other keys.
std::ptrdiff_t StepOf(int key) {
    constexpr auto kFar = std::ptrdiff_t{1} << 20;
    switch (key) {
        case UpKey: return 1;
        case DownKey: return -1;
        case PageUpKey: return kLongStep;
        case PageDownKey: return -kLongStep;
        case HomeKey: return -kFar;
        case EndKey: return kFar;
        default: return 0;
    }
}

const ClockGroups::value_type& GroupAt(const ClockGroups& groups, size_t place) {
    return *std::next(groups.begin(), static_cast<std::ptrdiff_t>(place));
}

}  // namespace

ClockChoice::ClockChoice(const GpuClockCapabilities& capabilities)
    : Groups(GroupByMemoryClock(capabilities.SupportedPairs)) {
    const auto running = Groups.find(capabilities.CurrentMemoryClockMHz);
    if (running != Groups.end()) MemoryPlace = static_cast<size_t>(std::distance(Groups.begin(), running));
    GraphicsPlace = NearestPlace(GraphicsClocks(), capabilities.CurrentGraphicsClockMHz);
}

const std::vector<int>& ClockChoice::GraphicsClocks() const {
    return GroupAt(Groups, MemoryPlace).second;
}

GpuClockPair ClockChoice::Pair() const {
    return {GraphicsClocks()[GraphicsPlace], GroupAt(Groups, MemoryPlace).first};
}

void ClockChoice::OnKey(int key) {
    const int graphics = Pair().GraphicsClockMHz;
    // The highest memory clock comes first, and the right arrow leads to it.
    if (key == LeftKey) MemoryPlace = Moved(MemoryPlace, 1, Groups.size());
    if (key == RightKey) MemoryPlace = Moved(MemoryPlace, -1, Groups.size());
    const std::vector<int>& clocks = GraphicsClocks();
    // The highest graphics clock is at the top of its list.
    const int listKey = key == HomeKey ? EndKey : key == EndKey ? HomeKey : key;
    GraphicsPlace = Moved(NearestPlace(clocks, graphics), StepOf(listKey), clocks.size());
}

PowerChoice::PowerChoice(const GpuPowerCapabilities& capabilities)
    : Lowest(capabilities.MinimumWatts),
      Highest(capabilities.MaximumWatts),
      Stepped(std::clamp(capabilities.CurrentWatts, Lowest, Highest)) {}

double PowerChoice::Watts() const {
    return Typed.empty() ? Stepped : std::strtod(Typed.c_str(), nullptr);
}

std::string PowerChoice::Text() const {
    return Typed.empty() ? WattsNumber(Stepped) : Typed + '_';
}

void PowerChoice::OnKey(int key) {
    const bool bPoint = key == '.' && Typed.find('.') == std::string::npos;
    const bool bTyped = (key >= '0' && key <= '9') || bPoint;
    if (bTyped && Typed.size() < kMaxTyped) Typed += static_cast<char>(key);
    if (key == BackspaceKey && !Typed.empty()) Typed.pop_back();
    const int upOrDown = key == RightKey ? UpKey : key == LeftKey ? DownKey : key;
    if (const std::ptrdiff_t step = StepOf(upOrDown); step != 0) {
        const double whole = step > 0 ? std::floor(Watts()) : std::ceil(Watts());
        Stepped = std::clamp(whole + static_cast<double>(step), Lowest, Highest);
        Typed.clear();
    }
}
