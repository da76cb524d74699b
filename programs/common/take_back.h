#ifndef COMMON_TAKE_BACK_H
#define COMMON_TAKE_BACK_H

#include <string>

#include "gpu_feed/monitor_feed.h"

// `simulateOption` is the option that simulates GPUs as this run has it, or empty.

/// Takes all changes back that the program has made, unless that takes too long or a further stop signal comes (see
/// `ExpectFurtherStop`). Stops the feed then, and leaves the driver behind. Prints on standard error how each ended.
/// Result: the exit status, which is a failure when something could not go back.
int TakeChangesBack(gpu_feed::MonitorFeed* feed, const std::string& simulateOption);

/// Prints on standard error how each change that the program leaves behind can be undone, and ends the journal's notes
/// of them.
void LeaveChanges(gpu_feed::MonitorFeed* feed, const std::string& simulateOption);

#endif  // COMMON_TAKE_BACK_H
