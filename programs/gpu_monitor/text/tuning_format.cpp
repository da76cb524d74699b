#include "text/tuning_format.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "gpu_feed/clock_groups.h"
#include "text/text_layout.h"

using namespace gpu_feed;

namespace {

constexpr size_t kGap = 2;
/// However narrow the terminal is.
constexpr size_t kMinimumTextWidth = 20;
/// Fewer evenly spaced clocks than this read better one by one.
constexpr std::ptrdiff_t kShortestRun = 4;

using ClockIterator = std::vector<int>::const_iterator;

/// Where the evenly spaced clocks end that begin at `first`.
ClockIterator EndOfRun(ClockIterator first, ClockIterator last) {
    if (last - first < 2) return last;
    auto end = first + 2;
    while (end != last && *end - *(end - 1) == *(first + 1) - *first) ++end;
    return end;
}

std::string RunText(ClockIterator first, ClockIterator end) {
    return std::to_string(*first) + " to " + std::to_string(*(end - 1)) + " in steps of " +
           std::to_string(*(first + 1) - *first);
}

/// Clocks in ascending order, shortened without loss.
std::string ClockListText(const std::vector<int>& clocks) {
    std::string text;
    for (auto first = clocks.begin(); first != clocks.end();) {
        auto end = EndOfRun(first, clocks.end());
        const bool bRun = end - first >= kShortestRun;
        if (!bRun) end = first + 1;
        text += (text.empty() ? "" : ", ") + (bRun ? RunText(first, end) : std::to_string(*first));
        first = end;
    }
    return clocks.size() == 1 ? text : text + " (" + std::to_string(clocks.size()) + " clocks)";
}

std::string MegahertzText(int megahertz) {
    return megahertz < 0 ? kNotRead : std::to_string(megahertz) + " MHz";
}

Details ClockDetails(const GpuClockCapabilities& capabilities) {
    const std::string heading = "Memory MHz";
    const int width = static_cast<int>(heading.size());
    Details details = {
        // As wide as the heading also without it, so that the paragraphs line up.
        {Left("Running", width), ClocksText(capabilities.CurrentGraphicsClockMHz, capabilities.CurrentMemoryClockMHz)},
        {"Locking", capabilities.CanControl ? "possible; may need root" : "impossible: " + capabilities.Status},
    };
    if (capabilities.CanControl) details.push_back({heading, "Graphics MHz"});
    for (const auto& [memoryClock, graphicsClocks] : GroupByMemoryClock(capabilities.SupportedPairs)) {
        details.push_back({Right(std::to_string(memoryClock), width), ClockListText(graphicsClocks)});
    }
    return details;
}

size_t LabelWidth(const Details& details) {
    size_t width = 0;
    for (const Detail& detail : details) width = std::max(width, detail.Label.size());
    return width + kGap;
}

/// A paragraph for each of `gpus`; `details` makes what stands in it from an answer.
template <typename Answer, typename Capabilities>
std::string Paragraphs(const std::vector<Answer>& gpus, Details (*details)(const Capabilities&), size_t width) {
    std::string text;
    for (const Answer& gpu : gpus) {
        text += (text.empty() ? "" : "\n") + Paragraph(gpu.Device, details(gpu.Capabilities), width);
    }
    return text;
}

Details PowerQueryDetails(const GpuPowerCapabilities& capabilities) {
    Details details = PowerDetails(capabilities);
    details.push_back({"Status", capabilities.Status});
    return details;
}

}  // namespace

std::string ClocksText(int graphicsMHz, int memoryMHz) {
    if (graphicsMHz < 0 && memoryMHz < 0) return kNotRead;
    return MegahertzText(graphicsMHz) + " graphics, " + MegahertzText(memoryMHz) + " memory";
}

std::string WattsNumber(double watts) {
    std::string text = Number(watts, 3);
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') text.pop_back();
    return text;
}

std::string WattsText(double watts) {
    return watts < 0.0 ? kNotRead : WattsNumber(watts) + " W";
}

std::string RangeText(double minimumWatts, double maximumWatts) {
    return minimumWatts < 0.0 ? kNotRead : WattsNumber(minimumWatts) + " to " + WattsText(maximumWatts);
}

std::string RangeText(const GpuPowerCapabilities& capabilities) {
    return RangeText(capabilities.MinimumWatts, capabilities.MaximumWatts);
}

Details PowerDetails(const GpuPowerCapabilities& capabilities) {
    return {{"In force", WattsText(capabilities.CurrentWatts)},
            {"Default", WattsText(capabilities.DefaultWatts)},
            {"Range", RangeText(capabilities)}};
}

std::string Paragraph(const GpuDeviceInfo& device, const Details& details, size_t width) {
    const size_t labelWidth = LabelWidth(details);
    const size_t textWidth = std::max(width, labelWidth + kMinimumTextWidth) - labelWidth;
    std::string text = GpuTitle(device) + '\n';
    for (const Detail& detail : details) {
        std::string label = detail.Label;
        for (const std::string& line : Wrapped(detail.Text, detail.bCommand ? std::string::npos : textWidth)) {
            text += Left(label, static_cast<int>(labelWidth)) + line + '\n';
            label.clear();
        }
    }
    return text;
}

std::string ClocksText(const std::vector<GpuClocks>& gpus, size_t width) {
    return Paragraphs(gpus, ClockDetails, width);
}

std::string PowerText(const std::vector<GpuPower>& gpus, size_t width) {
    return Paragraphs(gpus, PowerQueryDetails, width);
}
