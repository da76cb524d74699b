#include "commands/polled_feed.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <vector>

#include "commands/gpu_discovery.h"
#include "commands/simulate.h"
#include "commands/undo.h"
#include "terminal/failure.h"

using namespace gpu_feed;

namespace {

bool bDriverLeftBehind = false;

int NewsChannel() {
    const int descriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (descriptor < 0) throw SystemFailure("Cannot prepare to wait for readings");
    return descriptor;
}

void SignalNews(int descriptor) {
    const uint64_t one = 1;
    // It fails only when the counter is full: then there is news already.
    const ssize_t ignored = write(descriptor, &one, sizeof one);
    static_cast<void>(ignored);
}

}  // namespace

PolledFeed::PolledFeed(std::chrono::milliseconds interval)
    : NewsDescriptor(NewsChannel()),
      Feed({interval, IsSimulating(), [descriptor = NewsDescriptor] { SignalNews(descriptor); }, JournalFolder()}) {}

PolledFeed::~PolledFeed() {
    if (!Feed.Stop()) bDriverLeftBehind = true;
    close(NewsDescriptor);
}

void PolledFeed::TakeNews() const {
    uint64_t count = 0;
    const ssize_t ignored = read(NewsDescriptor, &count, sizeof count);
    static_cast<void>(ignored);
}

bool PolledFeed::WaitForNews(int timeoutMs, int stopDescriptor) const {
    pollfd descriptors[] = {{NewsDescriptor, POLLIN, 0}, {stopDescriptor, POLLIN, 0}};
    return poll(descriptors, 2, timeoutMs) <= 0 || descriptors[1].revents == 0;
}

void PolledFeed::RequireUsable(const FeedData& data, std::optional<unsigned int> onlyGpu) {
    if (data.State == FeedState::Starting) return;
    RequireDriver(data.State != FeedState::Unavailable, data.Status);
    std::vector<GpuDeviceInfo> devices;
    for (const auto& gpu : data.Gpus) devices.push_back(gpu->Device);
    if (onlyGpu) RequireGpu(devices, *onlyGpu);
}

void PolledFeed::LeaveDriverBehind() {
    if (!Feed.Stop(std::chrono::milliseconds(0))) bDriverLeftBehind = true;
}

bool IsDriverLeftBehind() {
    return bDriverLeftBehind;
}
