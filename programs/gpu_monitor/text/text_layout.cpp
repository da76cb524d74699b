#include "text/text_layout.h"

#include <algorithm>

namespace {

/// The spaces that bring `text` to `width` characters.
std::string Padding(const std::string& text, int width) {
    const int count = std::max(width - static_cast<int>(text.size()), 0);
    return std::string().append(static_cast<size_t>(count), ' ');
}

}  // namespace

std::string Left(const std::string& text, int width) {
    return text + Padding(text, width);
}

std::string Right(const std::string& text, int width) {
    return Padding(text, width) + text;
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
