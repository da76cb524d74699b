#ifndef GPU_MONITOR_NEW_SAMPLES_H
#define GPU_MONITOR_NEW_SAMPLES_H

#include <map>
#include <string>
#include <vector>

#include "commands/polled_feed.h"

/// One sample of a GPU. Points into published data.
struct Row {
    const gpu_feed::FeedGpu* Gpu;
    const GpuTelemetrySample* Sample;
};
using Rows = std::vector<Row>;

/// Returns each sample exactly once.
class NewSamples {
public:
    /// The samples of `gpus` that were not given before, in the order in which they were taken.
    Rows Take(const PolledFeed::Gpus& gpus);

private:
    void AddNewRows(const gpu_feed::FeedGpu& gpu, Rows* rows);

    /// By the key of the GPU.
    std::map<std::string, double> GivenUntil;
};

#endif  // GPU_MONITOR_NEW_SAMPLES_H
