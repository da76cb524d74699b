#include "text/table_format.h"

#include <algorithm>
#include <optional>

#include "gpu_feed/reading_text.h"
#include "gpu_feed/readings.h"
#include "text/identity.h"
#include "text/text_layout.h"

using namespace gpu_feed;

namespace {

// Four GPUs fit a line of 80.
constexpr int kLabelWidth = 19;
constexpr int kUnitWidth = 5;
constexpr int kCellWidth = 11;
constexpr int kGap = 2;

constexpr int kIndexWidth = 3;
constexpr int kPidWidth = 10;
constexpr int kMemoryWidth = 12;
constexpr int kUserWidth = 10;

std::string IdentityText(const IdentityField& field, const GpuDeviceInfo& device) {
    if (field.Text != nullptr) return OrDash(Printable(field.Text(device)));
    const std::optional<uint64_t> number = field.Number(device);
    if (!number) return kNotRead;
    const std::string text = Number(static_cast<double>(*number) / field.ShownDivisor, 0);
    return *field.Unit == '\0' ? text : text + ' ' + field.Unit;
}

/// One row of a block, with a cell for each GPU. It takes several lines when a cell is too wide for one.
std::string TableRow(const std::string& label, const std::string& unit, const std::vector<std::string>& cells) {
    std::vector<std::vector<std::string>> wrappedCells;
    size_t height = 1;
    for (const std::string& cell : cells) {
        wrappedCells.push_back(Wrapped(cell, kCellWidth));
        height = std::max(height, wrappedCells.back().size());
    }
    std::string text;
    for (size_t line = 0; line < height; ++line) {
        text += Left(line == 0 ? label : "", kLabelWidth + kGap) + Left(line == 0 ? unit : "", kUnitWidth);
        for (const auto& cell : wrappedCells) text += Right(line < cell.size() ? cell[line] : "", kGap + kCellWidth);
        text += '\n';
    }
    return text;
}

using GpuIterator = std::vector<GpuReadings>::const_iterator;

/// The text that `cellOf` returns for the sample of each GPU.
template <typename CellOf>
std::vector<std::string> Cells(GpuIterator first, GpuIterator last, CellOf cellOf) {
    std::vector<std::string> cells;
    for (; first != last; ++first) cells.push_back(cellOf(first->Sample));
    return cells;
}

/// The rows of the GPUs that fit beside each other.
std::string TableBlock(GpuIterator first, GpuIterator last) {
    std::string names;
    std::string headings(kLabelWidth + kGap + kUnitWidth, ' ');
    for (auto gpu = first; gpu != last; ++gpu) {
        names += GpuTitle(gpu->Device) + '\n';
        headings += Right(GpuName(gpu->Device), kGap + kCellWidth);
    }
    std::string text = names + '\n' + headings + '\n';
    for (const Reading& reading : Readings()) {
        const auto numberOf = [&reading](const GpuTelemetrySample& sample) {
            return ReadingNumber(reading.Id, sample);
        };
        text += TableRow(reading.Label, reading.Unit, Cells(first, last, numberOf));
    }
    return text + TableRow("Limited by", "", Cells(first, last, LimitText));
}

std::string ProcessLine(const std::string& gpu, const std::string& pid, const std::string& memory,
                        const std::string& user, const std::string& name) {
    return Right(gpu, kIndexWidth) + Right(pid, kPidWidth) + Right(memory, kMemoryWidth) + "  " +
           Left(user, kUserWidth) + "  " + name + '\n';
}

/// Empty when there are no processes.
std::string ProcessTable(const std::vector<GpuReadings>& gpus) {
    std::string lines;
    for (const GpuReadings& gpu : gpus) {
        for (const FeedProcess& process : gpu.Processes) {
            lines += ProcessLine(std::to_string(gpu.Device.Index), std::to_string(process.Pid),
                                 MemoryText(process.VramUsedBytes), OrDash(Printable(process.User)),
                                 OrDash(Printable(process.Name)));
        }
    }
    return lines.empty() ? lines : '\n' + ProcessLine("GPU", "PID", "VRAM", "User", "Program") + lines;
}

}  // namespace

std::string ListText(const std::vector<GpuDeviceInfo>& devices) {
    std::string text;
    for (const GpuDeviceInfo& device : devices) {
        if (!text.empty()) text += '\n';
        for (const IdentityField& field : IdentityFields()) {
            text += Left(field.Label, kLabelWidth) + IdentityText(field, device) + '\n';
        }
    }
    return text;
}

std::string SampleText(const std::vector<GpuReadings>& gpus, size_t width) {
    constexpr size_t kFixedWidth = kLabelWidth + kGap + kUnitWidth;
    constexpr size_t kColumnWidth = kGap + kCellWidth;
    const size_t room = width > kFixedWidth ? (width - kFixedWidth) / kColumnWidth : 0;
    const auto columns = static_cast<std::ptrdiff_t>(std::max<size_t>(room, 1));
    std::string text;
    for (auto first = gpus.begin(); first != gpus.end();) {
        const auto last = first + std::min(columns, gpus.end() - first);
        text += (text.empty() ? "" : "\n") + TableBlock(first, last);
        first = last;
    }
    return text + ProcessTable(gpus);
}
