// Opening NVML, its fallbacks and failures, and the discovery of GPUs.

#include <type_traits>

#include "monitor_test.h"

namespace {

using simulated_nvml::Board;
using simulated_nvml::DesktopBoard;
using namespace testing;

static_assert(!std::is_copy_constructible_v<NvmlGpuMonitor> && !std::is_copy_assignable_v<NvmlGpuMonitor>);
static_assert(!std::is_move_constructible_v<NvmlGpuMonitor> && !std::is_move_assignable_v<NvmlGpuMonitor>);

class StartupTest : public MonitorTest {
protected:
    /// Starts NVML without the sampler, whose calls would come in between. Result: the GPUs that were discovered.
    std::vector<GpuDeviceInfo> Discover() {
        GpuTelemetrySample sample;
        Monitor.ReadCurrentSample(&sample);
        std::vector<GpuDeviceInfo> devices;
        for (const GpuTelemetryHistory& history : Monitor.Snapshot()) devices.push_back(history.Device);
        return devices;
    }

    /// Expects a start as scripted to fail with `status` and this end of the log, and one without the script to
    /// succeed.
    void ExpectFailedStart(const std::string& status, const std::string& logEnd) {
        EXPECT_FALSE(Monitor.Start());
        EXPECT_FALSE(Monitor.IsAvailable());
        EXPECT_EQ(Monitor.Status(), status);
        EXPECT_THAT(Log(), EndsWith(logEnd));
        StartOver();
        EXPECT_TRUE(Monitor.Start());
        EXPECT_EQ(Monitor.Status(), "NVML active: 1 NVIDIA GPU(s).");
        Monitor.Stop();
        StartOver();
    }
};

TEST_F(StartupTest, MakesItsLookupsAndCallsInOrderAndOnce) {
    Monitor.Stop();
    EXPECT_EQ(Monitor.Status() + Log(), "") << "a new monitor has opened nothing";
    EXPECT_FALSE(Monitor.IsAvailable());
    Discover();
    EXPECT_THAT(Log(),
                StartsWith("dlopen(1) ?Init_v2 ?Count_v2 ?HandleByIndex_v2 ?Name Init_v2() Count_v2() "
                           "?DriverVersion DriverVersion(96) HandleByIndex_v2(0) Name(0, 96) ?UUID UUID(0, 128) "
                           "?VbiosVersion VbiosVersion(0, 128) ?PciInfo_v3 PciInfo_v3(0) "
                           "?Architecture Architecture(0) ?BAR1MemoryInfo BAR1MemoryInfo(0) ?HandleByIndex_v2 "));
    EXPECT_TRUE(Monitor.Start());
    EXPECT_TRUE(Monitor.Start());
    EXPECT_EQ(Sim.Calls("nvmlInit_v2") + Sim.Calls("nvmlDeviceGetName"), 2);
    Monitor.Stop();
    EXPECT_EQ(Monitor.Status(), "NVML active: 1 NVIDIA GPU(s).");
    const std::string log = Log();
    EXPECT_THAT(log, EndsWith("?Shutdown Shutdown() dlclose "));
    Monitor.Stop();
    EXPECT_EQ(Log(), log);
}

TEST_F(StartupTest, TakesUnversionedNamesRightAfterAMiss) {
    for (const char* name : {"nvmlInit_v2", "nvmlDeviceGetCount_v2", "nvmlDeviceGetHandleByIndex_v2"}) {
        Sim.HideEntryPoint(name);
    }
    EXPECT_THAT(Discover(), SizeIs(1));
    EXPECT_THAT(Log(), StartsWith("dlopen(1) ?Init_v2 ?Init ?Count_v2 ?Count ?HandleByIndex_v2 ?HandleByIndex ?Name "
                                  "Init() Count() ?DriverVersion DriverVersion(96) HandleByIndex(0) "));
}

TEST_F(StartupTest, FailuresSayWhyAndLeaveNothingOpen) {
    Sim.RemoveLibrary();
    ExpectFailedStart("NVML unavailable / NVIDIA GPU monitoring disabled.", "dlopen(1) ");

    const std::vector<std::string> required[] = {{"nvmlInit_v2", "nvmlInit"},
                                                 {"nvmlDeviceGetCount_v2", "nvmlDeviceGetCount"},
                                                 {"nvmlDeviceGetHandleByIndex_v2", "nvmlDeviceGetHandleByIndex"},
                                                 {"nvmlDeviceGetName"}};
    for (const std::vector<std::string>& names : required) {
        for (const std::string& name : names) Sim.HideEntryPoint(name);
        ExpectFailedStart("NVML initialization failed.", "?Name dlclose ");
    }
    Sim.FailFrom("nvmlInit_v2", simulated_nvml::kUnknown);
    ExpectFailedStart("NVML initialization failed.", "Init_v2() dlclose ");

    Sim.SetBoards({});
    ExpectFailedStart("No NVIDIA GPU found.", "Count_v2() ?Shutdown Shutdown() dlclose ");
    for (const char* name : {"nvmlDeviceGetCount_v2", "nvmlDeviceGetHandleByIndex_v2", "nvmlDeviceGetName"}) {
        Sim.FailFrom(name, simulated_nvml::kGpuIsLost);
        ExpectFailedStart("No NVIDIA GPU found.", "?Shutdown Shutdown() dlclose ");
    }
}

TEST_F(StartupTest, FailedStartKeepsOrEmptiesTheHistoriesOfTheOneBefore) {
    EXPECT_THAT(Discover(), SizeIs(1));
    Monitor.Stop();
    Sim.FailFrom("nvmlDeviceGetCount_v2", simulated_nvml::kUnknown);
    EXPECT_THAT(Discover(), SizeIs(1)) << "Without a count nothing is replaced.";
    Sim.StopFailing();
    Sim.FailFrom("nvmlDeviceGetName", simulated_nvml::kUnknown);
    EXPECT_THAT(Discover(), IsEmpty());
}

TEST_F(StartupTest, IdentityIsReadAndEachMissingPartLeavesOnlyItsFieldEmpty) {
    const Board board = DesktopBoard(0);
    const std::pair<const char*, std::string> parts[] = {{"nvmlSystemGetDriverVersion", "550.120"},
                                                         {"nvmlDeviceGetUUID", board.Uuid},
                                                         {"nvmlDeviceGetVbiosVersion", board.VbiosVersion},
                                                         {"nvmlDeviceGetPciInfo_v3", board.BusId},
                                                         {"nvmlDeviceGetArchitecture", "Ada"},
                                                         {"nvmlDeviceGetBAR1MemoryInfo", "17179869184"}};
    for (const auto& [missing, value] : parts) {
        for (const bool bFails : {false, true}) {
            bFails ? Sim.FailFrom(missing, simulated_nvml::kNotSupported) : Sim.HideEntryPoint(missing);
            // What a failing query for the driver version wrote is kept.
            const bool bKept = bFails && value == parts[0].second;
            const GpuDeviceInfo device = Discover().front();
            std::vector<std::string> expected;
            for (const auto& [name, text] : parts) expected.push_back(name == missing && !bKept ? "" : text);
            if (expected.back().empty()) expected.back() = "0";
            EXPECT_THAT(expected, ElementsAre(device.DriverVersion, device.Uuid, device.VbiosVersion, device.PciBusId,
                                              device.Architecture, std::to_string(device.Bar1TotalBytes)))
                << missing;
            Monitor.Stop();
            StartOver();
        }
    }
}

TEST_F(StartupTest, ArchitecturesHaveNames) {
    std::string names;
    for (unsigned int code = 1; code <= 11; ++code) {
        Board board = DesktopBoard(0);
        board.Architecture = code;
        Sim.SetBoards({board});
        names += Discover().front().Architecture + ' ';
        Monitor.Stop();
    }
    EXPECT_EQ(names, "Unknown Kepler Maxwell Pascal Volta Turing Ampere Ada Hopper Blackwell Unknown ");
}

TEST_F(StartupTest, TextsWithoutATerminatorEndWithTheirBuffers) {
    Board board = DesktopBoard(0);
    board.BusId = std::string(1, '\0');
    Sim.SetBoards({board});
    Sim.UseUnterminatedText();
    const GpuDeviceInfo device = Discover().front();
    EXPECT_THAT(device.Name, AllOf(StartsWith(board.Name), SizeIs(96)));
    EXPECT_THAT(device.Uuid, SizeIs(128));
    EXPECT_THAT(device.PciBusId, AllOf(StartsWith(board.BusIdLegacy), SizeIs(16))) << "the legacy form";
}

}  // namespace
