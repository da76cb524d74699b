#ifndef BOARD_SETTINGS_H
#define BOARD_SETTINGS_H

#include <optional>

#include "simulated_nvml.h"

namespace simulated_nvml {

/// Lowest and highest clock that a lock allows, MHz.
struct ClockRange {
    unsigned int Lowest;
    unsigned int Highest;
};

/// What can be set on a board. It stays set until it is set again; without a value, the board's default is in force.
struct BoardSettings {
    std::optional<ClockRange> GraphicsLock;
    std::optional<ClockRange> MemoryLock;
    std::optional<unsigned int> PowerLimitMilliwatts;
};

inline bool IsSensible(const ClockRange& range) {
    return range.Lowest <= range.Highest && range.Highest > 0;
}

inline bool AllowsPowerLimit(const Board& board, unsigned int milliwatts) {
    return milliwatts >= board.MinimumPowerLimitMilliwatts && milliwatts <= board.MaximumPowerLimitMilliwatts;
}

}  // namespace simulated_nvml

#endif  // BOARD_SETTINGS_H
