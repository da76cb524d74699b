#ifndef RECORDING_H
#define RECORDING_H

#include <array>
#include <cstdint>
#include <vector>

#include "board_settings.h"
#include "nvml_abi.h"
#include "scripted_answers.h"
#include "simulated_nvml.h"

namespace simulated_nvml {

/// One GPU of a recording, played from the first row to the last one and then from the start again.
///
/// A row is in force until the GPU's next row. Where rows are missing, the GPU is lost after the usual distance of two
/// rows until its next row. A stretch in which no GPU was recorded is shortened.
class RecordedGpu {
public:
    /// One for each line of the table in recording.cpp.
    static constexpr size_t kColumns = 26;

    /// What was recorded at one moment, in NVML's own units.
    struct Row {
        /// Since the start of the recording, without what was shortened.
        int64_t StartMs = 0;
        int64_t LastsMs = 0;
        /// A bit for each column that has a value.
        uint32_t Has = 0;
        std::array<uint64_t, kColumns> Values{};
    };

    /// `rows` in the order of their time. The recording lasts `periodMs`, for all its GPUs alike.
    RecordedGpu(std::vector<Row> rows, int64_t periodMs);

    const Row& FirstRow() const { return Rows.front(); }
    /// The row in force at `seconds` after the start; null where the GPU is lost.
    const Row* RowAt(double seconds) const;
    /// Whether `row` has what a query gives. Not supported: nothing of the kind was recorded of this GPU.
    NvmlReturn Verdict(const Row& row, EntryPoint name, Arguments arguments) const;

private:
    std::vector<Row> Rows;
    int64_t PeriodMs;
    /// The columns that at least one row has.
    uint32_t EverHas = 0;
};

/// Puts the values of `row` where the queries find them.
void PutOnBoard(const RecordedGpu::Row& row, Board* board, Readings* readings, BoardSettings* settings);

}  // namespace simulated_nvml

#endif  // RECORDING_H
