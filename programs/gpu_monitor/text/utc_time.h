#ifndef GPU_MONITOR_UTC_TIME_H
#define GPU_MONITOR_UTC_TIME_H

#include <string>

/// A moment of the steady clock as UTC, ISO 8601 with milliseconds.
std::string UtcTime(double steadySeconds);

#endif  // GPU_MONITOR_UTC_TIME_H
