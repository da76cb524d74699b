// What the program prints about given readings, answers and changes, word by word.

#include <gmock/gmock.h>

#include <ctime>
#include <sstream>

#include "gpu_feed/clock.h"
#include "gpu_feed/limit_reasons.h"
#include "gpu_feed/reading_text.h"
#include "gpu_feed/tuning_text.h"
#include "text/change_report.h"
#include "text/csv_format.h"
#include "text/json_format.h"
#include "text/stream_format.h"
#include "text/table_format.h"

namespace {

using namespace testing;
using namespace gpu_feed;
using Kind = TuningChange::Kind;

constexpr uint64_t kMiB = 1U << 20U;

/// A GPU that answers everything. A terminal would obey the bell in its name.
GpuReadings FullGpu(uint64_t limitReasons = kPowerCapReason | kDriverThermalReason) {
    // clang-format off
    return {{"Board\a", 3, "GPU-1", "00:02.0", "550.1", "94.02", "Ada", 256 * kMiB},
            {0.0, 61, 7, 8, 9, 10, 1000 * kMiB, 2000 * kMiB, 16 * kMiB, 256 * kMiB, 99.96, 320.0, 300.0, 100.0, 350.5,
             41, 1500, 1501, 5001, 1200, 2, 4, 16, 1.5, 12.25, limitReasons, 8.333}};
    // clang-format on
}

/// A GPU that answers nothing.
GpuReadings SilentGpu() {
    return {{"Old", 12, "", "", "", "", "", 0}, {}};
}

GpuPowerCapabilities Power(double current, double byDefault = 320.0) {
    return {0, "", GpuCapabilityState::Supported, current, byDefault, 150.0, 352.0, "Fine."};
}

/// The words of a text with one space between them, without the time of day.
std::string Words(std::string text) {
    const size_t time = text.find("\"time\":");
    if (time != std::string::npos) text.erase(time, text.find(',', time) + 1 - time);
    std::istringstream words(text);
    std::string joined;
    for (std::string word; words >> word;) joined += (joined.empty() ? "" : " ") + word;
    return joined;
}

TEST(TextTest, TableHasARowForEachReading) {
    const std::string table = SampleText({FullGpu(), SilentGpu()}, 52);
    EXPECT_THAT(table, AllOf(StartsWith("GPU 3: Board?\nGPU 12: Old\n\n"
                                        "                                  GPU 3       GPU 12\n"
                                        "GPU utilization      %                7            -\n"),
                             EndsWith("Frame time           ms            8.33            -\n"
                                      "Limited by                   power cap,            -\n"
                                      "                                thermal             \n")));
    EXPECT_THAT(Words(table), HasSubstr("Power W 100.0 - Power limit W 320.0 - Default power limit W 300.0 - "));
    EXPECT_EQ(SampleText({FullGpu(), SilentGpu()}, 51),
              SampleText({FullGpu()}, 0) + '\n' + SampleText({SilentGpu()}, 0));
    GpuReadings busy = SilentGpu();
    busy.Processes = {{7, 3 * kMiB, "ren\ader", "ann"}, {123456, kMiB, "", ""}};
    EXPECT_THAT(SampleText({busy}, 0), EndsWith("\nGPU       PID        VRAM  User        Program\n"
                                                " 12         7       3 MiB  ann         ren?der\n"
                                                " 12    123456       1 MiB  -           -\n"));
}

TEST(TextTest, NamesOfGpusShortenFromTheFront) {
    const std::tuple<const char*, int, const char*> cases[] = {
        {"NVIDIA GeForce RTX 3070 Laptop GPU", 34, "NVIDIA GeForce RTX 3070 Laptop GPU"},
        {"NVIDIA GeForce RTX 3070 Laptop GPU", 33, "GeForce RTX 3070 Laptop"},
        {"NVIDIA GeForce RTX 3070 Laptop GPU", 22, "RTX 3070 Laptop"},
        {"NVIDIA GeForce RTX 3070 Laptop GPU", 3, "RTX 3070 Laptop"},
        {"NVIDIA H100 PCIe", 12, "H100 PCIe"},
        {"NVIDIA ", 3, "NVIDIA "}};
    for (const auto& [name, columns, expected] : cases) EXPECT_EQ(ShortName(name, columns), expected);
}

TEST(TextTest, StreamHasColumnsWithUnitsAndAsManyLimitsAsFit) {
    EXPECT_EQ(StreamHeading() + StreamText(FullGpu().Device, FullGpu().Sample, 12.34) +
                  StreamText(SilentGpu().Device, SilentGpu().Sample, 0.0),
              "    time gpu util  mem   vram  power temp  fan   gfx   mem limited by\n"
              "       s        %    %    MiB      W    C    %   MHz   MHz\n"
              "    12.3   3    7    8   1000  100.0   61   41  1500  5001 power cap, thermal\n"
              "     0.0  12    -    -      -      -    -    -     -     - -\n");
    const std::pair<uint64_t, const char*> limits[] = {
        {kPowerCapReason | kHardwareSlowdownReason, " power cap +1\n"},
        {kPowerCapReason | kDriverThermalReason | kHardwareThermalReason, " power cap, thermal +1\n"},
        {kApplicationClocksReason | kDriverThermalReason | kPowerBrakeReason, " application clocks +2\n"}};
    for (const auto& [reasons, words] : limits) {
        EXPECT_THAT(StreamText(FullGpu().Device, FullGpu(reasons).Sample, 0.0), EndsWith(words)) << reasons;
    }
}

TEST(TextTest, JsonHasWhatWasReadUnderItsUnit) {
    EXPECT_EQ(Words(SampleJson("550.1", {FullGpu()})), Words(R"({ "driver_version": "550.1", "gpus": [ { "index": 3,
        "name": "Board\u0007", "uuid": "GPU-1", "pci_bus_id": "00:02.0", "architecture": "Ada",
        "driver_version": "550.1", "vbios_version": "94.02", "bar1_total_bytes": 268435456, "timestamp_seconds": 0.0,
        "gpu_utilization_percent": 7, "memory_utilization_percent": 8, "encoder_utilization_percent": 9,
        "decoder_utilization_percent": 10, "vram_used_bytes": 1048576000, "vram_total_bytes": 2097152000,
        "bar1_used_bytes": 16777216, "power_watts": 99.96, "power_limit_watts": 320.0,
        "default_power_limit_watts": 300.0, "minimum_power_limit_watts": 100.0, "maximum_power_limit_watts": 350.5,
        "temperature_c": 61, "fan_percent": 41, "graphics_clock_mhz": 1500, "sm_clock_mhz": 1501,
        "memory_clock_mhz": 5001, "video_clock_mhz": 1200, "performance_state": 2, "pcie_generation": 4,
        "pcie_width": 16, "pcie_receive_mib_per_second": 1.5, "pcie_transmit_mib_per_second": 12.25,
        "frame_time_ms": 8.333, "performance_limit_reasons": 36, "performance_limits": [ "power cap", "thermal" ],
        "processes": [] } ] })"));
    // A name that is not UTF-8 does not spoil the line.
    const std::vector<FeedProcess> processes = {{7, 1, "a\xff", "user", "a -b", 12.5, 4096}, {8, 2, "", ""}};
    EXPECT_EQ(Words(StreamJson(SilentGpu().Device, {}, &processes)),
              R"({"index":12,"name":"Old","timestamp_seconds":0.0,"processes":[{"pid":7,"vram_used_bytes":1,)"
              R"("name":"a�","user":"user","command_line":"a -b","cpu_percent":12.5,"memory_bytes":4096},)"
              R"({"pid":8,"vram_used_bytes":2}]})");
}

TEST(TextTest, CsvHasAllDigitsAndQuotesWhatNeedsIt) {
    const std::string line = CsvLine(FullGpu().Device, FullGpu().Sample);
    EXPECT_EQ(line.substr(line.find(',')),
              ",GPU-1,3,Board?,7,8,9,10,1048576000,2097152000,16777216,268435456,99.96,320,300,100,350.5,61,41,1500,"
              "1501,5001,1200,2,4,16,1.5,12.25,8.333,36,\"power cap, thermal\"\n");
    EXPECT_THAT(CsvLine(SilentGpu().Device, {}), EndsWith("Z,,12,Old" + std::string(27, ',') + '\n'));
    GpuDeviceInfo hostile;
    hostile.Uuid = "a\",\n";
    EXPECT_THAT(CsvLine(hostile, {}), HasSubstr("Z,\"a\"\",?\",0,,"));
}

TEST(TextTest, JsonTimeIsTheTimeOfDayOfTheSample) {
    // The milliseconds of one of these begin with a zero.
    for (int tenth = 0; tenth < 10; ++tenth) {
        const double age = 7000.0 + 0.1 * tenth;
        GpuTelemetrySample sample;
        sample.TimestampSeconds = NowSeconds() - age;
        const std::string json = StreamJson({}, sample, nullptr);
        tm utc{};
        const char* const end = strptime(json.c_str(), R"({"index":0,"name":"","time":"%Y-%m-%dT%H:%M:%S)", &utc);
        ASSERT_NE(end, nullptr) << json;
        EXPECT_THAT(std::string(end, 6), MatchesRegex("[.][0-9][0-9][0-9]Z\""));
        EXPECT_NEAR(difftime(time(nullptr), timegm(&utc)), age, 2.0);
    }
}

TEST(TextTest, AnswersAreParagraphsAndObjects) {
    EXPECT_EQ(Words(ListText({FullGpu().Device, SilentGpu().Device})),
              "Index 3 Name Board? UUID GPU-1 PCI bus id 00:02.0 Architecture Ada Driver version 550.1 "
              "VBIOS version 94.02 BAR1 size 256 MiB Index 12 Name Old UUID - PCI bus id - Architecture - "
              "Driver version - VBIOS version - BAR1 size -");
    const std::vector<GpuClockPair> pairs = {{300, 405}, {315, 405}, {330, 405}, {345, 405},
                                             {400, 405}, {410, 405}, {420, 405}, {210, 5001}};
    const std::vector<GpuClocks> clocks = {{FullGpu().Device, {0, "", "", pairs, 300, -1, true, "Fine."}},
                                           {SilentGpu().Device, {0, "", "", {}, -1, -1, false, "No clocks here."}}};
    EXPECT_EQ(ClockQueryText(clocks, 38),
              "GPU 3: Board?\nRunning     300 MHz graphics, - memory\nLocking     possible; may need root\n"
              "Memory MHz  Graphics MHz\n      5001  210\n       405  300 to 345 in steps of 15,\n"
              "            400, 410, 420 (7 clocks)\n\n"
              "GPU 12: Old\nRunning     -\nLocking     impossible: No clocks\n            here.\n");
    EXPECT_EQ(Words(ClocksJson("", clocks)), Words(R"({ "gpus": [ { "index": 3, "name": "Board\u0007",
        "uuid": "GPU-1", "can_control": true, "status": "Fine.", "graphics_clock_mhz": 300, "supported": [
        { "memory_clock_mhz": 5001, "graphics_clocks_mhz": [ 210 ] },
        { "memory_clock_mhz": 405, "graphics_clocks_mhz": [ 300, 315, 330, 345, 400, 410, 420 ] } ] },
        { "index": 12, "name": "Old", "can_control": false, "status": "No clocks here.", "supported": [] } ] })"));
    const GpuPowerCapabilities unread = {0, "", GpuCapabilityState::DriverLimitation, -1, -1, -1, -1, "Bad."};
    const std::vector<GpuPower> power = {{FullGpu().Device, Power(200.5)}, {SilentGpu().Device, unread}};
    EXPECT_EQ(PowerQueryText(power, 80),
              "GPU 3: Board?\nIn force  200.5 W\nDefault   320 W\nRange     150 to 352 W\nStatus    Fine.\n\n"
              "GPU 12: Old\nIn force  -\nDefault   -\nRange     -\nStatus    Bad.\n");
    EXPECT_EQ(Words(PowerJson("", power)), Words(R"({ "gpus": [ { "index": 3, "name": "Board\u0007",
        "uuid": "GPU-1", "state": "supported", "status": "Fine.", "current_watts": 200.5, "default_watts": 320.0,
        "minimum_watts": 150.0, "maximum_watts": 352.0 },
        { "index": 12, "name": "Old", "state": "driver_limitation", "status": "Bad." } ] })"));
}

TEST(TextTest, ReportOfAPowerLimitSaysWhatIsInForceAndHowToUndoIt) {
    const TuningChange set = {Kind::SetPower, {}, 250.125};
    const TuningChange reset = {Kind::ResetPower};
    const std::string other = " Note The driver took the limit, but another one is in force.";
    const std::string unread = " Note The driver took the limit, but what is in force cannot be read.";
    const std::string onlyReset = " Undo to the default only; what was in force before cannot be set: ";
    const std::string resetCommand = "gpu_monitor reset-power --gpu 3";
    const std::tuple<TuningChange, double, double, std::string> cases[] = {
        {set, 320.0, 250.125, " Undo " + resetCommand},
        {set, 320.0, 320.0, other + " Undo " + resetCommand},
        {set, 250.125, 200.0, other + " Undo gpu_monitor set-power --gpu 3 250.125"},
        {set, 250.125, -1.0, unread + " Undo not needed: the limit was the same before"},
        {set, -1.0, -1.0, unread + onlyReset + resetCommand},
        {reset, 400.0, 320.0, onlyReset + resetCommand}};
    for (const auto& [change, before, now, report] : cases) {
        const Details details = PowerReport(change, Power(before), Power(now), 3, "");
        EXPECT_THAT(Words(Paragraph({}, details, 80)), EndsWith("Range 150 to 352 W" + report)) << before << ' ' << now;
    }
    EXPECT_EQ(PowerAdvice(reset, Power(320.0, -1.0)), "The default limit of this GPU cannot be read.");
    EXPECT_EQ(PowerAdvice(set, Power(320.0)), "");
}

TEST(TextTest, ReportOfALockSaysWhyOtherClocksRunAndAdviceWhatCanBeLocked) {
    const std::string note = " Note The driver took the lock, but ";
    const std::string undo =
        " Undo releases the clocks and brings no earlier lock back: "
        "gpu_monitor reset-clocks --gpu 3 --simulate";
    const std::tuple<GpuReadings, int, std::string> cases[] = {
        {FullGpu(), 1500, "Asked 1500 MHz graphics, 5001 MHz memory Running 1500 MHz graphics, 5001 MHz memory"},
        {FullGpu(), 1485, "5001 MHz memory" + note + "other clocks run; limited by: power cap, thermal."},
        {FullGpu(0), 1485, "5001 MHz memory" + note + "other clocks run; it does not say what limits them."},
        {SilentGpu(), 1485, "Running -" + note + "the clocks cannot be read."}};
    for (const auto& [gpu, graphics, report] : cases) {
        const Details details = LockReport({graphics, 5001}, gpu.Sample, 3, "--simulate");
        EXPECT_THAT(Words(Paragraph({}, details, 40)), EndsWith(report + undo));
        EXPECT_THAT(Paragraph({}, details, 40), HasSubstr("gpu_monitor reset-clocks --gpu 3 --simulate\n"));
    }
    const GpuClockCapabilities listed = {0,  "", "",   {{1000, 5001}, {1020, 5001}, {1020, 405}, {405, 1000}},
                                         -1, -1, true, ""};
    const std::pair<GpuClockPair, std::string> advice[] = {
        {{1010, 5000}, "Nearest: 1000 MHz graphics, 5001 MHz memory or 1020 MHz graphics, 5001 MHz memory."},
        {{405, 1020}, "Nearest: 1020 MHz graphics, 405 MHz memory."}};
    for (const auto& [pair, nearest] : advice) {
        EXPECT_EQ(LockAdvice(pair, "", listed, 3, ""),
                  nearest + "\nAll that can be locked: gpu_monitor clocks --gpu 3");
    }
    EXPECT_EQ(CommandOf({Kind::LockClocks, {1500, 5001}}, 3, ""), "gpu_monitor lock-clocks --gpu 3 1500 5001");
}

}  // namespace
