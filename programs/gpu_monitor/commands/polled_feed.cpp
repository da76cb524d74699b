#include "commands/polled_feed.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>

#include "commands/gpu_discovery.h"
#include "commands/silent_driver.h"
#include "common/failure.h"
#include "common/left_changes.h"
#include "common/simulate.h"

using namespace gpu_feed;

namespace {

constexpr int kLookMs = 100;

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
      Feed({interval, IsNvmlSimulated(), [descriptor = NewsDescriptor] { SignalNews(descriptor); }, JournalFolder()}) {}

PolledFeed::~PolledFeed() {
    StopFeed(&Feed);
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

PolledFeed::Gpus PolledFeed::Wanted(const FeedData& data, const std::string& selector) {
    if (data.State == FeedState::Starting) return {};
    RequireDriver(data.State != FeedState::Unavailable, data.Status);
    if (selector.empty()) return data.Gpus;
    std::vector<GpuDeviceInfo> devices;
    for (const auto& gpu : data.Gpus) devices.push_back(gpu->Device);
    return {data.Gpus[SelectGpu(devices, selector)]};
}

FeedMoment PolledFeed::WaitUntil(const std::string& selector,
                                 const std::function<bool(const FeedMoment&, const FeedGpu&)>& isKnown) {
    for (;;) {
        FeedMoment moment = Feed.Moment();
        const Gpus wanted = Wanted(*moment.Data, selector);
        const auto isDone = [&](const auto& gpu) { return isKnown(moment, *gpu); };
        // While the driver is at work, a reading may be on its way.
        const bool bIdle = moment.Data->State != FeedState::Starting && moment.DriverSilence == 0.0;
        if (bIdle && std::all_of(wanted.begin(), wanted.end(), isDone)) return moment;
        if (moment.DriverSilence >= kLongestDriverSilenceSeconds) throw DriverIsSilent();
        WaitForNews(kLookMs, -1);
        TakeNews();
    }
}
