#ifndef GPU_MONITOR_TUNING_CHOICE_H
#define GPU_MONITOR_TUNING_CHOICE_H

#include <cstddef>
#include <string>
#include <vector>

#include "gpu_feed/clock_groups.h"
#include "nvml_gpu_monitor.h"

/// A pair of clocks that the user chooses from those that the driver lists.
class ClockChoice {
public:
    ClockChoice() = default;

    /// Begins with the pair nearest to the one that runs. `capabilities` lists at least one.
    explicit ClockChoice(const GpuClockCapabilities& capabilities);

    void OnKey(int key);

    GpuClockPair Pair() const;

    /// Memory clocks are counted from the lowest, which is 1.
    size_t MemoryNumber() const { return Groups.size() - MemoryPlace; }
    size_t MemoryCount() const { return Groups.size(); }

    /// The graphics clocks for the chosen memory clock, in ascending order, and the place of the chosen one.
    const std::vector<int>& GraphicsClocks() const;
    size_t ChosenPlace() const { return GraphicsPlace; }

private:
    gpu_feed::ClockGroups Groups;
    size_t MemoryPlace = 0;
    size_t GraphicsPlace = 0;
};

/// A power limit that the user chooses with arrows or types.
class PowerChoice {
public:
    PowerChoice() = default;

    /// Begins with the limit in force.
    explicit PowerChoice(const GpuPowerCapabilities& capabilities);

    void OnKey(int key);

    double Watts() const;

    /// The number of watts as it is shown, with a cursor behind it while it is being typed.
    std::string Text() const;

private:
    double Lowest = 0.0;
    double Highest = 0.0;
    double Stepped = 0.0;
    /// What is being typed in place of `Stepped`.
    std::string Typed;
};

#endif  // GPU_MONITOR_TUNING_CHOICE_H
