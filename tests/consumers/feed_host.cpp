// A host with a user interface, built in every way that a host of the feed can be. Exits with 0 when its frame time is
// in the latest sample, or -1 if it has no profiler.

#include <dlfcn.h>
#include <gpu_feed/monitor_feed.h>

#include <condition_variable>
#include <cstdio>
#include <mutex>

#if __has_include(<gpu_profiler.h>)
#include <gpu_profiler.h>
#endif

int main(int argc, char** argv) {
    // There need not be a GPU: the simulated NVML at this path takes the driver's place.
    if (argc != 2 || dlopen(argv[1], RTLD_NOW) == nullptr) return 2;
    double frameTimeMs = -1.0;
#if __has_include(<gpu_profiler.h>)
    GPUProfiler::Get()->FrameTimeMs = frameTimeMs = 16.5;
#endif
    std::mutex mutex;
    std::condition_variable changed;
    bool bChanged = false;
    gpu_feed::FeedOptions options;
    options.OnChange = [&] {
        const std::lock_guard<std::mutex> lock(mutex);
        bChanged = true;
        changed.notify_all();
    };
    gpu_feed::MonitorFeed feed(options);
    GpuTelemetrySample latest;
    while (latest.TimestampSeconds == 0.0) {
        std::unique_lock<std::mutex> lock(mutex);
        if (!changed.wait_for(lock, std::chrono::seconds(60), [&] { return bChanged; })) return 1;
        bChanged = false;
        lock.unlock();
        const auto data = feed.Latest();
        if (!data->Gpus.empty()) latest = data->Gpus[0]->Latest;
    }
    std::printf("%s Frame time: %.1f ms\n", feed.Latest()->Status.c_str(), latest.FrameTimeMs);
    return latest.FrameTimeMs == frameTimeMs && feed.Stop() ? 0 : 1;
}
