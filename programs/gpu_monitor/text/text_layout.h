#ifndef GPU_MONITOR_TEXT_LAYOUT_H
#define GPU_MONITOR_TEXT_LAYOUT_H

#include <cstddef>
#include <string>
#include <vector>

#include "nvml_gpu_monitor.h"

/// Stands for a value that was not read.
constexpr const char* kNotRead = "-";

std::string Number(double value, int decimals);

/// `text`, filled up with spaces behind it to `width`.
std::string Left(const std::string& text, int width);

/// `text`, filled up with spaces before it to `width`.
std::string Right(const std::string& text, int width);

/// `text` as a terminal may get it: without control characters, which a driver's text could have.
std::string Printable(std::string text);

/// `text`, or a dash when it is empty.
std::string OrDash(const std::string& text);

/// Breaks `text` into lines of at most `width`, between words where it can.
std::vector<std::string> Wrapped(std::string text, size_t width);

/// How a GPU is called in columns and commands: GPU 0.
std::string GpuName(const GpuDeviceInfo& device);

/// How a GPU is called in a sentence: its index first, its product name in brackets.
std::string GpuInSentence(const GpuDeviceInfo& device);

/// How a GPU is called above what is shown of it.
std::string GpuTitle(const GpuDeviceInfo& device);

#endif  // GPU_MONITOR_TEXT_LAYOUT_H
