#ifndef COMMON_LEFT_DRIVER_H
#define COMMON_LEFT_DRIVER_H

#include <chrono>

#include "gpu_feed/monitor_feed.h"

/// To be called when a thread was left in a driver call that does not return.
void NoteDriverLeftBehind();

/// Whether there is such a thread: the program must end with `std::_Exit`, which runs no destructors.
bool IsDriverLeftBehind();

/// Stops the feed, and notes it when the driver does not answer within `patience`.
void StopFeed(gpu_feed::MonitorFeed* feed, std::chrono::milliseconds patience = std::chrono::milliseconds(1000));

#endif  // COMMON_LEFT_DRIVER_H
