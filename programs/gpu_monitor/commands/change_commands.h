#ifndef GPU_MONITOR_CHANGE_COMMANDS_H
#define GPU_MONITOR_CHANGE_COMMANDS_H

#include <functional>
#include <string>
#include <vector>

#include "gpu_feed/tuning_change.h"
#include "text/change_report.h"

struct ChangeOptions {
    /// Index or UUID of the only GPU to change; empty: all.
    std::string Gpu;
    /// The option that simulates GPUs as this run has it, or empty. Printed commands carry it.
    std::string SimulateOption;
    bool bJson = false;
};

/// Makes `change` on the requested GPUs, one after the other; a failure does not keep the others from being changed.
/// For each it prints what is in force afterwards and how to undo the change or, on standard error, why it was refused.
///
/// Result: the exit status, which is a failure when one GPU was not changed. Throws `Failure`.
int RunChange(const ChangeOptions& options, const gpu_feed::TuningChange& change);

/// What `change` does to a GPU, also when the driver does not answer, or hangs already.
GpuChange ChangeOrExplain(const GpuDeviceInfo& device, const std::function<GpuChange()>& change);

/// Prints how to get the rights that a change lacked. Result: the exit status, that of the GPU that failed first, but a
/// GPU that does not support the change counts least.
int Conclude(const std::vector<GpuChange>& changes);

#endif  // GPU_MONITOR_CHANGE_COMMANDS_H
