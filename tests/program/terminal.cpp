#include "terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <regex.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmp.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <tuple>
#include <utility>

namespace {

std::system_error SystemError(const char* what) {
    return {errno, std::generic_category(), what};
}

Terminal::Environment Completed(Terminal::Environment environment) {
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const std::string name = text.substr(0, text.find('='));
        const bool bKept = name == "PATH" || name == "HOME" || name.find("SAN_OPTIONS") != std::string::npos;
        if (bKept) environment.emplace(name, text.substr(name.size() + 1));
    }
    environment.insert({{"TERM", "xterm-256color"}, {"LANG", "C.UTF-8"}, {"LC_ALL", "C.UTF-8"}});
    return environment;
}

bool AreEqual(const termios& a, const termios& b) {
    return std::tie(a.c_iflag, a.c_oflag, a.c_cflag, a.c_lflag) ==
               std::tie(b.c_iflag, b.c_oflag, b.c_cflag, b.c_lflag) &&
           std::equal(std::begin(a.c_cc), std::end(a.c_cc), std::begin(b.c_cc));
}

}  // namespace

Terminal::Terminal(const std::vector<std::string>& command, int rows, int columns, Environment environment)
    : Emulator(vterm_new(rows, columns), &vterm_free), Cells(vterm_obtain_screen(Emulator.get())) {
    environment = Completed(std::move(environment));
    vterm_set_utf8(Emulator.get(), environment["LC_ALL"].find("UTF-8") == std::string::npos ? 0 : 1);
    // A program that asks the terminal something, such as where its cursor is, gets the answer as if it were typed.
    const auto answer = [](const char* bytes, size_t size, void* self) {
        static_cast<const Terminal*>(self)->Type({bytes, size});
    };
    vterm_output_set_callback(Emulator.get(), answer, this);
    Callbacks.settermprop = [](VTermProp property, VTermValue* value, void* self) {
        static_cast<Terminal*>(self)->TakeProperty(property, value->number);
        return 1;
    };
    vterm_screen_set_callbacks(Cells, &Callbacks, this);
    vterm_screen_enable_altscreen(Cells, 1);
    vterm_screen_reset(Cells, 1);

    if (openpty(&Master, &Slave, nullptr, nullptr, nullptr) != 0) throw SystemError("no terminal");
    tcgetattr(Slave, &Found);
    for (const int file : {Master, Slave}) fcntl(file, F_SETFD, FD_CLOEXEC);
    Resize(rows, columns);
    // A child that ends without another program may write what waits in the buffers once more.
    std::fflush(nullptr);
    Program = fork();
    if (Program == 0) Start(command, environment);
    if (Program < 0) throw SystemError("no process");
}

Terminal::~Terminal() {
    Signal(SIGKILL);
    if (Status < 0) waitpid(Program, nullptr, 0);
    HangUp();
    close(Slave);
}

void Terminal::Start(const std::vector<std::string>& command, const Environment& environment) const {
    if (login_tty(Slave) != 0) _exit(127);
    // Ignored signals are inherited: SIGINT by what a shell runs in the background, SIGHUP from a login that has ended.
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE}) std::signal(signal, SIG_DFL);
    clearenv();
    for (const auto& [name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
    std::vector<char*> arguments;
    std::transform(command.begin(), command.end(), std::back_inserter(arguments),
                   [](const std::string& argument) { return const_cast<char*>(argument.c_str()); });
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    _exit(127);
}

void Terminal::Type(const std::string& keys) const {
    if (write(Master, keys.data(), keys.size()) < 0) throw SystemError("cannot type");
}

void Terminal::Resize(int rows, int columns) {
    Rows = rows;
    Columns = columns;
    vterm_set_size(Emulator.get(), rows, columns);
    const winsize size{static_cast<unsigned short>(rows), static_cast<unsigned short>(columns), 0, 0};
    ioctl(Master, TIOCSWINSZ, &size);
}

void Terminal::Signal(int signal) const {
    if (Status < 0) kill(Program, signal);
}

void Terminal::HangUp() {
    if (Master >= 0) close(Master);
    Master = -1;
}

void Terminal::TakeProperty(VTermProp property, int value) {
    // Back on the main screen, the emulator shows or hides the cursor as when it was last saved on either of the
    // screens. Terminals save one for each, and not whether it is shown.
    const bool bOfSavedCursor = bScreenLeft && property == VTERM_PROP_CURSORVISIBLE;
    if (!bOfSavedCursor) Properties[property] = value;
    bScreenLeft = property == VTERM_PROP_ALTSCREEN && value == 0;
}

bool Terminal::Read() const {
    pollfd output{Master, POLLIN, 0};
    if (poll(&output, 1, 10) <= 0) return false;
    char bytes[4096];
    const ssize_t size = read(Master, bytes, sizeof bytes);
    if (size > 0) vterm_input_write(Emulator.get(), bytes, static_cast<size_t>(size));
    return size > 0;
}

bool Terminal::HasEnded() {
    int ending = 0;
    if (Status < 0 && waitpid(Program, &ending, WNOHANG) == Program) {
        Status = WIFSIGNALED(ending) ? 128 + WTERMSIG(ending) : WEXITSTATUS(ending);
    }
    return Status >= 0;
}

bool Terminal::WaitFor(const std::function<bool()>& condition, std::chrono::seconds timeout) {
    const auto giveUp = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        // Asked before the last look, so that nothing it wrote is missed.
        const bool bEnded = HasEnded();
        if (!Read() && bEnded) return condition();
        if (std::chrono::steady_clock::now() > giveUp) return false;
    }
    return true;
}

bool Terminal::Shows(const std::string& text) {
    return WaitFor([&] { return Screen().find(text) != std::string::npos; });
}

bool Terminal::ShowsNot(const std::string& text) {
    return WaitFor([&] { return Screen().find(text) == std::string::npos; });
}

bool Terminal::ShowsMatch(const std::string& pattern) {
    regex_t expression;
    if (regcomp(&expression, pattern.c_str(), REG_EXTENDED | REG_NEWLINE | REG_NOSUB) != 0) {
        throw std::invalid_argument("no regular expression: " + pattern);
    }
    const bool bShown = WaitFor([&] { return regexec(&expression, Screen().c_str(), 0, nullptr, 0) == 0; });
    regfree(&expression);
    return bShown;
}

int Terminal::WaitForExit() {
    // To the end of what was written.
    WaitFor([] { return false; });
    return Status;
}

std::string Terminal::Screen() const {
    std::string text;
    for (int row = 0; row < Rows; ++row) text += RowFrom({row, 0}) + '\n';
    return text;
}

std::string Terminal::RowFrom(VTermPos place) const {
    std::string text(static_cast<size_t>(Columns) * VTERM_MAX_CHARS_PER_CELL * 4, '\0');
    text.resize(vterm_screen_get_text(Cells, text.data(), text.size(), {place.row, place.row + 1, place.col, Columns}));
    return text.erase(text.find_last_not_of(' ') + 1);
}

bool Terminal::AnyCell(const std::function<bool(VTermPos place, const VTermScreenCell& cell)>& test) const {
    for (int i = 0; i < Rows * Columns; ++i) {
        const VTermPos place{i / Columns, i % Columns};
        VTermScreenCell cell{};
        vterm_screen_get_cell(Cells, place, &cell);
        if (test(place, cell)) return true;
    }
    return false;
}

bool Terminal::IsColored() const {
    return AnyCell([](VTermPos, const VTermScreenCell& cell) {
        return !VTERM_COLOR_IS_DEFAULT_FG(&cell.fg) || !VTERM_COLOR_IS_DEFAULT_BG(&cell.bg);
    });
}

bool Terminal::IsRed(const std::string& text) const {
    const auto isRed = [this](VTermColor color) {
        vterm_screen_convert_color_to_rgb(Cells, &color);
        return color.rgb.red > 2 * std::max(color.rgb.green, color.rgb.blue);
    };
    return AnyCell([&](VTermPos place, const VTermScreenCell& cell) {
        return (isRed(cell.fg) || isRed(cell.bg)) && RowFrom(place).compare(0, text.size(), text) == 0;
    });
}

bool Terminal::IsRestored() const {
    termios now{};
    return tcgetattr(Slave, &now) == 0 && AreEqual(now, Found) && Properties[VTERM_PROP_ALTSCREEN] == 0 &&
           Properties[VTERM_PROP_CURSORVISIBLE] != 0 && Properties[VTERM_PROP_MOUSE] == VTERM_PROP_MOUSE_NONE;
}
