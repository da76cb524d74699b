// A host with a user interface, built in every way that a host of the feed can be. Exits with 0 when its frame time is
// in the latest sample, or -1 if it has no profiler.

#include <dlfcn.h>
#include <gpu_feed/monitor_feed.h>
#include <semaphore.h>
#include <unistd.h>

#include <cstdio>

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
    // A sample that never comes ends the program.
    alarm(60);
    sem_t changes;
    sem_init(&changes, 0, 0);
    gpu_feed::FeedOptions options;
    options.OnChange = [&changes] { sem_post(&changes); };
    gpu_feed::MonitorFeed feed(options);
    GpuTelemetrySample latest;
    while (latest.TimestampSeconds == 0.0) {
        sem_wait(&changes);
        const auto data = feed.Latest();
        if (!data->Gpus.empty()) latest = data->Gpus[0]->Latest;
    }
    std::printf("%s Frame time: %.1f ms\n", feed.Latest()->Status.c_str(), latest.FrameTimeMs);
    return latest.FrameTimeMs == frameTimeMs && feed.Stop() ? 0 : 1;
}
