#ifndef GPU_MONITOR_WATCH_H
#define GPU_MONITOR_WATCH_H

#include <chrono>
#include <string>

struct WatchOptions {
    /// Index or UUID of the GPU to begin with or, in a text, of the only one; empty: the first, or all.
    std::string Gpu;
    std::chrono::milliseconds Interval{1000};
    /// The option that simulates GPUs, as this run has it, or empty: for the commands that the user may type later.
    std::string SimulateOption;
    /// A CSV file to which every sample is appended while the view is shown, or empty.
    std::string LogPath;
};

/// Shows the live view until the user leaves or a stop signal comes. Result: the exit status, which is a failure when
/// something could not be restored. Throws `Failure`.
int RunWatch(const WatchOptions& options);

/// Prints what the live view shows of each GPU, without plots, once. Result: the exit status, which is a failure when a
/// GPU gave no reading. Throws `Failure`.
int PrintView(const WatchOptions& options);

#endif  // GPU_MONITOR_WATCH_H
