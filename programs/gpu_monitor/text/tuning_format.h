#ifndef GPU_MONITOR_TUNING_FORMAT_H
#define GPU_MONITOR_TUNING_FORMAT_H

#include <cstddef>
#include <string>
#include <vector>

#include "text/query_answers.h"

/// A labelled line of a paragraph about one GPU.
struct Detail {
    /// Empty when the line continues the one before.
    std::string Label;
    std::string Text;
    /// Whether this is a command for the user to copy, which is never broken into lines.
    bool bCommand = false;
};
using Details = std::vector<Detail>;

/// The limit in force, the default and the range.
Details PowerDetails(const GpuPowerCapabilities& capabilities);

/// The GPU's title and below it `details`, in lines of at most `width` characters that end with a line break.
std::string Paragraph(const GpuDeviceInfo& device, const Details& details, size_t width);

/// A paragraph for each GPU with its clocks.
std::string ClockQueryText(const std::vector<GpuClocks>& gpus, size_t width);

/// A paragraph for each GPU with its power limit.
std::string PowerQueryText(const std::vector<GpuPower>& gpus, size_t width);

#endif  // GPU_MONITOR_TUNING_FORMAT_H
