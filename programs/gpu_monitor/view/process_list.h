#ifndef GPU_MONITOR_PROCESS_LIST_H
#define GPU_MONITOR_PROCESS_LIST_H

#include <algorithm>
#include <vector>

#include "gpu_feed/gpu_summary.h"
#include "view/canvas.h"

enum class ProcessOrder { Memory, Cpu, Pid, User, Name };

/// Which part of a list of processes is to be shown.
struct ProcessView {
    ProcessOrder Order = ProcessOrder::Memory;
    /// The place of the first line in the list. A place that would leave lines blank means the end of the list.
    int First = 0;
};

/// How many entries a list has, and how many of them are shown at once.
struct ListRoom {
    int Entries = 0;
    int Lines = 0;

    /// The first of the entries that are shown at the end of the list.
    int Last() const { return std::max(Entries - Lines, 0); }
};

/// How many processes use these GPUs, one that uses several counted for each. Those of GPUs without data are not known.
int CountProcesses(const std::vector<gpu_feed::GpuSummary>& pages);

/// Draws a heading and, below it, as many processes of these GPUs as there is room for.
ListRoom DrawProcesses(Canvas* canvas, const Area& area, const std::vector<gpu_feed::GpuSummary>& pages,
                       const ProcessView& view);

#endif  // GPU_MONITOR_PROCESS_LIST_H
