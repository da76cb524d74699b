#ifndef COMMON_SIGNALS_H
#define COMMON_SIGNALS_H

/// Afterwards the first SIGINT, SIGQUIT, SIGTERM or SIGHUP asks for a clean end. A second one of the same kind, except
/// SIGHUP, kills the process even while the main thread hangs in a driver call, unless it comes right after the first.
/// To be called once per process.
///
/// Result: a descriptor that becomes, and stays, readable with the first signal. It stays open until the process ends.
int CatchStopSignals();

/// Afterwards stop signals do not kill: SIGINT, SIGQUIT and SIGTERM are noted for `HasFurtherStopCome`.
void ExpectFurtherStop();

bool HasFurtherStopCome();

/// Has `restore` called, which must be safe in a signal handler, when a signal is about to kill the process: the second
/// stop signal, or one that the program cannot survive. Null: nothing is called.
void CallBeforeDeath(void (*restore)());

#endif  // COMMON_SIGNALS_H
