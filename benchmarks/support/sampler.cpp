#include "sampler.h"

#include <pthread.h>

#include <chrono>
#include <thread>

#include "boards.h"
#include "gpu_profiler.h"

namespace {

/// The longest interval, so that no cycle comes before it is asked for.
constexpr std::chrono::seconds kNever{10};

void WaitForReadings(uint64_t count) {
    while (ReadingsSoFar() < count) std::this_thread::yield();
}

}  // namespace

uint64_t ReadingsSoFar() {
    return GPUProfiler::Get()->Readings.load(std::memory_order_acquire);
}

SamplerDriver::SamplerDriver(NvmlGpuMonitor* monitor, int64_t boards)
    : Driven(monitor), Boards(static_cast<uint64_t>(boards)) {
    const uint64_t before = ReadingsSoFar();
    Driven->SetSampleInterval(kNever);
    Driven->Start();
    WaitForReadings(before + Boards);
    pthread_getcpuclockid(GPUProfiler::Get()->LatestReader.load(), &SamplerClock);
    WaitUntilAsleep();
}

double SamplerDriver::Cycle() {
    const double before = LatestSeconds;
    const uint64_t wanted = ReadingsSoFar() + Boards;
    Driven->SetSampleInterval(kNever);
    WaitForReadings(wanted);
    WaitUntilAsleep();
    return LatestSeconds - before;
}

double SamplerDriver::SamplerSeconds() const {
    timespec time{};
    clock_gettime(SamplerClock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

void SamplerDriver::WaitUntilAsleep() {
    double before = 0.0;
    LatestSeconds = SamplerSeconds();
    do {
        before = LatestSeconds;
        std::this_thread::yield();
        LatestSeconds = SamplerSeconds();
    } while (LatestSeconds > before);
}

void FillHistories(NvmlGpuMonitor* monitor, int64_t boards) {
    UseBoards(boards);
    SamplerDriver sampler(monitor, boards);
    for (int i = 0; i < kFullHistorySamples; ++i) sampler.Cycle();
}
