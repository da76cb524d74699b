#include "terminal/screen.h"

// Otherwise ncurses has macros with the names of ordinary functions.
#define NCURSES_NOMACROS
#define NCURSES_WIDECHAR 1
#include <curses.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <term.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "terminal/failure.h"
#include "terminal/output.h"
#include "terminal/signals.h"
#include "view/keys.h"

namespace {

/// An arrow key that comes over a network in two parts must not be taken for Escape.
constexpr int kEscapeDelayMs = 100;
constexpr int kBrightBlack = 8;
constexpr int kManyColors = 16;

// ---- Giving the terminal back when a signal kills the program ----

termios TerminalBefore;
char LeavingSequence[256];
size_t LeavingBytes = 0;

void GiveTerminalBack() {
    const ssize_t ignored = write(STDOUT_FILENO, LeavingSequence, LeavingBytes);
    static_cast<void>(ignored);
    tcsetattr(STDIN_FILENO, TCSANOW, &TerminalBefore);
}

int AppendToLeaving(int character) {
    if (LeavingBytes < sizeof LeavingSequence) LeavingSequence[LeavingBytes++] = static_cast<char>(character);
    return character;
}

/// The cursor is shown twice: some terminals have one for each of their two screens.
void PrepareToGiveTerminalBack() {
    LeavingBytes = 0;
    for (const char* capability :
         {exit_attribute_mode, orig_pair, cursor_normal, keypad_local, exit_ca_mode, cursor_normal}) {
        if (capability != nullptr) tputs(capability, 1, AppendToLeaving);
    }
}

// ---- Looks ----

std::string Variable(const char* name) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing changes the environment.
    const char* value = std::getenv(name);
    return value == nullptr ? "" : value;
}

struct Look {
    attr_t Attributes;
    /// -1: the terminal's own.
    short Color;
};

/// Without colors, only attributes distinguish the styles.
Look PlainLook(Style style) {
    switch (style) {
        case Style::Dim: return {A_DIM, -1};
        case Style::Strong:
        case Style::Title:
        case Style::Limit:
        case Style::Warning: return {A_BOLD, -1};
        case Style::Alarm: return {A_BOLD | A_REVERSE, -1};
        case Style::Selected: return {A_REVERSE, -1};
        case Style::Normal:
        case Style::Bar: break;
    }
    return {A_NORMAL, -1};
}

Look ColoredLook(Style style) {
    switch (style) {
        case Style::Dim: return COLORS >= kManyColors ? Look{A_NORMAL, kBrightBlack} : Look{A_DIM, -1};
        case Style::Title: return {A_BOLD, COLOR_CYAN};
        case Style::Bar: return {A_NORMAL, COLOR_GREEN};
        case Style::Limit:
        case Style::Warning: return {A_NORMAL, COLOR_YELLOW};
        case Style::Alarm: return {A_BOLD, COLOR_RED};
        case Style::Normal:
        case Style::Strong:
        case Style::Selected: break;
    }
    return PlainLook(style);
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

winsize TerminalSize() {
    winsize size{};
    ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
    return size;
}

}  // namespace

/// ncurses, from its start to its end.
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
        keypad(stdscr, TRUE);
        nodelay(stdscr, TRUE);
        curs_set(0);
        bColored = Variable("NO_COLOR").empty() && has_colors() && start_color() == OK && use_default_colors() == OK;
        if (bColored) PrepareColors();
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
        delscreen(Handle);
    }

    Curses(const Curses&) = delete;
    Curses& operator=(const Curses&) = delete;

    void Put(int x, int y, const Cell& cell) const {
        const Look look = bColored ? ColoredLook(cell.Look) : PlainLook(cell.Look);
        const wchar_t text[] = {cell.Glyph, L'\0'};
        cchar_t character;
        setcchar(&character, text, look.Attributes, static_cast<short>(look.Color + 1), nullptr);
        mvadd_wch(y, x, &character);
    }

    /// How Ctrl-Z is handled while it stops the program.
    struct sigaction Suspend {};

private:
    /// Pair n + 1 has color n.
    static void PrepareColors() {
        for (short color = 0; color <= kBrightBlack && color < COLORS; ++color) {
            init_pair(static_cast<short>(color + 1), color, -1);
        }
    }

    SCREEN* Handle = nullptr;
    bool bColored = false;
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

void Screen::Show(const Canvas& canvas) {
    const bool bNewSize = canvas.Width() != Shown.Width() || canvas.Height() != Shown.Height();
    if (bNewSize) {
        resizeterm(canvas.Height(), canvas.Width());
        clear();
    }
    for (int y = 0; y < canvas.Height(); ++y) {
        for (int x = 0; x < canvas.Width(); ++x) {
            const Cell& cell = canvas.At(x, y);
            const bool bSame = !bNewSize && cell == Shown.At(x, y);
            if (!bSame && cell.Glyph != 0) Terminal->Put(x, y, cell);
        }
    }
    Shown = canvas;
    refresh();
}

int Screen::ReadKey() {
    wint_t key = 0;
    switch (get_wch(&key)) {
        case OK: return PlainKey(static_cast<int>(key));
        case KEY_CODE_YES: break;
        default: return NoKey;
    }
    const auto known = SpecialKeys().find(static_cast<int>(key));
    return known == SpecialKeys().end() ? OtherKey : known->second;
}
