#ifndef GPU_MONITOR_TEXT_LAYOUT_H
#define GPU_MONITOR_TEXT_LAYOUT_H

#include <cstddef>
#include <string>
#include <vector>

#include "nvml_gpu_monitor.h"

/// Shown for a value that was not read.
constexpr const char* kNotRead = "-";

std::string Number(double value, int decimals);

/// `text` with spaces after it, `width` characters in all.
std::string Left(const std::string& text, int width);

/// `text` with spaces before it, `width` characters in all.
std::string Right(const std::string& text, int width);

/// `text` with a question mark for each control character. A text of the driver could hold some, and a terminal would
/// obey them.
std::string Printable(std::string text);

/// `text`, or a dash when it is empty.
std::string OrDash(const std::string& text);

/// Breaks `text` into lines of at most `width` characters, between words where possible. Lines after the first begin
/// with `indent` blanks, unless `width` has no room for more.
std::vector<std::string> Wrapped(std::string text, size_t width, size_t indent = 0);

/// For how long the driver has been asked without an answer, as a sentence.
std::string DriverSilenceText(double seconds);

/// The name of a GPU in headings of columns: "GPU 0".
std::string GpuName(const GpuDeviceInfo& device);

/// The name of a GPU in a sentence: "GPU 0 (product name)".
std::string GpuInSentence(const GpuDeviceInfo& device);

/// The name of a GPU above a paragraph or a view: "GPU 0: product name".
std::string GpuTitle(const GpuDeviceInfo& device);

#endif  // GPU_MONITOR_TEXT_LAYOUT_H
