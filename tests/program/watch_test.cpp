// The live view of gpu_monitor in a terminal: that it starts and gives the terminal back, keys, signals, and changes of
// GPUs from the first key to what is left behind.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <thread>
#include <utility>
#include <vector>

#include "terminal.h"

namespace {

using namespace testing;

/// The command line that starts the view of simulated GPUs; `variables` are of the environment.
std::string Watch(const std::string& arguments = "", const std::string& variables = "") {
    return "exec env " + variables + " '" GPU_MONITOR "' watch --simulate" + arguments;
}

class View : public Terminal {
public:
    using Terminal::Terminal;

    /// Types `keys` and expects each of the texts afterwards.
    void Press(const std::string& keys, const std::vector<std::string>& texts) {
        Type(keys);
        // After a failure, further ones would only take their time.
        for (const std::string& text : texts) {
            EXPECT_TRUE(Test::HasFailure() || Shows(text)) << text << '\n' << Screen();
        }
    }

    void ExpectEnd(int status, const std::string& lastWords = "") {
        EXPECT_EQ(WaitForExit(), status) << Screen();
        EXPECT_TRUE(IsRestored()) << Screen();
        EXPECT_THAT(Screen(), HasSubstr(lastWords));
    }

    /// Sets a power limit of 250 W in the dialog.
    void SetPower() {
        Press("t", {"p  set a limit"});
        Press("p250\r\r", {"Keep it?", "In force 250 W"});
    }
};

class WatchTest : public Test {
protected:
    ~WatchTest() override {
        std::remove(State.c_str());
        std::filesystem::remove_all(Journal);
    }

    /// The command line of another command, which finds the GPUs as the view leaves them.
    std::string Command(const std::string& command) const {
        return "exec env " + Kept + " '" GPU_MONITOR "' " + command + " --simulate";
    }

    /// Keeps the driver from answering, as long as the descriptor is open: each of its calls takes the same lock.
    int HoldDriver() const {
        const int descriptor = open(State.c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(flock(descriptor, LOCK_EX), 0);
        return descriptor;
    }

    /// Waits until the driver keeps this power limit.
    bool IsLimit(const std::string& milliwatts) const {
        for (int i = 0; i < 3000; ++i) {
            std::ifstream file(State);
            const std::string text(std::istreambuf_iterator<char>(file), {});
            if (text.find("\"power_limit_mw\": " + milliwatts) != std::string::npos) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    const std::string State = TempDir() + "watch_test_" + std::to_string(getpid());
    const std::string Journal = State + ".journal";
    const std::string Kept = "NVML_SIM_STATE=" + State + " GPU_MONITOR_JOURNAL=" + Journal;
};

TEST_F(WatchTest, TakesTheColorsAndCharactersThatTheTerminalHas) {
    const std::tuple<const char*, bool, bool> terminals[] = {{"", true, true},
                                                             {"TERM=linux", true, true},
                                                             {"TERM=vt100", false, true},
                                                             {"NO_COLOR=1 LC_ALL=C", false, false}};
    for (const auto& [variables, bColored, bUnicode] : terminals) {
        View view(Watch("", variables));
        view.Press("", {"GPU 0: NVIDIA GeForce RTX 4080  ", "  live", "VRAM GiB", "  gpu_monitor watch ", "q quit"});
        view.Press("t", {"Power limit"});
        EXPECT_EQ(view.IsColored(), bColored) << view.Screen();
        EXPECT_EQ(view.Screen().find_first_of("\x80\xe2") != std::string::npos, bUnicode) << view.Screen();
        view.Type("\x1bq");
        view.ExpectEnd(0);
    }
}

TEST_F(WatchTest, FollowsTheSizeOfTheTerminal) {
    View view(Watch("=2"));
    view.Press("", {"GPU util % "});
    view.Resize(60, 200);
    view.Press("", {"util       vram    power", "VRAM GiB"});
    view.Resize(15, 80);
    view.Press("", {"Too small: this view needs "});
    EXPECT_TRUE(view.Shows("vram", false)) << view.Screen();
}

TEST_F(WatchTest, WhatCannotBeShownIsSaidInASentence) {
    std::ofstream(State) << "time,uuid,index\n";
    const std::tuple<std::string, int, std::string> cases[] = {
        {Watch("", "TERM=dumb"), 1, "The live view cannot be shown on"},
        {Watch("", "TERM=no-such-terminal"), 1, "The live view cannot be shown on"},
        {Watch(" </dev/null"), 2, "The live view needs a terminal"},
        {Watch(" | cat; false"), 1, "The live view needs a terminal"},
        {Watch("=2 --gpu 2"), 2, "no GPU 2"},
        {Watch(" --log /dev/full"), 1, "Cannot write to /dev/full: No space left on device."},
        {Watch(" --log " + State), 1, " is no log with the columns of this version: choose another file."},
        {Watch("", "NVML_SIM_LOSE=0@0"), 1, "No NVIDIA GPU found."}};
    for (const auto& [command, status, sentence] : cases) View(command, 200).ExpectEnd(status, sentence);
}

TEST_F(WatchTest, OncePrintsTheViewOfEveryGpu) {
    View view(Watch("=2 --once >/dev/tty </dev/null"), 200);
    view.ExpectEnd(0, "\nGPU 1: NVIDIA GeForce RTX 3070 Laptop GPU");
    EXPECT_THAT(view.Screen(), AllOf(HasSubstr("Mem I/O"), HasSubstr("PID       VRAM*"), Not(HasSubstr("q quit"))));
    View oneLost(Watch("=2 --once --interval 100", "NVML_SIM_LOSE=1@5"), 200);
    oneLost.ExpectEnd(1, "GPU 1 (NVIDIA GeForce RTX 3070 Laptop GPU) gave no reading.");
    EXPECT_THAT(oneLost.Screen(), HasSubstr("no data yet"));
}

TEST_F(WatchTest, PageOfAllGpusScrollsAndGpusAreSelectedByNumber) {
    View view(Watch("=16"));
    view.Press("a", {"15 of 16 GPUs", "  1-6 of "});
    view.Press("\x1b[6~", {"  7-12 of "});
    view.Press("\x1bOF\x1b[5~\x1bOH\x1b[6~\x1b[6~", {"  13-18 of "});
    view.Press("g12\r\r", {"GPU 12: NVIDIA H100 PCIe  "});
    view.Press("a\x1bOB\r", {"GPU 13: NVIDIA GeForce GTX 680  "});
}

TEST_F(WatchTest, LogGetsEverySampleOnceAndGoesOn) {
    const auto lines = [this] {
        std::ifstream file(State);
        std::vector<std::string> found;
        for (std::string line; std::getline(file, line);) found.push_back(line);
        return found;
    };
    for (const bool bCutOff : {false, true}) {
        // A disk was full in the middle of a line.
        if (bCutOff) std::filesystem::resize_file(State, std::filesystem::file_size(State) - 9);
        const size_t before = lines().size();
        View view(Watch("=1 --interval 100 --log " + State));
        // Dialogs do not hold the log up.
        view.Press("t", {"p  set a limit"});
        EXPECT_TRUE(view.WaitFor([&] { return lines().size() >= before + 10; }));
        view.Type("\x1bq");
        view.ExpectEnd(0);
    }
    const std::vector<std::string> log = lines();
    EXPECT_THAT(log.front(), StartsWith("time,uuid,index,"));
    for (size_t i = 2; i < log.size(); ++i) {
        EXPECT_THAT(log[i], MatchesRegex("[0-9-]+T[0-9:.]+Z,GPU-[^Z]*"))
            << "one heading, and no line joined to another";
        const double seconds = std::stod(log[i].substr(17)) - std::stod(log[i - 1].substr(17));
        EXPECT_GT(seconds < 0.0 ? seconds + 60.0 : seconds, 0.01) << "twice: " << log[i];
    }
}

TEST_F(WatchTest, LogThatCannotGoOnIsReportedOnceAndAtTheEnd) {
    ASSERT_EQ(mkfifo(State.c_str(), 0600), 0);
    const int reader = open(State.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    View view(Watch(" --interval 100 --log " + State), 200);
    view.Press("", {"  live, every"});
    close(reader);
    view.Press("", {"Cannot write to " + State + ": Broken pipe."});
    view.Type("q");
    view.ExpectEnd(1, "Broken pipe. The latest readings are missing there.");
}

TEST_F(WatchTest, KnowsTheKeysOfTheKeyboard) {
    View view(Watch("=3 --gpu 1"));
    const std::pair<const char*, const char*> keys[] = {
        {"", "GPU 1: "},           {"\t", "GPU 2: "},        {"\x1b[Z", "GPU 1: "},
        {"\x1bOC", "GPU 2: "},     {"\x1bOD", "GPU 1: "},    {"\t\t", "GPU 0: "},
        {"t", "p  set a limit"},   {"p", "Limit  320 W"},    {"\x1bOA", "321 W"},
        {"\x1bOB\x1bOB", "319 W"}, {"\x1b[5~", "329 W"},     {"\x1b[6~\x1b[6~", "309 W"},
        {"\x1bOH", "150 W"},       {"\x1bOF", "352 W"},      {"12\x7f", "1_ W"},
        {"\x1bOP", "1_ W"},        {"\r", "This GPU takes"}, {"\x1b", "d  set the default"}};
    for (const auto& [typed, text] : keys) view.Press(typed, {text});
}

// ---- Changes of GPUs ----

TEST_F(WatchTest, KeptChangeOutlastsTheProgram) {
    View view(Watch("", Kept), 150);
    view.SetPower();
    EXPECT_TRUE(IsLimit("250000"));
    view.Press("y", {"Changed here: power limit 250 W"});
    view.Press("\x1bq", {"GPU 0 (NVIDIA GeForce RTX 4080): power limit 250 W"});
    view.Type("\x1b");
    EXPECT_TRUE(view.Shows("Esc stay", false)) << view.Screen();
    view.Press("q", {"r take them back   k keep them   Esc stay"});
    view.Type("k");
    view.ExpectEnd(0, "kept: power limit 250 W\nTo undo it: gpu_monitor reset-power --gpu 0");
    EXPECT_TRUE(IsLimit("250000"));
    View(Command("undo")).ExpectEnd(0, "Nothing to undo.");
}

TEST_F(WatchTest, SignalsAndALostTerminalTakeChangesBack) {
    for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, 0}) {
        View view(Watch("", Kept));
        view.SetPower();
        signal == 0 ? view.Press("y", {"Changed here"}) : view.Signal(signal);
        if (signal == 0) view.Type("\x1bqr");
        view.ExpectEnd(0, "going back to: default power limit");
        EXPECT_TRUE(IsLimit("320000")) << signal;
        EXPECT_TRUE(std::filesystem::is_empty(Journal)) << signal;
    }
    // With its shell, as when a window is closed.
    View shell("exec env " + Kept + " bash --norc -i");
    shell.Press("'" GPU_MONITOR "' watch --simulate\n", {"  live"});
    shell.SetPower();
    // A stopped program could not take its change back.
    shell.Press("\x1ay", {"Changed here"});
    shell.HangUp();
    EXPECT_TRUE(IsLimit("320000"));
}

TEST_F(WatchTest, WhatAKilledViewHasLeftIsReportedUntilItIsUndone) {
    for (const auto& [command, answer] :
         {std::pair("undo --json", "\"went back to: default power limit\""), {"reset-power", "In force  320 W"}}) {
        View view(Watch("", Kept));
        view.SetPower();
        View(Command("undo")).ExpectEnd(0, "Nothing to undo.");
        view.Press("y", {"Changed here"});
        view.Signal(SIGKILL);
        EXPECT_EQ(view.WaitForExit(), 128 + SIGKILL);
        View(Command("list"), 120)
            .ExpectEnd(0,
                       "GPU 0 (NVIDIA GeForce RTX 4080): a program that has ended left this changed: power limit "
                       "250 W.\nTo undo it: gpu_monitor undo --simulate=1\n");
        EXPECT_TRUE(IsLimit("250000"));
        View(Command(command)).ExpectEnd(0, answer);
        EXPECT_TRUE(IsLimit("320000"));
        View(Command("undo")).ExpectEnd(0, "Nothing to undo.");
    }
    // Where it cannot be noted, a change is made all the same.
    View view(Watch("", "GPU_MONITOR_JOURNAL=/dev/null/folder"));
    view.SetPower();
    view.Press("", {"cannot be noted in /dev/null/folder", "(Not a directory)"});
}

// ---- A driver that hangs ----

TEST_F(WatchTest, DriverThatHangsLeavesTheViewToTheUser) {
    View view(Watch(" --interval 100", Kept));
    view.Press("", {"  live, every"});
    const int driver = HoldDriver();
    view.Press("?", {"The driver has not answered for ", "Any key closes"});
    view.Press(" -t", {" 2 min\n", "Asking what can be changed"});
    view.Type("\x1bq");
    view.ExpectEnd(0);
    close(driver);
}

TEST_F(WatchTest, DriverThatHangsWithAChangeIsNotWaitedFor) {
    View view(Watch(" --interval 100", Kept));
    view.SetPower();
    const int driver = HoldDriver();
    view.Press("y", {"no data"});
    view.Signal(SIGTERM);
    view.ExpectEnd(1, "did not go back: The driver has not answered.\nTo try again: gpu_monitor reset-power --gpu 0");
    close(driver);
}

TEST_F(WatchTest, RepeatedAndFatalSignalsKillButLeaveTheTerminalAsItWas) {
    // A lost terminal is reported several times: by the system, and by the shell to its children.
    for (const auto& [signal, status] : {std::pair(SIGINT, 128 + SIGINT), {SIGTERM, 128 + SIGTERM}, {SIGHUP, 0}}) {
        View view(Watch(" --interval 100", Kept));
        view.Press("", {"  live, every"});
        const int driver = HoldDriver();
        view.Press("", {"no data"});
        // The same signal again and again: at once it means no more than the first.
        view.WaitFor([&view, number = signal] {
            view.Signal(number);
            return false;
        });
        view.ExpectEnd(status);
        close(driver);
    }
    for (const int signal : {SIGSEGV, SIGABRT}) {
        View view(Watch());
        view.Press("", {"  live"});
        view.Signal(signal);
        EXPECT_NE(view.WaitForExit(), 0) << "a sanitizer ends the program in its own way";
        EXPECT_TRUE(view.IsRestored()) << signal;
    }
}

}  // namespace
