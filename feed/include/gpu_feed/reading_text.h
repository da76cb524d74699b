#ifndef GPU_FEED_READING_TEXT_H
#define GPU_FEED_READING_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "gpu_feed/limit_reasons.h"
#include "gpu_feed/readings.h"
#include "nvml_gpu_monitor.h"

/// \file
/// Readings and names of GPUs in words. These texts have no line break.

namespace gpu_feed {

/// Shown for a value that was not read.
constexpr const char* kNotRead = "-";

/// Any locale gets a decimal point.
std::string Number(double value, int decimals);

/// `text` with a question mark for each control character. A text of the driver could hold some, and a terminal would
/// obey them.
std::string Printable(std::string text);

/// `text`, or a dash when it is empty.
std::string OrDash(const std::string& text);

/// For how long the driver has been asked without an answer, as a sentence.
std::string DriverSilenceText(double seconds);

// ---- GPUs ----

/// The name of a GPU in headings of columns: "GPU 0".
std::string GpuName(const GpuDeviceInfo& device);

/// The name of a GPU in a sentence: "GPU 0 (product name)".
std::string GpuInSentence(const GpuDeviceInfo& device);

/// The name of a GPU above a paragraph or a view: "GPU 0: product name".
std::string GpuTitle(const GpuDeviceInfo& device);

/// A product name in at most `columns` characters: first without the maker, then without the family ("RTX 3070
/// Laptop"). The shortest of these where none of them fits.
std::string ShortName(const std::string& name, int columns);

/// As `GpuTitle`, with its name shortened so that the title has at most `columns` characters if possible.
std::string ShortGpuTitle(const GpuDeviceInfo& device, int columns);

// ---- Readings; a value that was not read shows as a dash ----

/// A reading as a number.
std::string ReadingNumber(ReadingId id, const GpuTelemetrySample& sample);

/// A unit as the locale can show it: `bUnicode` gives temperatures the degree sign.
std::string UnitText(const std::string& unit, bool bUnicode);

/// A reading as a number with its unit.
std::string ReadingText(ReadingId id, const GpuTelemetrySample& sample, bool bUnicode = false);

/// An amount of video memory, shown as the reading is.
std::string MemoryText(uint64_t bytes);

/// The reasons that NVML gives for the clocks that run.
std::string LimitText(const GpuTelemetrySample& sample);

/// As many of these reasons as fit into `width`, at least one, and then the number of the others.
std::string ShortLimitText(const GpuTelemetrySample& sample, size_t width);

/// What limits the clocks, with dangers first. Where nothing does, or the driver gives no reason, one entry says so and
/// is `bIdle`.
std::vector<LimitReason> ShownLimits(const GpuTelemetrySample& sample);

}  // namespace gpu_feed

#endif  // GPU_FEED_READING_TEXT_H
