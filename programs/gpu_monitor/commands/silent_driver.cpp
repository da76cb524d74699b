#include "commands/silent_driver.h"

#include <poll.h>

#include <algorithm>
#include <chrono>

#include "gpu_feed/clock.h"

namespace {

constexpr auto kLookForStop = std::chrono::milliseconds(100);
constexpr double kSecondsAfterStop = 2.0;

}  // namespace

Failure DriverIsSilent() {
    return Failure("The driver does not answer.");
}

bool PatientMonitor::HasAnswered(const std::function<bool(std::chrono::milliseconds wait)>& hasCome) const {
    double deadline = gpu_feed::NowSeconds() + kLongestDriverSilenceSeconds;
    bool bStopped = false;
    while (!hasCome(kLookForStop)) {
        const double now = gpu_feed::NowSeconds();
        pollfd stop = {StopDescriptor, POLLIN, 0};
        if (!bStopped && poll(&stop, 1, 0) > 0) {
            bStopped = true;
            deadline = std::min(deadline, now + kSecondsAfterStop);
        }
        if (now >= deadline) return false;
    }
    return true;
}
