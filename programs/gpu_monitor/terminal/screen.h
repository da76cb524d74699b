#ifndef GPU_MONITOR_SCREEN_H
#define GPU_MONITOR_SCREEN_H

#include <memory>

#include "view/canvas.h"

/// The full screen of the terminal. The terminal is given back as it was when this object ends, and also when a signal
/// kills the program. One at a time.
class Screen {
public:
    /// Throws `Failure` when a terminal of this kind has no full screen.
    Screen();
    ~Screen();

    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    /// An empty canvas of the terminal's present size.
    Canvas Blank() const;

    void Show(Canvas canvas);

    /// The next key that has been pressed, a `Key` or a character; never waits.
    int ReadKey();

    /// Whether Ctrl-Z stops the program. At first it does.
    void AllowSuspending(bool bAllowed);

    /// Throws `Failure` unless standard input and output are a terminal.
    static void RequireTerminal();

private:
    class Curses;

    const std::unique_ptr<Curses> Terminal;
    /// What is on the screen.
    Canvas Shown;
    bool bSuspendable = true;
};

#endif  // GPU_MONITOR_SCREEN_H
