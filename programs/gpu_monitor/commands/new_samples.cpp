#include "commands/new_samples.h"

#include <algorithm>

using namespace gpu_feed;

Rows NewSamples::Take(const PolledFeed::Gpus& gpus) {
    Rows rows;
    for (const auto& gpu : gpus) AddNewRows(*gpu, &rows);
    std::stable_sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) {
        return a.Sample->TimestampSeconds < b.Sample->TimestampSeconds;
    });
    return rows;
}

void NewSamples::AddNewRows(const FeedGpu& gpu, Rows* rows) {
    double& givenUntil = GivenUntil[gpu.Key];
    const auto isGiven = [givenUntil](const GpuTelemetrySample& sample) {
        return sample.TimestampSeconds <= givenUntil;
    };
    const auto firstNew = std::find_if(gpu.Samples.rbegin(), gpu.Samples.rend(), isGiven).base();
    for (auto sample = firstNew; sample != gpu.Samples.end(); ++sample) {
        rows->push_back({&gpu, &*sample});
        givenUntil = sample->TimestampSeconds;
    }
}
