#ifndef HAND_WRITTEN_H
#define HAND_WRITTEN_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "nvml_gpu_monitor.h"

/// The monitor's work as somebody would write it down who needs nothing else: the same lookups, calls, locks and
/// allocations in the same order, straight on. What the monitor costs beyond that is its structure.
class HandWrittenMonitor {
public:
    HandWrittenMonitor() = default;
    ~HandWrittenMonitor() { Stop(); }
    HandWrittenMonitor(const HandWrittenMonitor&) = delete;
    HandWrittenMonitor& operator=(const HandWrittenMonitor&) = delete;

    bool Start();
    void Stop();
    bool ReadCurrentSample(unsigned int index, GpuTelemetrySample* output);
    void SetInitialSampleDelay(std::chrono::milliseconds delay);
    void SetSampleInterval(std::chrono::milliseconds interval);

private:
    bool Open();
    void Loop();
    void WaitForWake(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds duration, uint64_t generation);
    void Cycle();

    void* Library = nullptr;
    bool bInitialized = false;
    bool bRunning = false;
    std::string StatusText;
    std::chrono::milliseconds Interval{1000};
    std::chrono::milliseconds InitialDelay{0};
    uint64_t WakeGeneration = 0;
    std::thread Thread;
    std::mutex Mutex;
    std::condition_variable WakeCv;
    std::vector<GpuTelemetryHistory> Histories;
};

/// One sample of device 0 by calls that the linker bound: what is left when nothing is looked up and nothing locked.
/// NVML has to be up.
bool ReadSampleDirectly(GpuTelemetrySample* output);

#endif  // HAND_WRITTEN_H
