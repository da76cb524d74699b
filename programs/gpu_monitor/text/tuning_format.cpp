#include "text/tuning_format.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "gpu_feed/clock_groups.h"
#include "gpu_feed/reading_text.h"
#include "gpu_feed/tuning_text.h"
#include "text/text_layout.h"

using namespace gpu_feed;

namespace {

constexpr size_t kGap = 2;
/// Texts are not made narrower than this, even if the terminal is.
constexpr size_t kMinimumTextWidth = 20;
/// Fewer evenly spaced clocks than this are listed one by one.
constexpr std::ptrdiff_t kShortestRun = 4;

using ClockIterator = std::vector<int>::const_iterator;

/// The end of the evenly spaced clocks that begin at `first`.
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

Details ClockDetails(const GpuClockCapabilities& capabilities) {
    const std::string heading = "Memory MHz";
    const int width = static_cast<int>(heading.size());
    Details details = {
        // As wide as the heading even where that is missing, so that the paragraphs of all GPUs line up.
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

/// A paragraph for each GPU; `details` returns its lines.
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

std::string ClockQueryText(const std::vector<GpuClocks>& gpus, size_t width) {
    return Paragraphs(gpus, ClockDetails, width);
}

std::string PowerQueryText(const std::vector<GpuPower>& gpus, size_t width) {
    return Paragraphs(gpus, PowerQueryDetails, width);
}
