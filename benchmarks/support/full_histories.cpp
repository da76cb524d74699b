#include "full_histories.h"

#include "boards.h"
#include "sampler.h"

void FillHistories(NvmlGpuMonitor* monitor, int64_t boards) {
    UseBoards(boards);
    SamplerDriver<NvmlGpuMonitor> sampler(monitor, static_cast<uint64_t>(boards));
    for (int i = 0; i < kFullHistorySamples; ++i) sampler.Cycle();
}
