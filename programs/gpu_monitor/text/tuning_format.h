#ifndef GPU_MONITOR_TUNING_FORMAT_H
#define GPU_MONITOR_TUNING_FORMAT_H

#include <cstddef>
#include <string>
#include <vector>

#include "text/query_answers.h"

/// A labelled line of a paragraph about one GPU.
struct Detail {
    /// Empty in a line that goes on with the one before.
    std::string Label;
    std::string Text;
    /// Never broken into lines: it is there to be copied.
    bool bCommand = false;
};
using Details = std::vector<Detail>;

// A value that was not read shows as a dash. The first four give words for a line, without a line break.

/// A pair of clocks that runs or was asked for.
std::string ClocksText(int graphicsMHz, int memoryMHz);

/// The number of watts to the milliwatt, as short as it can be: what sets the same limit again.
std::string WattsNumber(double watts);

std::string WattsText(double watts);

/// The driver gives both ends or none.
std::string RangeText(double minimumWatts, double maximumWatts);
std::string RangeText(const GpuPowerCapabilities& capabilities);

/// The limit in force, the default and the range.
Details PowerDetails(const GpuPowerCapabilities& capabilities);

/// The GPU's title and below it `details`, in lines of `width` characters that end with a line break.
std::string Paragraph(const GpuDeviceInfo& device, const Details& details, size_t width);

/// The clocks of every GPU, a paragraph each.
std::string ClocksText(const std::vector<GpuClocks>& gpus, size_t width);

/// The power limit of every GPU, a paragraph each.
std::string PowerText(const std::vector<GpuPower>& gpus, size_t width);

#endif  // GPU_MONITOR_TUNING_FORMAT_H
