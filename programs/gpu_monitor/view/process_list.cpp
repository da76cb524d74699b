#include "view/process_list.h"

#include <algorithm>
#include <string>
#include <vector>

#include "text/reading_text.h"
#include "text/text_layout.h"

using namespace gpu_feed;

namespace {

std::vector<FeedProcess> Sorted(std::vector<FeedProcess> processes, ProcessOrder order) {
    std::stable_sort(processes.begin(), processes.end(), [order](const FeedProcess& a, const FeedProcess& b) {
        switch (order) {
            case ProcessOrder::Pid: return a.Pid < b.Pid;
            case ProcessOrder::User: return a.User < b.User;
            case ProcessOrder::Name: return a.Name < b.Name;
            case ProcessOrder::Memory: break;
        }
        return a.VramUsedBytes > b.VramUsedBytes;
    });
    return processes;
}

constexpr int kPidWidth = 8;
constexpr int kVramWidth = 12;
constexpr int kUserWidth = 14;

void DrawProcessLine(Canvas* canvas, const Area& area, const std::string (&texts)[4], Style look) {
    canvas->PutRight(area.X + kPidWidth, area.Y, texts[0], look);
    canvas->PutRight(area.X + kPidWidth + kVramWidth, area.Y, texts[1], look);
    int x = area.X + kPidWidth + kVramWidth + kColumnGap;
    canvas->Put(x, area.Y, texts[2], look, kUserWidth - 1);
    x += kUserWidth;
    canvas->Put(x, area.Y, texts[3], look, area.X + area.Width - x);
}

/// Processes of simulated GPUs are not this system's.
std::string NameText(const FeedProcess& process, bool bSimulated) {
    return bSimulated ? "(simulated)" : OrDash(process.Name);
}

/// With an asterisk at the column that the processes are sorted by.
std::string MarkedHeading(const char* heading, bool bSortedBy) {
    return bSortedBy ? std::string(heading) + '*' : heading;
}

}  // namespace

void DrawProcesses(Canvas* canvas, const Area& area, const GpuOnPage& page, ProcessOrder order) {
    const std::string headings[] = {
        MarkedHeading("PID", order == ProcessOrder::Pid), MarkedHeading("VRAM", order == ProcessOrder::Memory),
        MarkedHeading("USER", order == ProcessOrder::User), MarkedHeading("PROCESS", order == ProcessOrder::Name)};
    if (area.Height < 2) return;
    DrawProcessLine(canvas, area, headings, Style::Dim);
    const std::vector<FeedProcess> processes =
        page.bSilent ? std::vector<FeedProcess>() : Sorted(page.Gpu->Processes, order);
    const int room = area.Height - 1;
    const int count = static_cast<int>(processes.size());
    for (int i = 0; i < std::min(count, room); ++i) {
        const FeedProcess& process = processes[static_cast<size_t>(i)];
        const std::string texts[] = {std::to_string(process.Pid), MemoryText(process.VramUsedBytes),
                                     OrDash(process.User), NameText(process, page.bSimulated)};
        DrawProcessLine(canvas, {area.X, area.Y + 1 + i, area.Width, 1}, texts, Style::Normal);
    }
    if (count > room) canvas->PutRight(area.X + area.Width, area.Y, std::to_string(count - room) + " more", Style::Dim);
}
