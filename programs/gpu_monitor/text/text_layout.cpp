#include "text/text_layout.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>

namespace {

/// The spaces that bring `text` to `width` characters.
std::string Padding(const std::string& text, int width) {
    const int count = std::max(width - static_cast<int>(text.size()), 0);
    return std::string().append(static_cast<size_t>(count), ' ');
}

}  // namespace

std::string Number(double value, int decimals) {
    // The largest number, its sign and point, and more decimals than anything here has.
    std::array<char, std::numeric_limits<double>::max_exponent10 + 32> text{};
    char* const begin = text.data();
    return {begin, std::to_chars(begin, begin + text.size(), value, std::chars_format::fixed, decimals).ptr};
}

std::string Left(const std::string& text, int width) {
    return text + Padding(text, width);
}

std::string Right(const std::string& text, int width) {
    return Padding(text, width) + text;
}

std::string Printable(std::string text) {
    constexpr unsigned char kDelete = 0x7F;
    for (char& character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < ' ' || byte == kDelete) character = '?';
    }
    return text;
}

std::string OrDash(const std::string& text) {
    return text.empty() ? kNotRead : text;
}

std::vector<std::string> Wrapped(std::string text, size_t width, size_t indent) {
    std::vector<std::string> lines;
    if (indent >= width) indent = 0;
    while (text.size() > width) {
        const size_t space = text.rfind(' ', width);
        const bool bBetweenWords = space != std::string::npos && space > indent;
        lines.push_back(text.substr(0, bBetweenWords ? space : width));
        text.replace(0, bBetweenWords ? space + 1 : width, indent, ' ');
    }
    lines.push_back(text);
    return lines;
}

std::string DriverSilenceText(double seconds) {
    return "The driver has not answered for " + Number(seconds, 0) + " s.";
}

std::string GpuName(const GpuDeviceInfo& device) {
    return "GPU " + std::to_string(device.Index);
}

std::string GpuInSentence(const GpuDeviceInfo& device) {
    return GpuName(device) + " (" + Printable(device.Name) + ')';
}

std::string GpuTitle(const GpuDeviceInfo& device) {
    return GpuName(device) + ": " + Printable(device.Name);
}
