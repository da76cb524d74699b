#include "terminal/screen.h"

// Otherwise ncurses has macros with the names of ordinary functions.
#define NCURSES_NOMACROS
#define NCURSES_WIDECHAR 1
#include <curses.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <term.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "common/failure.h"
#include "common/signals.h"
#include "terminal/output.h"
#include "terminal/painter.h"
#include "view/keys.h"

namespace {

/// An arrow key that comes over a network in two parts must not be taken for Escape.
constexpr int kEscapeDelayMs = 100;

// ---- Giving the terminal back when a signal kills the program ----

termios TerminalBefore;
char LeavingSequence[256];
size_t LeavingBytes = 0;

void GiveTerminalBack() {
    const ssize_t ignored = write(STDOUT_FILENO, LeavingSequence, LeavingBytes);
    static_cast<void>(ignored);
    tcsetattr(STDIN_FILENO, TCSANOW, &TerminalBefore);
}

/// The cursor is shown twice: some terminals have one for each of their two screens.
void PrepareToGiveTerminalBack() {
    std::string sequence;
    for (const char* capability :
         {exit_attribute_mode, orig_pair, cursor_normal, keypad_local, exit_ca_mode, cursor_normal}) {
        sequence += ControlSequence(capability);
    }
    LeavingBytes = sequence.copy(LeavingSequence, sizeof LeavingSequence);
}

std::string Variable(const char* name) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing changes the environment.
    const char* value = std::getenv(name);
    return value == nullptr ? "" : value;
}

const std::map<int, int>& SpecialKeys() {
    static const std::map<int, int> kKeys = {
        {KEY_UP, UpKey},        {KEY_DOWN, DownKey},           {KEY_LEFT, LeftKey},    {KEY_RIGHT, RightKey},
        {KEY_PPAGE, PageUpKey}, {KEY_NPAGE, PageDownKey},      {KEY_HOME, HomeKey},    {KEY_END, EndKey},
        {KEY_ENTER, EnterKey},  {KEY_BACKSPACE, BackspaceKey}, {KEY_BTAB, BackTabKey}, {KEY_RESIZE, ResizeKey},
    };
    return kKeys;
}

int PlainKey(int character) {
    switch (character) {
        case '\r':
        case '\n': return EnterKey;
        case '\b':
        case 0x7F: return BackspaceKey;
        default: return character;
    }
}

// ---- Showing ----

/// Whether the program has been stopped and goes on: the screen may show anything then. The handler may run on any
/// thread.
std::atomic<bool> bContinued{false};

extern "C" void NoteContinuing(int /*signalNumber*/) {
    bContinued = true;
}

/// In one piece as far as the terminal takes it, so that no half of a change is seen.
void WriteToTerminal(const std::string& text) {
    for (size_t written = 0; written < text.size();) {
        const ssize_t count = write(STDOUT_FILENO, text.data() + written, text.size() - written);
        if (count >= 0) {
            written += static_cast<size_t>(count);
        } else if (errno == EAGAIN) {
            pollfd room = {STDOUT_FILENO, POLLOUT, 0};
            poll(&room, 1, -1);
        } else if (errno != EINTR) {
            // The terminal has gone, which whoever waits for keys notices too.
            return;
        }
    }
}

winsize TerminalSize() {
    winsize size{};
    ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
    return size;
}

}  // namespace

/// ncurses, from its start to its end. It opens and closes the screen and knows the keys; in between, only the painter
/// changes what is shown, because ncurses writes a piece for each place that changes.
class Screen::Curses {
public:
    Curses() {
        tcgetattr(STDIN_FILENO, &TerminalBefore);
        set_escdelay(kEscapeDelayMs);
        Handle = newterm(nullptr, stdout, stdin);
        if (Handle == nullptr || cursor_address == nullptr) {
            if (Handle != nullptr) endwin();
            throw Failure("The live view cannot be shown on a terminal of this kind (TERM=" + Variable("TERM") +
                          "): use watch --once or stream.");
        }
        PrepareToGiveTerminalBack();
        CallBeforeDeath(GiveTerminalBack);
        cbreak();
        noecho();
        nonl();
        keypad(Keys = newpad(1, 1), TRUE);
        nodelay(Keys, TRUE);
        curs_set(0);
        refresh();
        Pen.emplace(Variable("NO_COLOR").empty());
        HandleContinuing(NoteContinuing);
    }

    ~Curses() {
        // A terminal without a second screen is cleared instead.
        if (exit_ca_mode == nullptr) {
            clear();
            refresh();
        }
        endwin();
        if (cursor_normal != nullptr) putp(cursor_normal);
        fflush(stdout);
        CallBeforeDeath(nullptr);
        HandleContinuing(SIG_DFL);
        delwin(Keys);
        delscreen(Handle);
    }

    Curses(const Curses&) = delete;
    Curses& operator=(const Curses&) = delete;

    /// How Ctrl-Z is handled while it stops the program.
    struct sigaction Suspend {};
    /// A pad, because reading a key from a window would also draw it.
    WINDOW* Keys = nullptr;
    std::optional<Painter> Pen;

private:
    static void HandleContinuing(void (*handler)(int)) {
        struct sigaction action {};
        action.sa_handler = handler;
        action.sa_flags = SA_RESTART;
        sigaction(SIGCONT, &action, nullptr);
    }

    SCREEN* Handle = nullptr;
};

Screen::Screen() : Terminal(std::make_unique<Curses>()), Shown(0, 0, GlyphSet::Ascii) {}

Screen::~Screen() = default;

void Screen::RequireTerminal() {
    if (isatty(STDIN_FILENO) != 1 || isatty(STDOUT_FILENO) != 1) {
        throw Failure("The live view needs a terminal: use watch --once for a text of it, or stream for lines.",
                      kExitUsage);
    }
}

void Screen::AllowSuspending(bool bAllowed) {
    if (bAllowed == bSuspendable) return;
    bSuspendable = bAllowed;
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGTSTP, bAllowed ? &Terminal->Suspend : &ignore, bAllowed ? nullptr : &Terminal->Suspend);
}

Canvas Screen::Blank() const {
    const winsize size = TerminalSize();
    // A serial line, for example, does not know its size. Then that of the environment or the kind of terminal is used.
    const bool bKnown = size.ws_col > 0 && size.ws_row > 0;
    return {bKnown ? size.ws_col : COLS, bKnown ? size.ws_row : LINES, OutputGlyphs()};
}

void Screen::Show(Canvas canvas) {
    std::string text;
    if (bContinued.exchange(false) || canvas.Width() != Shown.Width() || canvas.Height() != Shown.Height()) {
        text = ControlSequence(clear_screen);
        Shown = {canvas.Width(), canvas.Height(), GlyphSet::Ascii};
    }
    WriteToTerminal(text + Terminal->Pen->Changes(Shown, canvas));
    Shown = std::move(canvas);
}

int Screen::ReadKey() {
    wint_t key = 0;
    switch (wget_wch(Terminal->Keys, &key)) {
        case OK: return PlainKey(static_cast<int>(key));
        case KEY_CODE_YES: break;
        default: return NoKey;
    }
    const auto known = SpecialKeys().find(static_cast<int>(key));
    return known == SpecialKeys().end() ? OtherKey : known->second;
}
