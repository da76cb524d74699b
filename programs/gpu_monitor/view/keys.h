#ifndef GPU_MONITOR_KEYS_H
#define GPU_MONITOR_KEYS_H

/// A pressed key: one of these, or the character that was typed.
enum Key : int {
    NoKey = -1,
    EscapeKey = 27,
    EnterKey = 0x110000,
    BackspaceKey,
    UpKey,
    DownKey,
    LeftKey,
    RightKey,
    PageUpKey,
    PageDownKey,
    HomeKey,
    EndKey,
    BackTabKey,
    /// The terminal's size may have changed.
    ResizeKey,
    OtherKey,
};

#endif  // GPU_MONITOR_KEYS_H
