// The program gpu_monitor, run as a user runs it: what it prints, what it says when things go wrong, how it ends.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

namespace {

using nlohmann::json;
using namespace testing;

struct Result {
    int Status;
    std::string Output;
    std::string Errors;
};

/// The text of a file, which is removed.
std::string FileText(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    unlink(path.c_str());
    return text.str();
}

/// Begins a script in which the simulated GPUs keep their settings from one `gpu_monitor` to the next.
constexpr const char* kKeepState =
    R"(NVML_SIM_STATE=$(mktemp); export NVML_SIM_STATE; trap 'rm "$NVML_SIM_STATE"' EXIT; )"
    R"(gpu_monitor() { "$gpu_monitor" "$@"; }; )";

/// Runs a shell script in which $gpu_monitor is the program.
Result Shell(const std::string& script, const char* preamble = "") {
    const std::string path = TempDir() + "gpu_monitor_" + std::to_string(getpid());
    std::ofstream(path + ".sh") << "gpu_monitor='" GPU_MONITOR "'; unset LD_LIBRARY_PATH; rm \"$0\"; " << preamble
                                << script;
    const int status = std::system(("sh '" + path + ".sh' >'" + path + ".out' 2>'" + path + ".err'").c_str());
    return {WEXITSTATUS(status), FileText(path + ".out"), FileText(path + ".err")};
}

Result GpuMonitor(const std::string& arguments) {
    return Shell("\"$gpu_monitor\" " + arguments);
}

/// The program on the simulator as any NVML client finds it.
Result OnSimulator(const std::string& variables, const std::string& arguments) {
    return Shell(variables + " LD_LIBRARY_PATH='" SIMULATOR_DIR "' \"$gpu_monitor\" " + arguments);
}

/// Expects a run to end with `status`, to print nothing and to say `sentence`.
void ExpectFailure(const Result& result, int status, const std::string& sentence, const std::string& run) {
    EXPECT_EQ(result.Status, status) << run;
    EXPECT_THAT(result.Output, IsEmpty()) << run;
    EXPECT_THAT(result.Errors, HasSubstr(sentence)) << run;
}

/// The readings of a stream, a line each.
std::vector<json> Lines(const std::string& output) {
    std::vector<json> lines;
    std::istringstream text(output);
    for (std::string line; std::getline(text, line);) lines.push_back(json::parse(line));
    return lines;
}

TEST(TerminalTest, ListTellsTheIdentityOfEveryGpu) {
    EXPECT_THAT(GpuMonitor("list --simulate=4").Output,
                AllOf(HasSubstr("RTX 4080"), HasSubstr("H100"), HasSubstr("Kepler"), HasSubstr("GPU-270410de")));
    const json gpus = json::parse(GpuMonitor("--simulate=laptop,old list --json").Output).at("gpus");
    ASSERT_THAT(gpus, SizeIs(2));
    EXPECT_EQ(gpus[0].at("architecture"), "Ampere");
    EXPECT_EQ(gpus[1].at("index"), 1);
}

TEST(TerminalTest, SampleLeavesOutWhatWasNotRead) {
    const json gpus = json::parse(GpuMonitor("sample --simulate=4 --json").Output).at("gpus");
    ASSERT_THAT(gpus, SizeIs(4));
    EXPECT_TRUE(gpus[0].contains("fan_percent"));
    EXPECT_FALSE(gpus[1].contains("fan_percent"));
    EXPECT_FALSE(gpus[1].contains("maximum_power_limit_watts"));
    EXPECT_FALSE(gpus[3].contains("power_watts"));
    EXPECT_GT(gpus[3].at("graphics_clock_mhz"), 0);
    EXPECT_EQ(gpus[0].at("vram_total_bytes"), 16376ULL << 20U);
    const json one = json::parse(GpuMonitor("sample --simulate=4 --gpu 2 --json").Output).at("gpus");
    ASSERT_THAT(one, SizeIs(1));
    EXPECT_EQ(one[0].at("index"), 2);
    EXPECT_THAT(GpuMonitor("sample --simulate=old").Output, AllOf(HasSubstr(" -\n"), Not(HasSubstr("-1"))));
}

TEST(TerminalTest, StreamPrintsEveryCycleOnce) {
    const Result result =
        OnSimulator("NVML_SIM_BOARDS=2 NVML_SIM_DELAYS=realistic", "stream --interval 100 --count 4 --json");
    EXPECT_EQ(result.Status, 0) << result.Errors;
    std::map<int, std::vector<double>> timestamps;
    for (const json& line : Lines(result.Output)) timestamps[line.at("index")].push_back(line.at("timestamp_seconds"));
    EXPECT_THAT(timestamps, SizeIs(2));
    for (const auto& [gpu, times] : timestamps) {
        ASSERT_THAT(times, SizeIs(4)) << gpu;
        for (size_t i = 1; i < times.size(); ++i) EXPECT_GE(times[i] - times[i - 1], 0.18);
    }
}

TEST(TerminalTest, StreamEndsCleanlyOnSignalsAndOnAClosedPipe) {
    // Each waits for the first line and then ends the stream long before its next one.
    const std::string start = "fifo=$(mktemp -u); mkfifo $fifo; \"$gpu_monitor\" stream --simulate --interval 10000 ";
    for (const std::string signal : {"INT", "TERM"}) {
        const Result result =
            Shell(start + "--json >$fifo & exec 3<$fifo; rm $fifo; read -r line <&3; echo \"$line\"; " + "kill -" +
                  signal + " $!; cat <&3; wait $!");
        EXPECT_EQ(result.Status, 0) << signal << result.Errors;
        EXPECT_THAT(Lines(result.Output), SizeIs(1)) << signal;
    }
    const Result closed = Shell(start + ">$fifo & exec 3<$fifo; rm $fifo; read -r line <&3; exec 3<&-; wait $!");
    EXPECT_EQ(closed.Status, 0) << closed.Errors;
}

TEST(TerminalTest, StreamSaysWhichGpuIsLostAndEndsWhenAllAre) {
    const Result oneLost = OnSimulator("NVML_SIM_BOARDS=2 NVML_SIM_LOSE=1@100", "stream --interval 100 --count 20");
    EXPECT_EQ(oneLost.Status, 0);
    EXPECT_THAT(oneLost.Errors, HasSubstr("GPU 1 has given no reading"));
    const Result allLost = OnSimulator("NVML_SIM_LOSE=0@100", "stream --interval 100 --count 50");
    EXPECT_EQ(allLost.Status, 1);
    EXPECT_THAT(allLost.Errors, HasSubstr("has given a reading"));
}

TEST(TerminalTest, ClocksAndPowerTellWhatCanBeSet) {
    const json clocks = json::parse(GpuMonitor("clocks --simulate=desktop,old --json").Output).at("gpus");
    EXPECT_EQ(clocks[0].at("supported").at(0).at("memory_clock_mhz"), 11201);
    EXPECT_THAT(clocks[0].at("supported").at(4).at("graphics_clocks_mhz"), AllOf(SizeIs(15), Contains(420)));
    EXPECT_EQ(clocks[1].at("status"), "NVML did not expose supported memory clocks.");
    EXPECT_THAT(GpuMonitor("clocks --simulate").Output,
                HasSubstr("\n       405  210 to 420 in steps of 15 (15 clocks)\n"));
    const json power = json::parse(GpuMonitor("power --simulate=2 --json").Output).at("gpus");
    EXPECT_TRUE(power[1].at("state") == "unsupported" && !power[1].contains("default_watts"));
    EXPECT_THAT(GpuMonitor("power --simulate --gpu 0").Output, HasSubstr("Range     150 to 352 W\n"));
    for (const std::string query : {"clocks", "power"}) {
        const Result oneLost = OnSimulator("NVML_SIM_BOARDS=2 NVML_SIM_LOSE=1@5", query);
        EXPECT_EQ(oneLost.Status, 1);
        EXPECT_THAT(oneLost.Errors, HasSubstr("GPU 1 (NVIDIA GeForce RTX 3070 Laptop GPU): NV"));
    }
}

TEST(TerminalTest, AStreamThatRunsBesideShowsEveryChange) {
    // `shows` reads the stream until a line of it matches.
    const Result result = Shell(
        "fifo=$(mktemp -u); mkfifo $fifo; "
        "\"$gpu_monitor\" stream --simulate --interval 100 --count 600 --json >$fifo & exec 3<$fifo; rm $fifo; "
        "shows() { while read -r line <&3; do case $line in $1) return;; esac; done; echo \"never: $1\"; false; }; "
        "gpu_monitor lock-clocks --gpu 0 1500 5001 --simulate && "
        "shows '*\"graphics_clock_mhz\":1500,*\"memory_clock_mhz\":5001,*' && "
        "gpu_monitor set-power --gpu 0 200.5 --simulate && shows '*\"power_limit_watts\":200.5,*' && "
        "gpu_monitor reset-power --simulate && shows '*\"power_limit_watts\":320.0,*' && "
        "gpu_monitor reset-clocks --simulate && shows '*\"memory_clock_mhz\":11201,*'; "
        "status=$?; kill $!; wait $!; exit $status",
        kKeepState);
    EXPECT_EQ(result.Status, 0) << result.Errors;
    EXPECT_THAT(result.Output, AllOf(HasSubstr("Running  1500 MHz graphics, 5001 MHz memory\n"),
                                     HasSubstr("In force  200.5 W\n"), Not(HasSubstr("never"))));
}

TEST(TerminalTest, AChangeTellsTheCommandThatUndoesIt) {
    const Result result = Shell(
        "undo() { eval \"$(gpu_monitor \"$@\" --simulate=2 | sed -n 's/^Undo *//p')\"; }; "
        "gpu_monitor set-power --gpu 0 250.125 --simulate=2 >&2; "
        "undo reset-power; gpu_monitor power --gpu 0 --simulate=2; "
        "gpu_monitor reset-power --gpu 0 --simulate=2 >&2; undo set-power --gpu 0 200",
        kKeepState);
    EXPECT_THAT(result.Output, AllOf(HasSubstr("In force  250.125 W\n"), HasSubstr("Asked     320 W\n")));
    EXPECT_THAT(GpuMonitor("reset-power --simulate").Output, HasSubstr("not needed"));
}

TEST(TerminalTest, AChangeThatTheGpuDoesNotHaveIsRefusedWithAdvice) {
    const std::pair<const char*, const char*> refusals[] = {
        {"lock-clocks --gpu 0 1507 5000 --simulate", "Nearest: 1500 MHz graphics, 5001 MHz memory."},
        {"lock-clocks --gpu 0 5001 1500 --simulate", "Nearest: 1500 MHz graphics, 5001 MHz memory."},
        {"lock-clocks --gpu 0 324 324 --simulate=old", "NVML did not expose supported memory clocks."},
        {"lock-clocks --gpu 1 1500 7001 --simulate=old,workstation", "Both locks of this GPU were released"},
        {"reset-clocks --simulate=old,old", "GPU 1 (NVIDIA GeForce GTX 680): The NVIDIA driver does not"},
        {"set-power --gpu 0 352.001 --simulate", "150 to 352 W"},
        {"reset-power --simulate=laptop,old", "GPU 1 (NVIDIA GeForce GTX 680): Power-limit control is not"}};
    for (const auto& [arguments, advice] : refusals) ExpectFailure(GpuMonitor(arguments), 4, advice, arguments);
    const Result oneReset = GpuMonitor("reset-clocks --simulate=desktop,old");
    EXPECT_EQ(oneReset.Status, 0);
    EXPECT_THAT(oneReset.Errors, HasSubstr("GPU 1 (NVIDIA GeForce GTX 680)"));
}

TEST(TerminalTest, AChangeWithoutTheRightEndsWithThreeAndNamesSudo) {
    for (const std::string command :
         {"lock-clocks --gpu 0 1500 5001", "reset-clocks", "set-power --gpu 0 200", "reset-power"}) {
        const std::string withdrawn = R"(echo '{"rights": "user"}' >"$NVML_SIM_STATE"; gpu_monitor )";
        ExpectFailure(Shell(withdrawn + command + " --simulate", kKeepState), 3, "sudo", command);
    }
}

TEST(TerminalTest, WithoutADriverItSaysSoAndWhatToDo) {
    // Also where this machine has the driver: the first library found is none.
    const std::string noDriver =
        "folder=$(mktemp -d); : >$folder/libnvidia-ml.so.1; LD_LIBRARY_PATH=$folder "
        "\"$gpu_monitor\" ";
    for (const std::string command : {"list", "sample", "stream", "clocks", "power", "reset-clocks", "reset-power"}) {
        const Result result = Shell(noDriver + command);
        ExpectFailure(result, 1, "NVML unavailable / NVIDIA GPU monitoring disabled.\n", command);
        EXPECT_THAT(result.Errors, HasSubstr("--simulate"));
    }
}

TEST(TerminalTest, WrongUsageIsSaidAndEndsWithTwo) {
    // clang-format off
    for (const char* arguments : {
             "", "show", "list --jsn", "sample --simulate --gpu one", "sample --simulate --gpu -1",
             "sample --simulate=2 --gpu 2", "stream --simulate --gpu 7", "stream --simulate --interval 99",
             "stream --simulate --interval 10001", "stream --simulate --count 0", "list --simulate=0",
             "list --simulate=65", "list --simulate=desktop,toaster", "reset-clocks --simulate --gpu 1",
             "lock-clocks 1500 5001 --simulate", "lock-clocks --gpu 0 1500 --simulate",
             "lock-clocks --gpu 0 1500.5 5001 --simulate", "lock-clocks --gpu 0 0 5001 --simulate",
             "set-power 250 --simulate", "set-power --gpu 0 --simulate=1", "set-power --gpu 0 nan --simulate",
             "set-power --gpu 0 inf --simulate", "set-power --gpu 0 250W --simulate",
             "set-power --gpu 0 '' --simulate", "set-power --gpu '' 200 --simulate", "sample --gpu 00 --simulate"}) {
        // clang-format on
        ExpectFailure(GpuMonitor(arguments), 2, ".\n", arguments);
    }
}

TEST(TerminalTest, SimulatorRefusesEnvironmentVariablesThatMakeNoSense) {
    for (const std::string variable :
         {"NVML_SIM_BOARDS=0", "NVML_SIM_BOARDS=65", "NVML_SIM_BOARDS=desktop,", "NVML_SIM_DELAYS=slow",
          "NVML_SIM_RIGHTS=root", "NVML_SIM_SEED=-1", "NVML_SIM_LOSE=1@5", "NVML_SIM_LOSE=0@", "NVML_SIM_LOSE=0",
          "NVML_SIM_HANG=1@0"}) {
        ExpectFailure(OnSimulator(variable, "list"), 1, variable + " makes no sense", variable);
    }
    EXPECT_EQ(OnSimulator("NVML_SIM_BOARDS=64 NVML_SIM_SEED=5 NVML_SIM_DELAYS=realistic", "list").Status, 0);
}

TEST(TerminalTest, OutputThatCannotBeWrittenIsAnError) {
    for (const std::string command : {"list", "sample", "stream", "clocks", "power", "reset-power"}) {
        ExpectFailure(GpuMonitor(command + " --simulate >/dev/full"), 1, "write", command);
    }
}

}  // namespace
