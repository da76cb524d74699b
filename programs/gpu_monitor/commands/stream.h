#ifndef GPU_MONITOR_STREAM_H
#define GPU_MONITOR_STREAM_H

#include <chrono>
#include <optional>

struct StreamOptions {
    /// NVML index of the only GPU to show.
    std::optional<unsigned int> Gpu;
    std::chrono::milliseconds Interval{1000};
    /// Cycles after which the stream ends.
    std::optional<int> Count;
    bool bJson = false;
};

/// Prints every sample that the sampler takes, until a stop signal, the end of the reader or the wanted count.
///
/// Throws `Failure`, also when no GPU gives a reading any more.
void RunStream(const StreamOptions& options);

#endif  // GPU_MONITOR_STREAM_H
