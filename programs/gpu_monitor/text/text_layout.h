#ifndef GPU_MONITOR_TEXT_LAYOUT_H
#define GPU_MONITOR_TEXT_LAYOUT_H

#include <cstddef>
#include <string>
#include <vector>

/// `text` with spaces after it, `width` characters in all.
std::string Left(const std::string& text, int width);

/// `text` with spaces before it, `width` characters in all.
std::string Right(const std::string& text, int width);

/// Breaks `text` into lines of at most `width` characters, between words where possible. Lines after the first begin
/// with `indent` blanks, unless `width` has no room for more.
std::vector<std::string> Wrapped(std::string text, size_t width, size_t indent = 0);

#endif  // GPU_MONITOR_TEXT_LAYOUT_H
