// The live view of gpu_monitor, in a terminal: what a user sees there and does, and what is left when it has ended.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <ctime>
#include <fstream>
#include <sstream>
#include <thread>

#include "terminal.h"

namespace {

using namespace testing;
using std::chrono::steady_clock;

/// The simulator as any NVML client finds it, with two GPUs; a variable says what becomes of one of them.
Terminal::Environment Fate(const std::string& variable, const std::string& value) {
    return {{"LD_LIBRARY_PATH", SIMULATOR_DIR}, {"NVML_SIM_BOARDS", "2"}, {variable, value}};
}

class View : public Terminal {
public:
    /// `arguments` are words of a shell.
    explicit View(const std::string& arguments = "--simulate", const Environment& environment = {}, int rows = 24,
                  int columns = 80)
        : Terminal({"sh", "-c", "exec '" GPU_MONITOR "' watch " + arguments}, rows, columns, environment) {}

    View(const std::vector<std::string>& command, const Environment& environment)
        : Terminal(command, 24, 80, environment) {}

    void ExpectShown(const std::vector<std::string>& texts) {
        for (const std::string& text : texts) EXPECT_TRUE(Shows(text)) << text << '\n' << Screen();
    }

    void ExpectEnd(int status, const std::string& lastWords = "") {
        EXPECT_EQ(WaitForExit(), status) << Screen();
        EXPECT_TRUE(IsRestored()) << Screen();
        EXPECT_THAT(Screen(), HasSubstr(lastWords));
    }

    /// Those of the processes, from above.
    std::vector<int> Pids() const {
        std::vector<int> pids;
        std::istringstream screen(Screen());
        for (std::string row; std::getline(screen, row);) {
            int pid = 0;
            int size = 0;
            std::string unit;
            if (std::istringstream(row) >> pid >> size >> unit && unit == "MiB") pids.push_back(pid);
        }
        return pids;
    }
};

constexpr const char* kPlotTitles[] = {"Utilization %", "Power W", "Temperature C", "Graphics clock MHz", "VRAM GiB"};

// ---- What is shown ----

TEST(WatchTest, SmallScreenShowsAllOfAGpuUntilTheViewIsQuit) {
    View view;
    view.ExpectShown({"GPU 0: NVIDIA GeForce RTX 4080  ", "  live", "Driver 550.120   PCIe gen 4 x16   P"});
    view.ExpectShown({"Limited by: ", "\nGPU     ", " / 16376 MiB", "\nEncoder ", "\nDecoder ", "  Power   "});
    view.ExpectShown({" / 320.0 W\n", "  Temp    ", " C\n", "  Fan     ", "  Mem I/O ", "\nClocks  graphics "});
    view.ExpectShown({"\nLimits  power 320 W, default 320 W, range 150 to 352 W\n", "-60 s", "PID       VRAM*  "});
    view.ExpectShown({" MiB  -             (simulated)\n", "\nq quit ", "simulated  ", "1 min\n"});
    view.ExpectShown({std::begin(kPlotTitles), std::end(kPlotTitles)});
    EXPECT_TRUE(view.IsColored());
    view.Type("q");
    view.ExpectEnd(0);
}

TEST(WatchTest, LargeScreenAddsATableOfAllGpusAndSizesChangeWithTheTerminal) {
    View view("--simulate=4", {}, 60, 200);
    view.ExpectShown({"util       vram    power", "GPU 2: NVIDIA H100 PCIe  ", "  Mem I/O ", "q quit"});
    view.ExpectShown({std::begin(kPlotTitles), std::end(kPlotTitles)});
    const std::tuple<int, int, std::string, std::string> sizes[] = {{24, 80, "GPU util", "util       vram"},
                                                                    {15, 80, "Too small: this view needs ", "Driver"},
                                                                    {24, 59, "Too small", "Driver"},
                                                                    {16, 60, "Driver 550.120", "Too small"},
                                                                    {60, 200, "util       vram", "Too small"}};
    for (const auto& [rows, columns, shown, hidden] : sizes) {
        view.Resize(rows, columns);
        view.ExpectShown({shown});
        EXPECT_TRUE(view.ShowsNot(hidden)) << view.Screen();
    }
    view.Type("q");
    view.ExpectEnd(0);
}

TEST(WatchTest, ValuesThatTheDriverDoesNotGiveAreDashes) {
    View view("--simulate=desktop,old --gpu 1");
    view.ExpectShown(
        {"GPU 1: NVIDIA GeForce GTX 680  ", "  live", "Limited by: -\n", "\nLimits  power -, default -, range -\n"});
    EXPECT_TRUE(view.ShowsMatch("Power  .*  -\n")) << view.Screen();
    EXPECT_THAT(view.Screen(), Not(HasSubstr("-1")));
}

TEST(WatchTest, TakesTheColorsAndCharactersThatTheTerminalHas) {
    for (const std::string term : {"xterm", "linux", "vt100"}) {
        View view("--simulate", {{"TERM", term}});
        view.ExpectShown({"  live", "VRAM GiB", "q quit"});
        EXPECT_EQ(view.IsColored(), term != "vt100") << term;
        view.Type("q");
        view.ExpectEnd(0);
    }
    View plain("--simulate", {{"NO_COLOR", "1"}, {"LC_ALL", "C"}});
    plain.ExpectShown({"  live", "VRAM GiB", "q quit"});
    EXPECT_FALSE(plain.IsColored());
    plain.Type("t");
    plain.ExpectShown({"Power limit"});
    const std::string screen = plain.Screen();
    EXPECT_TRUE(std::all_of(screen.begin(), screen.end(), [](char c) { return c >= '\n' && c <= '~'; })) << screen;
}

TEST(WatchTest, WhatCannotBeShownIsSaidInASentence) {
    const std::tuple<std::string, Terminal::Environment, int, std::string> cases[] = {
        {"--simulate", {{"TERM", "dumb"}}, 1, "The live view cannot be shown on"},
        {"--simulate", {{"TERM", "no-such-terminal"}}, 1, "The live view cannot be shown on"},
        {"--simulate </dev/null", {}, 2, "The live view needs a terminal"},
        {"--simulate | cat; false", {}, 1, "The live view needs a terminal"},
        {"--simulate=2 --gpu 2", {}, 2, "no GPU 2"},
        {"", Fate("NVML_SIM_LOSE", "2@0"), 1, "NVML initialization failed."}};
    for (const auto& [arguments, environment, status, sentence] : cases) {
        View view(arguments, environment, 24, 200);
        view.ExpectEnd(status, sentence);
    }
}

TEST(WatchTest, OncePrintsTheViewOfEveryGpu) {
    View all("--simulate=2 --once >/dev/tty </dev/null", {}, 60, 80);
    all.ExpectEnd(0, "GPU 1: NVIDIA GeForce RTX 3070 Laptop GPU");
    all.ExpectShown({"Mem I/O", "range 150 to 352 W", "PID       VRAM*"});
    View oneLost("--once --interval 100", Fate("NVML_SIM_LOSE", "1@5"), 60, 80);
    oneLost.ExpectEnd(1, "GPU 1 (NVIDIA GeForce RTX 3070 Laptop GPU) gave no reading.");
    oneLost.ExpectShown({"  live", "no data yet"});
}

// ---- What keys do ----

TEST(WatchTest, TabsChangeTheGpu) {
    View view("--simulate=3 --gpu 2");
    const std::pair<std::string, std::string> steps[] = {
        {"", "GPU 2: "}, {"\t", "GPU 0: "}, {"\t", "GPU 1: "}, {"\x1b[Z", "GPU 0: "}, {"\x1b[Z", "GPU 2: "}};
    for (const auto& [key, shown] : steps) {
        view.Type(key);
        view.ExpectShown({shown});
    }
}

TEST(WatchTest, DigitsHideAndShowPlots) {
    View view;
    view.ExpectShown({"  live"});
    for (size_t i = 0; i < std::size(kPlotTitles); ++i) {
        view.ExpectShown({std::begin(kPlotTitles), std::end(kPlotTitles)});
        view.Type(std::to_string(i + 1));
        EXPECT_TRUE(view.ShowsNot(kPlotTitles[i])) << view.Screen();
        view.Type(std::to_string(i + 1));
    }
    view.Type("12345");
    EXPECT_TRUE(view.ShowsNot("-60 s")) << view.Screen();
}

TEST(WatchTest, KeysChangeTheTimeAxisAndTheSampling) {
    View view;
    const std::pair<std::string, std::vector<std::string>> steps[] = {{"", {"-60 s", "  live", " 1 min\n"}},
                                                                      {"-", {"-120 s", " 2 min\n"}},
                                                                      {"-----", {"whole history\n"}},
                                                                      {"+++++++", {"-60 s", " 1 min\n"}},
                                                                      {" ", {" paused\n"}},
                                                                      {" ", {"  live"}},
                                                                      {"i", {"Interval: 2 s"}},
                                                                      {"II", {"Interval: 500 ms", "  live, every 0."}},
                                                                      {"?", {" Keys ", "Any key closes"}}};
    for (const auto& [keys, shown] : steps) {
        view.Type(keys);
        view.ExpectShown(shown);
    }
    view.Type("q");
    EXPECT_TRUE(view.ShowsNot("Any key closes")) << view.Screen();
    view.ExpectShown({"  live"});
}

TEST(WatchTest, ProcessesAreSortedAsAsked) {
    View view;
    EXPECT_TRUE(view.WaitFor([&] { return view.Pids().size() > 1; })) << view.Screen();
    const std::vector<int> byMemory = view.Pids();
    EXPECT_FALSE(std::is_sorted(byMemory.begin(), byMemory.end()));
    view.Type("s");
    view.ExpectShown({"PID*", "Processes by PID"});
    const std::vector<int> byPid = view.Pids();
    EXPECT_TRUE(std::is_sorted(byPid.begin(), byPid.end())) << view.Screen();
    for (const std::string heading : {"USER*", "PROCESS*", "VRAM*"}) {
        view.Type("s");
        view.ExpectShown({heading});
    }
}

// ---- When things go wrong ----

TEST(WatchTest, LostGpuSaysSinceWhenAndTheOthersGoOn) {
    View view("--interval 100 --gpu 1", Fate("NVML_SIM_LOSE", "1@200"));
    EXPECT_TRUE(view.ShowsMatch("GPU 1: .* no data since [0-9:]{8} \\([0-9]+ s\\)\n")) << view.Screen();
    EXPECT_TRUE(view.IsRed("no data since"));
    view.ExpectShown({" 1:!", "range -\n"});
    view.Type("\t");
    EXPECT_TRUE(view.ShowsMatch("GPU 0: .* live, every 0\\.")) << view.Screen();
    EXPECT_FALSE(view.IsRed("live"));
}

TEST(WatchTest, DriverThatHangsLeavesTheViewToTheUser) {
    View view("--interval 100", Fate("NVML_SIM_HANG", "0@200"));
    EXPECT_TRUE(view.ShowsMatch("GPU 0: .* driver hangs, no data since [0-9:]{8} ")) << view.Screen();
    EXPECT_TRUE(view.IsRed("driver hangs"));
    view.Type("?");
    view.ExpectShown({"Any key closes"});
    view.Type(" -t");
    view.ExpectShown({" 2 min\n", "Asking what can be changed"});
    view.Type("\x1bq");
    const auto asked = steady_clock::now();
    view.ExpectEnd(0);
    EXPECT_LT(steady_clock::now() - asked, std::chrono::seconds(10));
}

TEST(WatchTest, DriverThatHangsWithAChangeIsNotWaitedFor) {
    View view("--interval 100", Fate("NVML_SIM_HANG", "0@2500"));
    view.Type("t");
    view.ExpectShown({"p  set a limit"});
    view.Type("p250\r\r");
    view.ExpectShown({"Keep it?"});
    view.Type("y");
    view.ExpectShown({"no data since"});
    view.Signal(SIGTERM);
    view.ExpectEnd(1, "did not go back: The driver has not answered.");
    view.ExpectShown({"To try again: gpu_monitor reset-power --gpu 0"});
}

TEST(WatchTest, RepeatedAndFatalSignalsKillButLeaveTheTerminalAsItWas) {
    // A lost terminal is told several times: by the system, and by the shell to its children.
    for (const auto& [signal, status] : {std::pair(SIGINT, 128 + SIGINT), {SIGTERM, 128 + SIGTERM}, {SIGHUP, 0}}) {
        View view("--interval 100", Fate("NVML_SIM_HANG", "0@200"));
        view.ExpectShown({"no data since"});
        // The same signal again and again: at once it means no more than the first.
        view.WaitFor([&view, number = signal] {
            view.Signal(number);
            return false;
        });
        view.ExpectEnd(status);
    }
    for (const int signal : {SIGSEGV, SIGABRT}) {
        View view;
        view.ExpectShown({"  live"});
        view.Signal(signal);
        EXPECT_NE(view.WaitForExit(), 0) << signal;
        EXPECT_TRUE(view.IsRestored()) << signal;
    }
}

// ---- Settings that outlast the program ----

class WatchTuningTest : public Test {
protected:
    ~WatchTuningTest() override { unlink(State.c_str()); }

    /// Expects `gpu_monitor COMMAND` to say `setting` afterwards.
    void ExpectSetting(const std::string& command, const std::string& setting) const {
        Terminal query({GPU_MONITOR, command, "--simulate"}, 40, 80, Kept());
        EXPECT_TRUE(query.Shows(setting)) << query.Screen();
    }

    /// Opens the panel and asks for a change.
    static void Change(View* view, const std::string& keys = "p250\r\r", const std::string& shown = "Keep it?") {
        view->Type("t");
        view->ExpectShown({"Power limit"});
        view->Type(keys);
        view->ExpectShown({shown});
    }

    /// Changes the power limit and keeps the change.
    static void ChangeAndKeep(View* view) {
        Change(view);
        view->Type("y");
        view->ExpectShown({"In force 250 W, default 320 W"});
    }

    /// What the driver keeps, without blanks.
    std::string StateText() const {
        std::string text;
        std::ifstream file(State);
        for (std::string word; file >> word;) text += word;
        return text;
    }

    Terminal::Environment Kept() const { return {{"NVML_SIM_STATE", State}}; }

    const std::string State = TempDir() + "watch_test_" + std::to_string(getpid());
};

TEST_F(WatchTuningTest, OnlyALimitThatProtectsTheGpuIsRed) {
    // Moments of the laptop's life, in which heat limits it for a while, and its power limit does.
    const std::tuple<int, std::string, bool> moments[] = {{340, "thermal", true}, {313, "power cap", false}};
    for (const auto& [seconds, limit, bRed] : moments) {
        std::ofstream(State) << "{\"since\": " << time(nullptr) - seconds << '}';
        View view("--simulate=laptop", Kept());
        view.ExpectShown({"Limited by: " + limit});
        EXPECT_EQ(view.IsRed(limit), bRed) << view.Screen();
    }
}

TEST_F(WatchTuningTest, PanelTellsWhatTheDriverSaysCanBeChanged) {
    const std::tuple<std::string, std::vector<std::string>, bool, bool> boards[] = {
        {"desktop", {"NVML active: 1 NVIDIA GPU(s).", "Power-limit control supported;"}, true, true},
        {"laptop", {"NVML active: 1 NVIDIA GPU(s).", "Power-limit control is not supported by this GPU."}, true, false},
        {"old", {"NVML did not expose supported memory clocks.", "Power-limit control is not"}, false, false}};
    for (const auto& [board, shown, bClocks, bPower] : boards) {
        View view("--simulate=" + board);
        view.Type("t");
        view.ExpectShown(shown);
        for (const auto& [offer, bMade] : {std::pair("c  lock to a pair", bClocks), {"p  set a limit", bPower}}) {
            EXPECT_EQ(bMade ? view.Shows(offer) : view.Screen().find(offer) != std::string::npos, bMade)
                << board << offer;
        }
        view.Type(bPower ? "\x1b" : "p\r\r\x1b");
        EXPECT_TRUE(view.ShowsNot("Esc closes")) << view.Screen();
    }
}

TEST_F(WatchTuningTest, LimitGoesBackAfterNoAndAfterTenSecondsWithoutAnAnswer) {
    for (const std::string answer : {"n", ""}) {
        View view("--simulate", Kept());
        Change(&view);
        view.ExpectShown({"In force 250 W "});
        view.Type(answer);
        view.ExpectShown({"It went back to: default power limit."});
        ExpectSetting("power", "In force  320 W");
        view.Type("\r\x1bq");
        view.ExpectEnd(0);
    }
}

TEST_F(WatchTuningTest, LeavingAsksWhatBecomesOfAKeptLimit) {
    const std::tuple<std::string, std::string, std::string> answers[] = {
        {"r", "going back to: default power limit", "In force  320 W"},
        {"k", "kept: power limit 250 W\nTo undo it: gpu_monitor reset-power --gpu 0", "In force  250 W"}};
    for (const auto& [answer, lastWords, setting] : answers) {
        View view("--simulate", Kept(), 24, 150);
        ChangeAndKeep(&view);
        view.Type("\x1bq");
        view.ExpectShown({"GPU 0 (NVIDIA GeForce RTX 4080): power limit 250 W"});
        view.Type(answer);
        view.ExpectEnd(0, lastWords);
        ExpectSetting("power", setting);
    }
}

TEST_F(WatchTuningTest, SignalsAndALostTerminalTakeChangesBack) {
    for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGHUP}) {
        for (const bool bAnswered : {true, false}) {
            View view("--simulate", Kept());
            bAnswered ? ChangeAndKeep(&view) : Change(&view);
            view.Signal(signal);
            view.ExpectEnd(0, "going back to: default power limit");
            ExpectSetting("power", "In force  320 W");
        }
    }
    View view("--simulate", Kept());
    ChangeAndKeep(&view);
    view.HangUp();
    EXPECT_EQ(view.WaitForExit(), 0);
    ExpectSetting("power", "In force  320 W");
}

TEST_F(WatchTuningTest, TerminalThatIsClosedUnderItsShellTakesChangesBack) {
    View shell(std::vector<std::string>{"bash", "--norc", "-i"}, Kept());
    shell.Type("'" GPU_MONITOR "' watch --simulate\n");
    shell.ExpectShown({"  live"});
    ChangeAndKeep(&shell);
    const std::string restored = "\"power_limit_mw\":320000";
    EXPECT_THAT(StateText(), HasSubstr("\"power_limit_mw\":250000"));
    shell.HangUp();
    const auto deadline = steady_clock::now() + std::chrono::seconds(30);
    while (StateText().find(restored) == std::string::npos && steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_THAT(StateText(), HasSubstr(restored));
}

TEST_F(WatchTuningTest, ClocksAreLockedToAChosenPairAndReleased) {
    View view("--simulate", Kept());
    view.Type("t");
    view.ExpectShown({"c  lock to a pair"});
    view.Type("c");
    view.ExpectShown({"Memory    11201 MHz (5 of 5)"});
    // To the lowest graphics clock, two up, and to the next lower memory clock.
    for (int i = 0; i < 20; ++i) view.Type("\x1b[6~");
    view.Type("\x1bOA\x1bOA\x1bOD\r");
    view.ExpectShown({"This will lock the clocks to 240 MHz graphics, 10802 MHz memory,", "cannot be brought back"});
    view.Type("\r");
    view.ExpectShown({"Keep it?", "Running 240 MHz graphics, 10802 MHz memory"});
    view.Type("y");
    view.ExpectShown({"Esc closes"});
    EXPECT_THAT(StateText(), HasSubstr("\"graphics_mhz\":[240,240],\"memory_mhz\":[10802,10802]"));
    view.Type("\x1bqr");
    view.ExpectEnd(0, "going back to: clocks released");
    EXPECT_THAT(StateText(), AllOf(HasSubstr("since"), Not(HasSubstr("_mhz"))));
}

TEST_F(WatchTuningTest, RefusalsSayWhy) {
    View outside("--simulate");
    Change(&outside, "p149.9\r", "This GPU takes 150 to 352 W.");
    outside.Type(std::string(5, '\x7f') + "352\r");
    outside.ExpectShown({"set the power limit to 352 W"});
    const std::pair<std::string, std::string> changes[] = {
        {"p250\r\r", "NVML denied power-limit control for this user."},
        {"c\r\r", "NVML denied GPU locked-clock control for this user."}};
    for (const auto& [keys, sentence] : changes) {
        View view("--simulate", {{"NVML_SIM_RIGHTS", "user"}});
        Change(&view, keys, "The driver did not do it:");
        view.ExpectShown({sentence, "sudo"});
        EXPECT_TRUE(view.IsRed(sentence)) << view.Screen();
        // Nothing is left to be taken back.
        view.Type("\r\x1bq");
        view.ExpectEnd(0);
    }
}

}  // namespace
