#include "text/text_layout.h"

#include <iomanip>
#include <sstream>

std::string Number(double value, int decimals) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(decimals) << value;
    return text.str();
}

std::string Left(const std::string& text, int width) {
    std::ostringstream padded;
    padded << std::left << std::setw(width) << text;
    return padded.str();
}

std::string Right(const std::string& text, int width) {
    std::ostringstream padded;
    padded << std::setw(width) << text;
    return padded.str();
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

std::vector<std::string> Wrapped(std::string text, size_t width) {
    std::vector<std::string> lines;
    while (text.size() > width) {
        const size_t space = text.rfind(' ', width);
        const bool bBetweenWords = space != std::string::npos && space > 0;
        lines.push_back(text.substr(0, bBetweenWords ? space : width));
        text.erase(0, bBetweenWords ? space + 1 : width);
    }
    lines.push_back(text);
    return lines;
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
