// The commands of gpu_monitor, run as a user runs them: what they print on both streams and how they end.

#include <gmock/gmock.h>

#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "shell.h"

namespace {

using nlohmann::json;
using namespace testing;

/// Begins a script in which simulated GPUs keep their settings from one `gpu_monitor` to the next.
constexpr const char* kKeepState =
    R"(NVML_SIM_STATE=$(mktemp); export NVML_SIM_STATE; trap 'rm "$NVML_SIM_STATE"' EXIT; )";

/// Begins a script with a stream in the background that writes into descriptor 3.
std::string BeginStream(const std::string& options) {
    return "fifo=$(mktemp -u); mkfifo $fifo; gpu_monitor stream --simulate " + options +
           " >$fifo & exec 3<$fifo; rm $fifo; ";
}

TEST(CommandTest, QueriesAnswerForTheWantedGpusInTextAndJson) {
    const std::tuple<std::string, std::string, std::string> queries[] = {
        {"list", "Name               NVIDIA GeForce RTX 3070 Laptop GPU\n", "pci_bus_id"},
        {"sample", "Power                W                -  ", "time"},
        {"clocks", "\nLocking     impossible: NVML did not expose supported memory clocks.\n", "supported"},
        {"power", "\nRange     -\n", "state"}};
    for (const auto& [command, text, key] : queries) {
        EXPECT_THAT(Shell("gpu_monitor " + command + " --simulate=old,laptop").Output, HasSubstr(text));
        const json document =
            json::parse(Shell("NVML_SIM_BOARDS=4 gpu_monitor --simulate " + command + " --gpu gpu-2331 --json").Output);
        EXPECT_EQ(document.at("driver_version"), "550.120");
        ASSERT_THAT(document.at("gpus"), SizeIs(1)) << command;
        EXPECT_EQ(document["gpus"][0].at("index"), 2);
        EXPECT_TRUE(document["gpus"][0].contains(key)) << command;
        const std::string lost = command == "list" ? "1@0" : "1@5";
        const Result oneLost =
            Shell("on_simulator NVML_SIM_BOARDS=2 NVML_SIM_LOSE=" + lost + " gpu_monitor " + command);
        if (command == "list") {
            EXPECT_EQ(oneLost.Status, 0);
            EXPECT_THAT(oneLost.Errors, StartsWith("GPU 1 is missing: "));
            continue;
        }
        EXPECT_EQ(oneLost.Status, 1);
        EXPECT_THAT(oneLost.Output, AllOf(HasSubstr("GPU 0: "), Not(HasSubstr("GPU 1: "))));
        EXPECT_THAT(oneLost.Errors, StartsWith("GPU 1 (NVIDIA GeForce RTX 3070 Laptop GPU)"));
    }
}

TEST(CommandTest, StreamPrintsEveryCycleOnce) {
    const Result result = Shell(
        "on_simulator NVML_SIM_BOARDS=2 NVML_SIM_DELAYS=realistic gpu_monitor stream --interval 100 --count 4 --json");
    EXPECT_EQ(result.Status, 0) << result.Errors;
    std::map<int, std::vector<double>> timestamps;
    std::istringstream lines(result.Output);
    for (std::string line; std::getline(lines, line);) {
        const json sample = json::parse(line);
        timestamps[sample.at("index")].push_back(sample.at("timestamp_seconds"));
    }
    EXPECT_THAT(timestamps, SizeIs(2));
    for (const auto& [gpu, times] : timestamps) {
        ASSERT_THAT(times, SizeIs(4)) << gpu;
        for (size_t i = 1; i < times.size(); ++i) EXPECT_GE(times[i] - times[i - 1], 0.18);
    }
    EXPECT_THAT(Shell("gpu_monitor stream --simulate=2 --gpu 1 --interval 100 --count 2").Output,
                ContainsRegex("^    time gpu [^\n]*\n       s  [^\n]*\n(     [0-9][.][0-9]   1 [^\n]*\n){2}$"));
    const std::string inTerminal = "script -qec 'gpu_monitor stream --simulate=21 --interval 100 --count 2' /dev/null";
    EXPECT_EQ(Shell(inTerminal + " | grep -c 'limited by'").Output, "2\n");
}

TEST(CommandTest, CsvStreamHasOneHeadingAndAFieldForEachOfItsNames) {
    const Result fields =
        Shell("gpu_monitor stream --simulate=2 --csv --interval 100 --count 2 | awk -F , '{print NF}'");
    EXPECT_THAT(fields.Output, MatchesRegex("31\n(31\n|32\n){4}")) << "two reasons are one field with a comma";
    const Result played = Shell(
        "s='gpu_monitor stream --csv --count 1 --simulate'; $s=5 > r.csv; $s=recording:r.csv | cut -d , -f 2- > p.csv;"
        "cut -d , -f 2- r.csv | diff - p.csv; rm r.csv p.csv");
    EXPECT_EQ(played.Output, "") << "the simulator plays each column as it was recorded";
}

TEST(CommandTest, StreamEndsCleanlyOnSignalsAndOnAClosedPipe) {
    // Each waits for the first line and then ends the stream long before its next one.
    for (const std::string signal : {"INT", "TERM"}) {
        const Result result = Shell(BeginStream("--interval 10000 --json") +
                                    "read -r line <&3; echo \"$line\"; kill -" + signal + " $!; cat <&3; wait $!");
        EXPECT_EQ(result.Status, 0) << signal << result.Errors;
        EXPECT_THAT(result.Output, ContainsRegex("^[^\n]*,\"processes\":[[][^\n]*\n$")) << signal;
    }
    const Result closed = Shell(BeginStream("--interval 10000") + "read -r line <&3; exec 3<&-; wait $!");
    EXPECT_EQ(closed.Status, 0) << closed.Errors;
}

TEST(CommandTest, StreamSaysWhichGpuIsLostAndEndsWhenAllAre) {
    const std::string stream = "gpu_monitor stream --interval 100 --count ";
    const Result oneLost = Shell("on_simulator NVML_SIM_BOARDS=2 NVML_SIM_LOSE=1@100 " + stream + "20");
    EXPECT_EQ(oneLost.Status, 0);
    EXPECT_THAT(oneLost.Errors, ContainsRegex("^GPU 1 has given no reading for [0-9.]+ s; it may be lost[.]\n$"));
    const Result allLost = Shell("on_simulator NVML_SIM_LOSE=0@100 " + stream + "99");
    EXPECT_EQ(allLost.Status, 1);
    EXPECT_THAT(allLost.Errors, ContainsRegex("\nNo GPU has given a reading for [0-9.]+ s[.]\n$"));
}

TEST(CommandTest, DriverThatHangsEndsEveryCommand) {
    const Result result = Shell(R"sh(
        hang() { on_simulator NVML_SIM_BOARDS=2 NVML_SIM_HANG=$1 $2 >/dev/null; echo $?; }
        for command in list sample clocks power reset-power stream; do hang 0@0 "gpu_monitor $command" & done
        hang 1@200 "gpu_monitor stream --interval 100" & hang 0@13 "timeout -s INT 4 gpu_monitor reset-power" &
        wait)sh");
    EXPECT_EQ(result.Output, "124\n1\n1\n1\n1\n1\n1\n1\n");
    EXPECT_THAT(result.Errors,
                MatchesRegex("GPU 0 [^\n]*: The driver does not answer[.] The change may be in force[.]\n"
                             "GPU 1 [^\n]*: Not tried, because the driver hangs[.]\n"
                             "The driver has not answered for [0-9]+ s[.]\n(The driver does not answer[.]\n){6}"));
}

TEST(CommandTest, ProgramsGetChangesAndFailuresAsJson) {
    const json reset = json::parse(Shell("gpu_monitor reset-power --json --simulate=old,desktop").Output);
    EXPECT_EQ(reset.at("gpus")[0].at("result"), "unsupported");
    EXPECT_EQ(reset["gpus"][1].at("in_force"), json({{"power_limit_watts", 320.0}}));
    for (const std::string command : {"list --gpu 7", "stream --gpu 7", "power --jsn", "stream --csv", "set-power"}) {
        const Result failure = Shell("gpu_monitor " + command + " --json --simulate");
        const json answer = json::parse(failure.Output);
        EXPECT_EQ(answer.at("exit_status"), 2) << command;
        EXPECT_THAT(failure.Errors, EndsWith(answer.at("error").get<std::string>() + '\n'));
    }
}

TEST(CommandTest, AStreamThatRunsBesideShowsEveryChangeAndItsUndo) {
    // `shows` reads the stream until a line of it matches; `undo` makes a change and runs the command that it prints.
    const Result result = Shell(kKeepState + BeginStream("--interval 100 --count 600 --json") + R"sh(
        shows() { while read -r line <&3; do case $line in $1) return;; esac; done; echo "never: $1"; false; }
        change() { gpu_monitor "$@" --simulate; }
        undo() { eval "$(change "$@" | sed -n '/^Undo/,$ s/^.*gpu_monitor/gpu_monitor/p')"; }
        change lock-clocks --gpu 0 1500 5001 && shows '*"graphics_clock_mhz":1500,*"memory_clock_mhz":5001,*' &&
        undo lock-clocks --gpu 0 1500 5001 >&2 && shows '*"memory_clock_mhz":11201,*' &&
        change set-power --gpu 0 200.5 >&2 && shows '*"power_limit_watts":200.5,*' && undo reset-power >&2 &&
        undo set-power --gpu 0 320 >&2 && shows '*"power_limit_watts":200.5,*' &&
        change reset-power >&2 && shows '*"power_limit_watts":320.0,*'
        status=$?; kill $!; wait $!; exit $status)sh");
    EXPECT_EQ(result.Status, 0) << result.Errors;
    EXPECT_THAT(result.Output, StartsWith("GPU 0: NVIDIA GeForce RTX 4080\nAsked    1500 MHz graphics, "));
}

TEST(CommandTest, WithoutTheSimulatorBesideItTheProgramNamesItsPackage) {
    const Result result = Shell("cp $(which gpu_monitor) m; ./m list --simulate; s=$?; rm m; exit $s");
    EXPECT_EQ(result.Status, 1);
    EXPECT_THAT(result.Errors, EndsWith(" nvml-gpu-monitor-simulator.\n"));
}

TEST(CommandTest, FailuresAreExplainedAndHaveTheirStatus) {
    const std::string withoutRights = std::string(kKeepState) + R"(echo '{"rights": "user"}' >"$NVML_SIM_STATE"; )";
    // The first library found is not one, also where this machine has the driver.
    const std::string withoutDriver =
        "library=$(mktemp -d)/libnvidia-ml.so.1; : >$library; "
        "trap 'rm -r ${library%/*}' EXIT; LD_LIBRARY_PATH=${library%/*} ";
    // Status, sentence, and a script that ends so with each of these commands in the place of #.
    // clang-format off
    const std::tuple<int, std::string, std::string, std::vector<std::string>> failures[] = {
        {1, "libnvidia-ml.so.1: file too short): reinstall the NVIDIA driver", withoutDriver + "gpu_monitor #",
         {"list", "sample", "stream", "clocks", "power", "reset-clocks", "reset-power"}},
        {1, "Cannot write", "gpu_monitor # --simulate >/dev/full", {"list", "sample", "stream", "clocks", "power"}},
        {1, "The GPU was changed all the same.\n", "gpu_monitor # --simulate >/dev/full", {"reset-power"}},
        {1, "GPU 0 (NVIDIA GeForce RTX 4080): ", "on_simulator NVML_SIM_LOSE=0@12 gpu_monitor #",
         {"power", "reset-power", "lock-clocks --gpu 0 1500 5001"}},
        {1, "may still be locked. To release it: gpu_monitor reset-clocks --gpu 0\n",
         "on_simulator NVML_SIM_LOSE=0@# gpu_monitor lock-clocks --gpu 0 1500 5001", {"28"}},
        {1, " makes no sense", "on_simulator NVML_SIM_# gpu_monitor list",
         {"BOARDS=0", "BOARDS=65", "BOARDS=desktop,", "DELAYS=slow", "RIGHTS=root", "SEED=-1", "LOSE=1@5", "LOSE=0@",
          "LOSE=0", "HANG=1@0"}},
        {1, ":/bin cannot be played: it is no regular file.", "on_simulator NVML_SIM_BOARDS=recording:# gpu_monitor list", {"/bin"}},
        {1, "NVML: NVML_SIM_BOARDS=", "NVML_SIM_BOARDS=65 gpu_monitor list --simulate#", {"", "=recording:/"}},
        {1, "There is no variable NVML_SIM_BORDS", "on_simulator NVML_SIM_# gpu_monitor list", {"BORDS=2"}},
        {2, ".\n", "gpu_monitor # --simulate=1",
         {"", "list --jsn", "sample --gpu one", "sample --gpu -1", "sample --gpu 00", "stream --interval 99",
          "stream --interval 10001", "stream --count 0", "lock-clocks 1500 5001", "lock-clocks --gpu 0 1500",
          "lock-clocks --gpu 0 1500.5 5001", "lock-clocks --gpu 0 0 5001", "set-power 250", "set-power --gpu 0",
          "set-power --gpu 0 nan", "set-power --gpu 0 inf", "set-power --gpu 0 250W", "set-power --gpu 0 ''",
          "set-power --gpu '' 200"}},
        {2, "' is neither a number from 1 to 64 nor", "gpu_monitor list --simulate #", {"0", "65", "desktop,toaster", "''"}},
        {2, "Not a command: show.", "gpu_monitor #", {"show"}},
        {2, "There is no GPU 2. GPUs here: 0, 1.\n", "gpu_monitor # --gpu 2 --simulate=2",
         {"sample", "stream", "reset-clocks"}},
        {2, "Several GPUs have a UUID that begins with GPU. GPUs here: GPU-", "gpu_monitor # --gpu GPU --simulate=2",
         {"sample", "stream", "reset-clocks"}},
        {3, "Changing GPUs needs root: run the same command with sudo", withoutRights + "gpu_monitor # --simulate=2",
         {"lock-clocks --gpu 0 1500 5001", "reset-clocks", "set-power --gpu 0 200", "reset-power"}},
        {4, "Nearest: 1500 MHz graphics, 5001 MHz memory.", "gpu_monitor lock-clocks --gpu 0 # --simulate", {"1507 5000"}},
        {4, "NVML did not expose supported memory clocks.", "gpu_monitor lock-clocks --gpu 0 324 324 --simulate=#", {"old"}},
        {4, "Both locks of this GPU were released", "gpu_monitor lock-clocks --gpu 0 1500 7001 --simulate=#", {"workstation"}},
        {4, "GPU 1 (NVIDIA GeForce GTX 680): ", "gpu_monitor # --simulate=old,old", {"reset-clocks", "reset-power"}},
        {4, "This GPU takes 150 to 352 W.\n", "gpu_monitor set-power --gpu 0 # --simulate", {"352.001"}}};
    // clang-format on
    for (const auto& [status, sentence, pattern, commands] : failures) {
        for (const std::string& command : commands) {
            std::string script = pattern;
            const Result result = Shell(script.replace(pattern.find('#'), 1, command));
            EXPECT_EQ(result.Status, status) << script;
            EXPECT_THAT(result.Output, IsEmpty()) << script;
            EXPECT_THAT(result.Errors, AllOf(HasSubstr(sentence), Not(HasSubstr("kernel module")))) << script;
        }
    }
    const Result oneReset = Shell("NVML_SIM_BOARDS=1 gpu_monitor reset-clocks --simulate=old,desktop,desktop");
    EXPECT_EQ(oneReset.Status, 4);
    EXPECT_THAT(oneReset.Errors, AllOf(HasSubstr("Changes vanish"), HasSubstr("GPU 0 (NVIDIA GeForce GTX 680)")));
    EXPECT_THAT(oneReset.Output, HasSubstr(" --simulate=old,desktop,desktop\n\nGPU 2"));
    const Result oneMissing = Shell("on_simulator NVML_SIM_BOARDS=2 NVML_SIM_LOSE=1@0 gpu_monitor reset-clocks");
    EXPECT_EQ(oneMissing.Status, 1);
    EXPECT_THAT(oneMissing.Errors, StartsWith("GPU 1 is missing: "));
}

}  // namespace
