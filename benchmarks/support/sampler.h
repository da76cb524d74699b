#ifndef SAMPLER_H
#define SAMPLER_H

#include <pthread.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <thread>

#include "gpu_profiler.h"

/// Readings of one GPU so far, of all monitors of this process together.
inline uint64_t ReadingsSoFar() {
    return GPUProfiler::Get()->Readings.load(std::memory_order_acquire);
}

inline void WaitForReadings(uint64_t count) {
    while (ReadingsSoFar() < count) std::this_thread::yield();
}

/// Drives the sampler thread of one monitor cycle by cycle and tells what CPU time that thread used.
///
/// It waits awake and apart from the monitor's lock and from NVML, so that the sampler finds nobody in its way.
template <typename Monitor>
class SamplerDriver {
public:
    /// Starts `monitor`, whose first cycle comes at once.
    SamplerDriver(Monitor* monitor, uint64_t boards) : Driven(monitor), Boards(boards) {
        const uint64_t before = ReadingsSoFar();
        Driven->SetSampleInterval(kNever);
        Driven->Start();
        WaitForReadings(before + Boards);
        pthread_getcpuclockid(GPUProfiler::Get()->LatestReader.load(), &SamplerClock);
        WaitUntilAsleep();
    }

    ~SamplerDriver() { Driven->Stop(); }
    SamplerDriver(const SamplerDriver&) = delete;
    SamplerDriver& operator=(const SamplerDriver&) = delete;

    /// One cycle. Result: the CPU seconds of the sampler thread from asleep to asleep, wake-up included.
    double Cycle() {
        const double before = LatestSeconds;
        const uint64_t wanted = ReadingsSoFar() + Boards;
        Driven->SetSampleInterval(kNever);
        WaitForReadings(wanted);
        WaitUntilAsleep();
        return LatestSeconds - before;
    }

private:
    /// The longest interval, so that no cycle comes unasked.
    static constexpr std::chrono::seconds kNever{10};

    double SamplerSeconds() const {
        timespec time{};
        clock_gettime(SamplerClock, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    }

    /// A thread whose CPU clock stands still sleeps, or was interrupted: what is left of its cycle then counts to the
    /// next one, and no time is lost.
    void WaitUntilAsleep() {
        double before = 0.0;
        LatestSeconds = SamplerSeconds();
        do {
            before = LatestSeconds;
            std::this_thread::yield();
            LatestSeconds = SamplerSeconds();
        } while (LatestSeconds > before);
    }

    Monitor* Driven;
    uint64_t Boards;
    clockid_t SamplerClock{};
    double LatestSeconds = 0.0;
};

#endif  // SAMPLER_H
