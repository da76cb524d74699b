#ifndef BOARD_MODEL_H
#define BOARD_MODEL_H

#include <cstdint>
#include <memory>

#include "board_settings.h"
#include "entry_point_list.h"
#include "nvml_abi.h"
#include "recording.h"
#include "simulated_nvml.h"
#include "system_processes.h"

namespace simulated_nvml {

/// Video memory that the driver keeps for itself: a living board has more than that.
constexpr uint64_t kReservedVramBytes = uint64_t{320} << 20;

/// Gives a board the PCI place that belongs to its index in the machine.
void PutIntoSlot(unsigned int index, Board* board);

/// A living board: a workload keeps it busy, and load, limits and heat decide its clocks and its power.
///
/// Time runs in fixed steps from the board's start, so the same seed gives the same readings at the same moment,
/// however often they are asked for. Not safe to use from two threads at once.
class BoardModel {
public:
    /// The clock of the video engines that goes with a graphics clock.
    static unsigned int VideoClockMHz(unsigned int graphicsMHz) { return graphicsMHz * 85 / 100; }

    /// `processes` are those that the boards of this system have in common.
    BoardModel(Board board, unsigned int index, uint64_t seed, std::shared_ptr<SystemProcesses> processes);

    const Board& Identity() const { return Description; }
    bool Supports(EntryPoint name) const { return !Unsupported[IndexOf(QueryOf(name))]; }
    /// Whether the board answers a call now: success, or the code with which it refuses.
    NvmlReturn Verdict(EntryPoint name, Arguments arguments) const;
    /// Brings the readings to `seconds` after the board's start; negative before it. The clock may have been set back.
    void AdvanceTo(double seconds);
    const Readings& Now() const { return Current; }
    /// What a living board has used since its start, its warm-up included; it never falls. What is not simulated of a
    /// long gap counts with the power at its beginning.
    uint64_t EnergyMillijoules() const { return static_cast<uint64_t>(Millijoules); }

    const BoardSettings& Settings() const { return InForce; }
    /// The readings follow from the next tick on.
    void Apply(const BoardSettings& settings) { InForce = settings; }
    unsigned int PowerLimitMilliwatts() const {
        return InForce.PowerLimitMilliwatts.value_or(Description.DefaultPowerLimitMilliwatts);
    }

private:
    /// Brings a recorded board to `seconds`; where it is lost, the latest row stays.
    void PlayTo(double seconds);

    /// A random number from 0 to 1: always the same one for this board, this `stream` and this place in the stream.
    double Random(uint64_t stream, int64_t place) const;
    /// How much the workload asks of the board at a moment, 0 to 1.
    double Demand(double seconds) const;
    double PhaseDemand(int64_t phase) const;

    void Step();
    void ChooseMemoryClock(double demand);
    /// The slowest memory clock at which the graphics clocks reach into the range they are locked to.
    size_t SlowestGroupForGraphicsLock() const;
    void ChooseGraphicsClock(double demand);
    double WantedGraphicsClock(double demand);
    double PowerAt(double graphicsMHz, double demand) const;
    /// The highest listed graphics clock up to `highestMHz` whose power stays within the limit.
    unsigned int HighestClockWithin(double highestMHz, double demand);
    void UpdatePowerAndHeat(double demand);

    void Publish();
    void PublishLoad(double demand);
    void PublishPcie(double demand);
    void PublishProcesses();
    /// The id of the process in `slot`; `choice`, less than 1, chooses among those that only this slot shows. 0 when
    /// there is no such process.
    unsigned int ProcessIdAt(size_t slot, double choice);
    bool IsIdle(double demand) const;
    /// The workload's own time: the boards of one machine do not change their phases together.
    double Seconds() const;

    Board Description;
    PerEntryPoint<bool> Unsupported{};
    uint64_t Seed;
    double PhaseOffsetSeconds;
    std::shared_ptr<SystemProcesses> System;
    BoardSettings InForce;
    Readings Current;
    /// Of a recorded board.
    const RecordedGpu::Row* RowInForce = nullptr;

    int64_t Ticks;
    size_t MemoryGroup = 0;
    unsigned int GraphicsMHz = 0;
    uint64_t Reasons = 0;
    double Milliwatts;
    double Millijoules = 0.0;
    double TemperatureC;
    double FanPercent = 0.0;
    /// How far heat lets the clock go, as a share of the highest.
    double HeatHeadroom = 1.0;
    double GpuPercent = 0.0;
};

}  // namespace simulated_nvml

#endif  // BOARD_MODEL_H
