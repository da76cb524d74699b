#include "followed_monitor.h"

#include <chrono>
#include <memory>
#include <utility>
#include <vector>

#include "gpu_feed/clock.h"

using namespace gpu_feed;

FollowedMonitor::FollowedMonitor(int64_t boards, int64_t samples)
    : Sampler(&Monitor, boards),
      Tracker(std::chrono::seconds(1),
              [this](const std::vector<GpuProcessMemory>& processes) { return Names.Describe(processes); }),
      Exchange([] {}) {
    Look();
    for (int64_t taken = 1; taken < samples; ++taken) {
        Cycle();
        Look();
    }
}

void FollowedMonitor::Look() {
    Tracker.Look(Monitor.SnapshotSince(Tracker.NewestMoment()), NowSeconds());
    FeedData data;
    data.Gpus = Tracker.Gpus();
    Exchange.Publish(std::make_shared<const FeedData>(std::move(data)));
}
