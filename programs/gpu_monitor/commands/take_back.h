#ifndef GPU_MONITOR_TAKE_BACK_H
#define GPU_MONITOR_TAKE_BACK_H

#include <string>

#include "commands/polled_feed.h"

/// Takes all changes back that the program has made, unless that takes too long or the user asks again for an end.
/// Prints on standard error how each ended. Result: the exit status, which is a failure when something could not go
/// back.
int TakeChangesBack(PolledFeed* feed, const std::string& simulateOption);

/// Prints on standard error how each change that the program leaves behind can be undone, and ends the journal's notes
/// of them.
void LeaveChanges(PolledFeed* feed, const std::string& simulateOption);

#endif  // GPU_MONITOR_TAKE_BACK_H
