// What the terminal program cannot show of the library on a real driver: that its sampler pauses and resumes, and how
// long the queries of a cycle take without the library. scripts/check_real_gpu.sh compiles and runs it.
//
//   probe lifecycle      a line per check: "ok NAME: seen ..., expected ..." or "FAIL ..."
//   probe cost GPU       milliseconds of the queries of one cycle for one GPU, made directly: the median of several

#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "nvml_gpu_monitor.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

double Seconds(Clock::duration duration) {
    return std::chrono::duration<double>(duration).count();
}

// ---- The sampler ----

int Failures = 0;

void Check(const char* name, bool bHolds, const std::string& seen, const std::string& expected) {
    std::printf("%s %s: seen %s, expected %s\n", bHolds ? "ok" : "FAIL", name, seen.c_str(), expected.c_str());
    if (!bHolds) ++Failures;
}

const char* Word(bool bValue) {
    return bValue ? "true" : "false";
}

/// When every GPU has been read for the last time; 0.0 when one never was.
double NewestOfAll(const NvmlGpuMonitor& monitor) {
    const std::vector<GpuTelemetryHistory> gpus = monitor.Snapshot();
    double newest = gpus.empty() ? 0.0 : Seconds(Clock::now().time_since_epoch());
    for (const GpuTelemetryHistory& gpu : gpus) {
        newest = gpu.Samples.empty() ? 0.0 : std::min(newest, gpu.Samples.back().TimestampSeconds);
    }
    return newest;
}

/// Whether every GPU is read after this moment, within more time than a cycle over sixteen of them takes.
bool GoesOn(const NvmlGpuMonitor& monitor) {
    const double now = Seconds(Clock::now().time_since_epoch());
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
    while (Clock::now() < deadline) {
        if (NewestOfAll(monitor) > now) return true;
        std::this_thread::sleep_for(milliseconds(20));
    }
    return false;
}

/// Whether no GPU is read any more, for many intervals.
bool StandsStill(const NvmlGpuMonitor& monitor) {
    const double newest = NewestOfAll(monitor);
    std::this_thread::sleep_for(milliseconds(1000));
    return NewestOfAll(monitor) == newest;
}

void CheckRunning(const char* name, bool bStarted, const NvmlGpuMonitor& monitor) {
    const bool bGoesOn = bStarted && GoesOn(monitor);
    Check(name, bStarted && monitor.IsAvailable() && bGoesOn,
          std::string("result ") + Word(bStarted) + ", samples come " + Word(bGoesOn) + ", \"" + monitor.Status() + '"',
          "result true, samples come true");
}

void CheckResting(const char* name, bool bAvailable, const NvmlGpuMonitor& monitor) {
    const bool bStill = StandsStill(monitor);
    const bool bKept = NewestOfAll(monitor) > 0.0;
    Check(name, bStill && bKept && monitor.IsAvailable() == bAvailable,
          std::string("NVML open ") + Word(monitor.IsAvailable()) + ", samples come " + Word(!bStill) +
              ", histories kept " + Word(bKept),
          std::string("NVML open ") + Word(bAvailable) + ", samples come false, histories kept true");
}

int CheckLifecycle() {
    NvmlGpuMonitor monitor;
    monitor.SetSampleInterval(milliseconds(100));
    CheckRunning("start", monitor.Start(), monitor);
    monitor.PauseSampling();
    CheckResting("pause", true, monitor);
    CheckRunning("resume", monitor.ResumeSampling(), monitor);
    monitor.Stop();
    CheckResting("stop", false, monitor);
    CheckRunning("start after stop", monitor.Start(), monitor);
    monitor.Stop();
    return Failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

// ---- What the queries cost without the library ----

using Device = void*;

/// The library's queries of NVML, in the same order, and nothing else. A query that the driver lacks costs nothing, as
/// in the library.
class DirectQueries {
public:
    explicit DirectQueries(unsigned int index) : Library(dlopen("libnvidia-ml.so.1", RTLD_LAZY)) {
        bReady = Library != nullptr && Call("nvmlInit_v2") && Call("nvmlDeviceGetHandleByIndex_v2", index, &Gpu);
    }
    ~DirectQueries() {
        Call("nvmlShutdown");
        if (Library != nullptr) dlclose(Library);
    }
    DirectQueries(const DirectQueries&) = delete;
    DirectQueries& operator=(const DirectQueries&) = delete;

    bool Ready() const { return bReady; }

    /// What a cycle asks of one GPU.
    void MakeAll() {
        uint64_t memory[3] = {};
        unsigned int value = 0;
        unsigned int other[2] = {};
        unsigned long long mask = 0;
        Call("nvmlDeviceGetTemperature", Gpu, 0U, &value);
        Call("nvmlDeviceGetUtilizationRates", Gpu, other);
        Call("nvmlDeviceGetMemoryInfo", Gpu, memory);
        Call("nvmlDeviceGetPowerUsage", Gpu, &value);
        if (!Call("nvmlDeviceGetEnforcedPowerLimit", Gpu, &value)) {
            Call("nvmlDeviceGetPowerManagementLimit", Gpu, &value);
        }
        Call("nvmlDeviceGetPowerManagementDefaultLimit", Gpu, &value);
        Call("nvmlDeviceGetPowerManagementLimitConstraints", Gpu, &other[0], &other[1]);
        Call("nvmlDeviceGetFanSpeed", Gpu, &value);
        for (const unsigned int clock : {0U, 1U, 2U, 3U}) Call("nvmlDeviceGetClockInfo", Gpu, clock, &value);
        Call("nvmlDeviceGetPerformanceState", Gpu, &value);
        Call("nvmlDeviceGetEncoderUtilization", Gpu, &value, &other[0]);
        Call("nvmlDeviceGetDecoderUtilization", Gpu, &value, &other[0]);
        Call("nvmlDeviceGetBAR1MemoryInfo", Gpu, memory);
        Call("nvmlDeviceGetCurrPcieLinkGeneration", Gpu, &value);
        Call("nvmlDeviceGetCurrPcieLinkWidth", Gpu, &value);
        for (const unsigned int direction : {1U, 0U}) Call("nvmlDeviceGetPcieThroughput", Gpu, direction, &value);
        Call("nvmlDeviceGetCurrentClocksThrottleReasons", Gpu, &mask);
        for (const char* list :
             {"nvmlDeviceGetComputeRunningProcesses_v3", "nvmlDeviceGetGraphicsRunningProcesses_v3"}) {
            unsigned int count = 0;
            Call(list, Gpu, &count, static_cast<void*>(nullptr));
            count = kRecords;
            Call(list, Gpu, &count, static_cast<void*>(Records.data()));
        }
    }

private:
    static constexpr unsigned int kRecords = 4096;
    static constexpr size_t kLargestRecordBytes = 32;

    /// True when the driver has `name` and it succeeds.
    template <typename... Arguments>
    bool Call(const char* name, Arguments... arguments) {
        using Query = unsigned int (*)(Arguments...);
        if (Library == nullptr) return false;
        const auto query = reinterpret_cast<Query>(dlsym(Library, name));
        return query != nullptr && query(arguments...) == 0;
    }

    void* Library;
    Device Gpu = nullptr;
    bool bReady = false;
    std::vector<uint64_t> Records = std::vector<uint64_t>(kRecords * kLargestRecordBytes / sizeof(uint64_t));
};

int TellCost(unsigned int index) {
    DirectQueries queries(index);
    if (!queries.Ready()) {
        std::fputs("probe: the GPU cannot be reached directly\n", stderr);
        return EXIT_FAILURE;
    }
    std::vector<double> costs;
    for (int i = 0; i < 20; ++i) {
        const Clock::time_point begin = Clock::now();
        queries.MakeAll();
        costs.push_back(Seconds(Clock::now() - begin) * 1000.0);
        // As long as the sampler waits, so that the driver is as ready for these queries as for the sampler's.
        std::this_thread::sleep_for(milliseconds(100));
    }
    std::nth_element(costs.begin(), costs.begin() + 10, costs.end());
    std::printf("%.3f\n", costs[10]);
    return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "lifecycle") == 0) return CheckLifecycle();
    if (argc == 3 && std::strcmp(argv[1], "cost") == 0) {
        return TellCost(static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 10)));
    }
    std::fputs("usage: probe lifecycle | probe cost GPU\n", stderr);
    return 2;
}
