#ifndef GPU_MONITOR_STREAM_H
#define GPU_MONITOR_STREAM_H

#include <chrono>
#include <optional>
#include <string>

enum class StreamFormat { Text, Json, Csv };

struct StreamOptions {
    /// Index or UUID of the only GPU to show; empty: all.
    std::string Gpu;
    std::chrono::milliseconds Interval{1000};
    /// Cycles after which the stream ends.
    std::optional<int> Count;
    StreamFormat Format = StreamFormat::Text;
};

/// Prints every sample that the sampler takes, until a stop signal, the end of the reader or the wanted count.
///
/// Throws `Failure`, also when no GPU gives a reading any more.
void RunStream(const StreamOptions& options);

#endif  // GPU_MONITOR_STREAM_H
