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

/// Runs a shell script in which $gpu_monitor is the program.
Result Shell(const std::string& script) {
    const std::string path = TempDir() + "gpu_monitor_" + std::to_string(getpid());
    std::ofstream(path + ".sh") << "gpu_monitor='" GPU_MONITOR "'; unset LD_LIBRARY_PATH; rm \"$0\"; " << script;
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

TEST(TerminalTest, WithoutADriverItSaysSoAndWhatToDo) {
    // Also where this machine has the driver: the first library found is none.
    const std::string noDriver =
        "folder=$(mktemp -d); : >$folder/libnvidia-ml.so.1; LD_LIBRARY_PATH=$folder "
        "\"$gpu_monitor\" ";
    for (const std::string command : {"list", "sample", "stream"}) {
        const Result result = Shell(noDriver + command);
        EXPECT_EQ(result.Status, 1);
        EXPECT_THAT(result.Output, IsEmpty());
        EXPECT_THAT(result.Errors,
                    AllOf(HasSubstr("NVML unavailable / NVIDIA GPU monitoring disabled.\n"), HasSubstr("--simulate")));
    }
}

TEST(TerminalTest, WrongUsageIsSaidAndEndsWithTwo) {
    for (const char* arguments :
         {"", "show", "list --jsn", "sample --simulate --gpu one", "sample --simulate --gpu -1",
          "sample --simulate=2 --gpu 2", "stream --simulate --gpu 7", "stream --simulate --interval 99",
          "stream --simulate --interval 10001", "stream --simulate --count 0", "list --simulate=0",
          "list --simulate=65", "list --simulate=desktop,toaster"}) {
        const Result result = GpuMonitor(arguments);
        EXPECT_EQ(result.Status, 2) << arguments;
        EXPECT_THAT(result.Output, IsEmpty()) << arguments;
        EXPECT_THAT(result.Errors, Not(IsEmpty())) << arguments;
    }
}

TEST(TerminalTest, SimulatorRefusesEnvironmentVariablesThatMakeNoSense) {
    for (const std::string variable :
         {"NVML_SIM_BOARDS=0", "NVML_SIM_BOARDS=65", "NVML_SIM_BOARDS=desktop,", "NVML_SIM_DELAYS=slow",
          "NVML_SIM_RIGHTS=root", "NVML_SIM_SEED=-1", "NVML_SIM_LOSE=1@5", "NVML_SIM_LOSE=0@", "NVML_SIM_LOSE=0"}) {
        const Result result = OnSimulator(variable, "list");
        EXPECT_EQ(result.Status, 1) << variable;
        EXPECT_THAT(result.Errors,
                    AllOf(HasSubstr(variable + " makes no sense"), HasSubstr("NVML initialization failed.")));
    }
    EXPECT_EQ(OnSimulator("NVML_SIM_BOARDS=64 NVML_SIM_SEED=5 NVML_SIM_DELAYS=realistic", "list").Status, 0);
}

TEST(TerminalTest, OutputThatCannotBeWrittenIsAnError) {
    for (const std::string command : {"list", "sample", "stream"}) {
        const Result result = GpuMonitor(command + " --simulate >/dev/full");
        EXPECT_EQ(result.Status, 1) << command;
        EXPECT_THAT(result.Errors, HasSubstr("write")) << command;
    }
}

}  // namespace
