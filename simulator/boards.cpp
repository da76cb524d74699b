// The catalogue of boards: data, nothing else.

#include <cstdio>

#include "board_model.h"
#include "simulated_nvml.h"

namespace simulated_nvml {

namespace {

constexpr uint64_t kMiB = uint64_t{1} << 20;
constexpr uint64_t kGiB = uint64_t{1} << 30;

/// NVML's codes for brands.
constexpr unsigned int kGeForce = 5;
constexpr unsigned int kQuadroRtx = 12;
constexpr unsigned int kNvidia = 14;

std::vector<unsigned int> Steps(unsigned int highest, unsigned int lowest, unsigned int step) {
    std::vector<unsigned int> clocks;
    for (unsigned int clock = highest; clock >= lowest; clock -= step) clocks.push_back(clock);
    return clocks;
}

template <typename... Values>
std::string Format(const char* format, Values... values) {
    char text[96];
    std::snprintf(text, sizeof text, format, values...);
    return text;
}

/// A board with the identity that belongs to its place in the machine.
Board BoardAt(unsigned int index, const char* name, unsigned int pciDeviceId) {
    Board board;
    PutIntoSlot(index, &board);
    board.Name = name;
    board.PciDeviceId = pciDeviceId;
    board.PciSubSystemId = 0x000110DEU + (index << 16U);
    board.Uuid = Format("GPU-%08x-51a7-4e5f-8d0c-%012x", pciDeviceId, 0xA1B2C300U + index);
    return board;
}

}  // namespace

void PutIntoSlot(unsigned int index, Board* board) {
    board->PciBus = index + 1;
    board->BusId = Format("00000000:%02X:00.0", board->PciBus);
    board->BusIdLegacy = Format("0000:%02X:00.0", board->PciBus);
}

Board DesktopBoard(unsigned int index) {
    Board board = BoardAt(index, "NVIDIA GeForce RTX 4080", 0x270410DEU);
    board.VbiosVersion = "95.03.1E.00.60";
    board.Architecture = 8;
    board.Brand = kGeForce;
    board.FanCount = 2;
    board.VramTotalBytes = 16376 * kMiB;
    board.Bar1TotalBytes = 16 * kGiB;
    const std::vector<unsigned int> graphics = Steps(3105, 210, 15);
    board.Clocks = {
        {11201, graphics}, {10802, graphics}, {5001, graphics}, {810, graphics}, {405, Steps(420, 210, 15)}};
    board.IdlePowerMilliwatts = 14000;
    board.PeakPowerMilliwatts = 345000;
    board.DefaultPowerLimitMilliwatts = 320000;
    board.MinimumPowerLimitMilliwatts = 150000;
    board.MaximumPowerLimitMilliwatts = 352000;
    board.FullLoadTemperatureC = 76;
    board.SlowdownTemperatureC = 97;
    board.ShutdownTemperatureC = 102;
    board.MaxPcieGeneration = 4;
    board.MaxPcieWidth = 16;
    board.Load = Workload::Game;
    return board;
}

Board LaptopBoard(unsigned int index) {
    Board board = BoardAt(index, "NVIDIA GeForce RTX 3070 Laptop GPU", 0x24DD10DEU);
    board.VbiosVersion = "94.04.43.00.4F";
    board.Architecture = 7;
    board.Brand = kGeForce;
    board.VramTotalBytes = 8 * kGiB;
    board.Bar1TotalBytes = 8 * kGiB;
    const std::vector<unsigned int> graphics = Steps(2100, 210, 15);
    board.Clocks = {{7001, graphics}, {6001, graphics}, {810, graphics}, {405, Steps(420, 210, 15)}};
    board.IdlePowerMilliwatts = 9000;
    board.PeakPowerMilliwatts = 140000;
    board.DefaultPowerLimitMilliwatts = 100000;
    board.MinimumPowerLimitMilliwatts = 80000;
    board.MaximumPowerLimitMilliwatts = 115000;
    board.FullLoadTemperatureC = 83;
    board.SlowdownTemperatureC = 87;
    board.ShutdownTemperatureC = 100;
    board.MaxPcieGeneration = 4;
    board.MaxPcieWidth = 8;
    board.Load = Workload::Video;
    board.Unsupported = {"nvmlDeviceGetFanSpeed", "nvmlDeviceGetPowerManagementLimit",
                         "nvmlDeviceGetPowerManagementDefaultLimit", "nvmlDeviceGetPowerManagementLimitConstraints",
                         "nvmlDeviceSetPowerManagementLimit"};
    return board;
}

Board DataCenterBoard(unsigned int index) {
    Board board = BoardAt(index, "NVIDIA H100 PCIe", 0x233110DEU);
    board.VbiosVersion = "96.00.30.00.01";
    board.Architecture = 9;
    board.Brand = kNvidia;
    board.Serial = Format("16512230%05u", 40117 + index);
    board.VramTotalBytes = 81559 * kMiB;
    board.Bar1TotalBytes = 128 * kGiB;
    board.Clocks = {{1593, Steps(1755, 210, 15)}};
    board.IdlePowerMilliwatts = 48000;
    board.PeakPowerMilliwatts = 390000;
    board.DefaultPowerLimitMilliwatts = 350000;
    board.MinimumPowerLimitMilliwatts = 200000;
    board.MaximumPowerLimitMilliwatts = 350000;
    board.FullLoadTemperatureC = 72;
    board.SlowdownTemperatureC = 92;
    board.ShutdownTemperatureC = 95;
    board.MaxPcieGeneration = 5;
    board.MaxPcieWidth = 16;
    board.Load = Workload::Training;
    board.bDraws = false;
    board.Unsupported = {"nvmlDeviceGetFanSpeed"};
    return board;
}

Board OldBoard(unsigned int index) {
    Board board = BoardAt(index, "NVIDIA GeForce GTX 680", 0x118010DEU);
    board.VbiosVersion = "80.04.09.00.01";
    board.Architecture = 2;
    board.Brand = kGeForce;
    board.VramTotalBytes = 2048 * kMiB;
    board.Bar1TotalBytes = 128 * kMiB;
    board.Clocks = {{3004, Steps(1058, 549, 13)}, {810, Steps(549, 549, 13)}, {324, Steps(324, 324, 13)}};
    board.IdlePowerMilliwatts = 15000;
    board.PeakPowerMilliwatts = 195000;
    board.DefaultPowerLimitMilliwatts = 195000;
    board.MinimumPowerLimitMilliwatts = 195000;
    board.MaximumPowerLimitMilliwatts = 195000;
    board.FullLoadTemperatureC = 80;
    board.SlowdownTemperatureC = 98;
    board.ShutdownTemperatureC = 103;
    board.MaxPcieGeneration = 3;
    board.MaxPcieWidth = 16;
    board.Load = Workload::Office;
    board.Unsupported = {"nvmlDeviceGetUtilizationRates",
                         "nvmlDeviceGetEncoderUtilization",
                         "nvmlDeviceGetDecoderUtilization",
                         "nvmlDeviceGetPcieThroughput",
                         "nvmlDeviceGetCurrentClocksThrottleReasons",
                         "nvmlDeviceGetPowerUsage",
                         "nvmlDeviceGetEnforcedPowerLimit",
                         "nvmlDeviceGetPowerManagementLimit",
                         "nvmlDeviceGetPowerManagementDefaultLimit",
                         "nvmlDeviceGetPowerManagementLimitConstraints",
                         "nvmlDeviceSetPowerManagementLimit",
                         "nvmlDeviceGetSupportedMemoryClocks",
                         "nvmlDeviceGetSupportedGraphicsClocks",
                         "nvmlDeviceSetGpuLockedClocks",
                         "nvmlDeviceResetGpuLockedClocks",
                         "nvmlDeviceSetMemoryLockedClocks",
                         "nvmlDeviceResetMemoryLockedClocks",
                         "nvmlDeviceGetComputeRunningProcesses_v3",
                         "nvmlDeviceGetGraphicsRunningProcesses_v3"};
    return board;
}

Board WorkstationBoard(unsigned int index) {
    Board board = BoardAt(index, "Quadro RTX 5000", 0x1EB010DEU);
    board.VbiosVersion = "90.04.4F.00.07";
    board.Architecture = 6;
    board.Brand = kQuadroRtx;
    board.VramTotalBytes = 16 * kGiB;
    board.Bar1TotalBytes = 256 * kMiB;
    const std::vector<unsigned int> graphics = Steps(2100, 300, 15);
    board.Clocks = {{7001, graphics}, {6501, graphics}, {5001, graphics}, {810, graphics}, {405, Steps(645, 300, 15)}};
    board.IdlePowerMilliwatts = 11000;
    board.PeakPowerMilliwatts = 250000;
    board.DefaultPowerLimitMilliwatts = 230000;
    board.MinimumPowerLimitMilliwatts = 125000;
    board.MaximumPowerLimitMilliwatts = 230000;
    board.FullLoadTemperatureC = 80;
    board.SlowdownTemperatureC = 93;
    board.ShutdownTemperatureC = 96;
    board.MaxPcieGeneration = 3;
    board.MaxPcieWidth = 16;
    board.Load = Workload::Office;
    board.Unsupported = {"nvmlDeviceSetMemoryLockedClocks"};
    return board;
}

}  // namespace simulated_nvml
