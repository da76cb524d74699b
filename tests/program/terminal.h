#ifndef TERMINAL_H
#define TERMINAL_H

#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utmp.h>
#include <vterm.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

/// A program in a terminal of its own, with an emulator that knows what a user would see.
///
/// What the program writes arrives while one of the waiting functions runs, and only then. They return as soon as their
/// condition is true, or cannot become true any more because the program has ended.
class Terminal {
public:
    /// Starts a command line of the shell, which may choose another TERM than xterm-256color and another locale than
    /// C.UTF-8.
    explicit Terminal(const std::string& command, int columns = 80)
        : Emulator(vterm_new(24, columns), &vterm_free), Cells(vterm_obtain_screen(Emulator.get())) {
        vterm_set_utf8(Emulator.get(), 1);
        Callbacks.settermprop = [](VTermProp property, VTermValue* value, void* self) {
            static_cast<Terminal*>(self)->TakeProperty(property, value->number);
            return 1;
        };
        vterm_screen_set_callbacks(Cells, &Callbacks, this);
        vterm_screen_enable_altscreen(Cells, 1);
        vterm_screen_reset(Cells, 1);
        if (openpty(&Master, &Slave, nullptr, nullptr, nullptr) != 0) std::abort();
        tcgetattr(Slave, &Found);
        Resize(24, columns);
        // The child must not write a second time what waits in the buffers.
        std::fflush(nullptr);
        Program = fork();
        if (Program == 0) Start("unset NO_COLOR; export TERM=xterm-256color LC_ALL=C.UTF-8; " + command);
    }
    /// Kills the program when it still runs.
    ~Terminal() {
        if (!HasEnded()) {
            kill(Program, SIGKILL);
            waitpid(Program, nullptr, 0);
        }
        HangUp();
        close(Slave);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    /// Types as on a keyboard: "\x03" is Ctrl-C, "\x1bOA" the arrow up.
    void Type(const std::string& keys) const {
        if (write(Master, keys.data(), keys.size()) < 0) std::perror("cannot type");
    }
    void Resize(int rows, int columns) {
        Rows = rows;
        Columns = columns;
        vterm_set_size(Emulator.get(), rows, columns);
        const winsize size{static_cast<unsigned short>(rows), static_cast<unsigned short>(columns), 0, 0};
        ioctl(Master, TIOCSWINSZ, &size);
    }
    void Signal(int signal) const {
        if (Status < 0) kill(Program, signal);
    }
    /// Takes the terminal away, as closing its window does.
    void HangUp() {
        if (Master >= 0) close(Master);
        Master = -1;
    }

    /// False when `condition` has not become true in time.
    bool WaitFor(const std::function<bool()>& condition, std::chrono::seconds timeout = std::chrono::seconds(30)) {
        const auto giveUp = std::chrono::steady_clock::now() + timeout;
        while (!condition()) {
            // Asked before the last look, so that nothing it wrote is missed.
            const bool bEnded = HasEnded();
            if (!Read() && bEnded) return condition();
            if (std::chrono::steady_clock::now() > giveUp) return false;
        }
        return true;
    }
    bool Shows(const std::string& text, bool bShown = true) {
        return WaitFor([&] { return (Screen().find(text) != std::string::npos) == bShown; });
    }
    /// The program's status, or 128 and the signal that ended it; -1 when it does not end in time.
    int WaitForExit() {
        WaitFor([] { return false; });
        return Status;
    }

    /// The text of every row, without the blanks at its end.
    std::string Screen() const {
        std::string text;
        for (int row = 0; row < Rows; ++row) {
            std::string line(static_cast<size_t>(Columns) * VTERM_MAX_CHARS_PER_CELL * 4, '\0');
            line.resize(vterm_screen_get_text(Cells, line.data(), line.size(), {row, row + 1, 0, Columns}));
            text += line.erase(line.find_last_not_of(' ') + 1) + '\n';
        }
        return text;
    }
    /// Whether any cell has another color than the terminal's own.
    bool IsColored() const {
        for (int i = 0; i < Rows * Columns; ++i) {
            VTermScreenCell cell{};
            vterm_screen_get_cell(Cells, {i / Columns, i % Columns}, &cell);
            if (!VTERM_COLOR_IS_DEFAULT_FG(&cell.fg) || !VTERM_COLOR_IS_DEFAULT_BG(&cell.bg)) return true;
        }
        return false;
    }
    /// Whether all is as the program found it: the modes of the line, main screen, visible cursor.
    bool IsRestored() const {
        termios now{};
        return tcgetattr(Slave, &now) == 0 && now.c_iflag == Found.c_iflag && now.c_oflag == Found.c_oflag &&
               now.c_cflag == Found.c_cflag && now.c_lflag == Found.c_lflag &&
               std::equal(std::begin(now.c_cc), std::end(now.c_cc), std::begin(Found.c_cc)) &&
               Properties[VTERM_PROP_ALTSCREEN] == 0 && Properties[VTERM_PROP_CURSORVISIBLE] != 0;
    }

private:
    [[noreturn]] void Start(const std::string& command) const {
        close(Master);
        if (login_tty(Slave) != 0) _exit(127);
        // Ignored signals are inherited: SIGINT by what a shell runs in the background, SIGHUP from a login that ended.
        for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE}) std::signal(signal, SIG_DFL);
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(127);
    }
    void TakeProperty(VTermProp property, int value) {
        // Back on the main screen, the emulator shows or hides the cursor as when it was last saved on either of the
        // screens. Terminals save one for each, and not whether it is shown.
        const bool bOfSavedCursor = bScreenLeft && property == VTERM_PROP_CURSORVISIBLE;
        if (!bOfSavedCursor) Properties[property] = value;
        bScreenLeft = property == VTERM_PROP_ALTSCREEN && value == 0;
    }
    /// Takes in what has been written. False when nothing was, for a moment.
    bool Read() const {
        pollfd output{Master, POLLIN, 0};
        if (poll(&output, 1, 10) <= 0) return false;
        char bytes[4096];
        const ssize_t size = read(Master, bytes, sizeof bytes);
        if (size > 0) vterm_input_write(Emulator.get(), bytes, static_cast<size_t>(size));
        return size > 0;
    }
    bool HasEnded() {
        int ending = 0;
        if (Status < 0 && waitpid(Program, &ending, WNOHANG) == Program) {
            Status = WIFSIGNALED(ending) ? 128 + WTERMSIG(ending) : WEXITSTATUS(ending);
        }
        return Status >= 0;
    }

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
