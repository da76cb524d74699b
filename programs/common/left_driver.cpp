#include "common/left_driver.h"

#include <atomic>

namespace {

std::atomic<bool> bLeftBehind{false};

}  // namespace

void NoteDriverLeftBehind() {
    bLeftBehind = true;
}

bool IsDriverLeftBehind() {
    return bLeftBehind;
}

void StopFeed(gpu_feed::MonitorFeed* feed, std::chrono::milliseconds patience) {
    if (!feed->Stop(patience)) NoteDriverLeftBehind();
}
