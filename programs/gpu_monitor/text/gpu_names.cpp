#include "text/gpu_names.h"

#include <cstddef>
#include <initializer_list>

#include "text/text_layout.h"

namespace {

bool DropStart(const std::string& start, std::string* name) {
    if (name->compare(0, start.size(), start) != 0 || name->size() == start.size()) return false;
    name->erase(0, start.size());
    return true;
}

void DropEnd(const std::string& end, std::string* name) {
    if (name->size() <= end.size()) return;
    const size_t place = name->size() - end.size();
    if (name->compare(place, end.size(), end) == 0) name->erase(place);
}

}  // namespace

std::string ShortName(const std::string& name, int columns) {
    const auto fits = [columns](const std::string& text) { return static_cast<int>(text.size()) <= columns; };
    std::string shorter = name;
    if (fits(shorter)) return shorter;
    DropStart("NVIDIA ", &shorter);
    DropEnd(" GPU", &shorter);
    if (fits(shorter)) return shorter;
    for (const char* family : {"GeForce ", "Quadro ", "Tesla "}) {
        if (DropStart(family, &shorter)) break;
    }
    return shorter;
}

std::string ShortGpuTitle(const GpuDeviceInfo& device, int columns) {
    const std::string start = GpuName(device) + ": ";
    return start + ShortName(Printable(device.Name), columns - static_cast<int>(start.size()));
}
