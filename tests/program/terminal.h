#ifndef TERMINAL_H
#define TERMINAL_H

#include <sys/types.h>
#include <termios.h>
#include <vterm.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

/// A program in a terminal of its own, with an emulator that knows what a user would see.
///
/// What the program writes arrives while one of the waiting functions runs, and only then. They return as soon as what
/// they wait for is there, or cannot come any more because the program has ended.
class Terminal {
public:
    using Environment = std::map<std::string, std::string>;

    /// Starts `command`, which is looked for in PATH; it ends with status 127 when it cannot be started.
    ///
    /// Of this process's environment it gets PATH, HOME and the sanitizers' options only. TERM is xterm-256color and
    /// the locale C.UTF-8 unless `environment` says otherwise; the screen speaks UTF-8 when LC_ALL does.
    Terminal(const std::vector<std::string>& command, int rows, int columns, Environment environment = {});
    /// Kills the program when it still runs.
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    /// Types as on a keyboard: "\x03" is Ctrl-C, "\x1b[A" the arrow up.
    void Type(const std::string& keys) const;
    void Resize(int rows, int columns);
    void Signal(int signal) const;
    /// Takes the terminal away, as closing its window does.
    void HangUp();

    /// False when `condition` has not come true in time.
    bool WaitFor(const std::function<bool()>& condition, std::chrono::seconds timeout = std::chrono::seconds(30));
    bool Shows(const std::string& text);
    bool ShowsNot(const std::string& text);
    /// `pattern` is a POSIX extended regular expression, which a dot keeps within one row.
    bool ShowsMatch(const std::string& pattern);
    /// The program's status, or 128 and the signal that ended it; -1 when it does not end in time.
    int WaitForExit();

    /// The text of every row, without the blanks at its end.
    std::string Screen() const;
    /// Whether any cell has another foreground or background than the terminal's own.
    bool IsColored() const;
    /// Whether `text` begins in red, as foreground or background, in one of its places.
    bool IsRed(const std::string& text) const;
    /// Whether all is as the program found it: the modes of the line, main screen, visible cursor, no mouse.
    bool IsRestored() const;

private:
    [[noreturn]] void Start(const std::vector<std::string>& command, const Environment& environment) const;
    void TakeProperty(VTermProp property, int value);
    /// Takes in what has been written. False when nothing was, for a moment.
    bool Read() const;
    bool HasEnded();
    std::string RowFrom(VTermPos place) const;
    bool AnyCell(const std::function<bool(VTermPos place, const VTermScreenCell& cell)>& test) const;

    std::unique_ptr<VTerm, decltype(&vterm_free)> Emulator;
    VTermScreen* Cells;
    VTermScreenCallbacks Callbacks{};
    int Rows = 0;
    int Columns = 0;
    int Properties[VTERM_N_PROPS] = {};
    /// Whether the last property that changed was the screen, back to the main one.
    bool bScreenLeft = false;
    int Master = -1;
    /// The program's end, open here too, so that the terminal outlives the program.
    int Slave = -1;
    termios Found{};
    pid_t Program = -1;
    int Status = -1;
};

#endif  // TERMINAL_H
