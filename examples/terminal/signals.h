#ifndef GPU_MONITOR_SIGNALS_H
#define GPU_MONITOR_SIGNALS_H

/// From here on the first SIGINT, SIGTERM or SIGHUP asks for a clean end and a second one of the same kind kills, also
/// while the main thread hangs in a driver call. Once per process.
///
/// Result: a descriptor that becomes, and stays, readable with the first signal. It lives as long as the process.
int CatchStopSignals();

#endif  // GPU_MONITOR_SIGNALS_H
