#ifndef GPU_MONITOR_UNDO_H
#define GPU_MONITOR_UNDO_H

/// Takes back what was left changed, the latest first. Prints what is in force afterwards or, on standard error, why a
/// change could not go back; with `bJson`, one object.
///
/// Result: the exit status. Throws `Failure`.
int RunUndo(bool bJson);

#endif  // GPU_MONITOR_UNDO_H
