#ifndef GPU_MONITOR_SIGNALS_H
#define GPU_MONITOR_SIGNALS_H

/// From here on the first SIGINT, SIGQUIT, SIGTERM or SIGHUP asks for a clean end, and a second one of the same kind
/// kills, unless it comes at once, also while the main thread hangs in a driver call; but SIGHUP never does. Once per
/// process.
///
/// Result: a descriptor that becomes, and stays, readable with the first signal. It lives as long as the process.
int CatchStopSignals();

/// From here on no stop signal kills any more: SIGINT, SIGQUIT and SIGTERM are noted, for `HasFurtherStopCome`.
void ExpectFurtherStop();

bool HasFurtherStopCome();

/// Has `restore` called, which must be safe in a signal handler, when a signal is about to kill the process: the second
/// stop signal, or one that the program cannot survive. Null: nothing is called any more.
void CallBeforeDeath(void (*restore)());

#endif  // GPU_MONITOR_SIGNALS_H
