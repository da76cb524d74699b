#include "view/process_list.h"

#include <algorithm>
#include <optional>
#include <string>

#include "gpu_feed/reading_text.h"
#include "gpu_feed/tuning_text.h"
#include "view/cut_text.h"

using namespace gpu_feed;

namespace {

struct ListedProcess {
    const FeedProcess* Process;
    const GpuSummary* Page;
};

using ProcessLines = std::vector<ListedProcess>;

ProcessLines ListOf(const std::vector<GpuSummary>& pages) {
    ProcessLines list;
    for (const GpuSummary& page : pages) {
        if (page.bSilent) continue;
        for (const FeedProcess& process : page.Gpu->Processes) list.push_back({&process, &page});
    }
    return list;
}

void Sort(ProcessLines* list, ProcessOrder order) {
    std::stable_sort(list->begin(), list->end(), [order](const ListedProcess& first, const ListedProcess& second) {
        const FeedProcess& a = *first.Process;
        const FeedProcess& b = *second.Process;
        switch (order) {
            case ProcessOrder::Cpu: return a.CpuPercent > b.CpuPercent;
            case ProcessOrder::Pid: return a.Pid < b.Pid;
            case ProcessOrder::User: return a.User < b.User;
            case ProcessOrder::Name: return a.Name < b.Name;
            case ProcessOrder::Memory: break;
        }
        return a.VramUsedBytes > b.VramUsedBytes;
    });
}

std::string GpuText(const ListedProcess& listed) {
    return std::to_string(listed.Page->Gpu->Device.Index);
}

std::string CpuText(const ListedProcess& listed) {
    return listed.Process->CpuPercent ? Number(*listed.Process->CpuPercent, 0) + " %" : kNotRead;
}

std::string HostMemoryText(const ListedProcess& listed) {
    return listed.Process->MemoryBytes ? MemoryText(*listed.Process->MemoryBytes) : kNotRead;
}

/// Without the folder of the program, which would take the room of the arguments.
std::string CommandText(const ListedProcess& listed) {
    const FeedProcess& process = *listed.Process;
    const std::string& line = process.CommandLine.empty() ? process.Name : process.CommandLine;
    const size_t slash = line.rfind('/', line.find(' '));
    return OrDash(slash == std::string::npos ? line : line.substr(slash + 1));
}

/// Narrower lists leave room for the commands instead of the resident memory.
constexpr int kWide = 70;

struct Column {
    const char* Heading;
    /// With the gap before it; 0: the rest of the line.
    int Width;
    bool bToTheRight;
    std::string (*Text)(const ListedProcess& listed);
    /// The order that it is the key of.
    std::optional<ProcessOrder> Order;
    /// Of the lists that show it.
    int LeastListWidth = 0;
    /// Whether it is shown only in lists of several GPUs.
    bool bForManyGpus = false;
};

constexpr Column kColumns[] = {
    {"PID", 8, true, [](const ListedProcess& listed) { return std::to_string(listed.Process->Pid); },
     ProcessOrder::Pid},
    {"GPU", 5, true, GpuText, std::nullopt, 0, true},
    {"VRAM", 12, true, [](const ListedProcess& listed) { return MemoryText(listed.Process->VramUsedBytes); },
     ProcessOrder::Memory},
    {"CPU", 7, true, CpuText, ProcessOrder::Cpu},
    {"MEMORY", 12, true, HostMemoryText, std::nullopt, kWide},
    {"USER", 11, false, [](const ListedProcess& listed) { return OrDash(listed.Process->User); }, ProcessOrder::User},
    {"COMMAND", 0, false, CommandText, ProcessOrder::Name},
};

/// The columns that are shown.
using Columns = std::vector<const Column*>;

Columns ColumnsFor(int width, bool bManyGpus) {
    Columns columns;
    for (const Column& column : kColumns) {
        const bool bShown = width >= column.LeastListWidth && (bManyGpus || !column.bForManyGpus);
        if (bShown) columns.push_back(&column);
    }
    return columns;
}

template <typename TextOf>
void DrawLine(Canvas* canvas, const Area& area, const Columns& columns, const TextOf& textOf, Style look) {
    int x = area.X;
    for (const Column* column : columns) {
        const int end = column->Width == 0 ? area.X + area.Width : x + column->Width;
        if (column->bToTheRight) {
            canvas->PutRight(end, area.Y, textOf(*column), look);
        } else {
            PutCut(canvas, {x + kColumnGap, area.Y, end - x - kColumnGap, 1}, textOf(*column), look);
        }
        x = end;
    }
}

/// With an asterisk at the column that the processes are sorted by.
std::string MarkedHeading(const Column& column, ProcessOrder order) {
    return column.Order == order ? std::string(column.Heading) + '*' : column.Heading;
}

/// Which of the processes are shown; empty when all are.
std::string RangeText(int first, int last, int count) {
    if (last - first == count) return "";
    return std::to_string(first + 1) + '-' + std::to_string(last) + " of " + std::to_string(count);
}

}  // namespace

int CountProcesses(const std::vector<GpuSummary>& pages) {
    return static_cast<int>(ListOf(pages).size());
}

ListRoom DrawProcesses(Canvas* canvas, const Area& area, const std::vector<GpuSummary>& pages,
                       const ProcessView& view) {
    ProcessLines processes = ListOf(pages);
    Sort(&processes, view.Order);
    const ListRoom room = {static_cast<int>(processes.size()), std::max(area.Height - 1, 0)};
    if (room.Lines == 0) return room;
    const int first = std::clamp(view.First, 0, room.Last());
    const int last = std::min(first + room.Lines, room.Entries);
    const std::string range = RangeText(first, last, room.Entries);
    canvas->PutRight(area.X + area.Width, area.Y, range, Style::Normal);
    const Columns columns = ColumnsFor(area.Width, pages.size() > 1);
    const auto heading = [&view](const Column& column) { return MarkedHeading(column, view.Order); };
    DrawLine(canvas, {area.X, area.Y, area.Width - ColumnsOf(range) - 1, 1}, columns, heading, Style::Heading);
    for (int i = first; i < last; ++i) {
        const auto text = [&](const Column& column) { return column.Text(processes[static_cast<size_t>(i)]); };
        DrawLine(canvas, {area.X, area.Y + 1 + i - first, area.Width, 1}, columns, text, Style::Normal);
    }
    return room;
}
