#ifndef ENVIRONMENT_H
#define ENVIRONMENT_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "simulated_nvml.h"

namespace simulated_nvml {

/// What the `NVML_SIM_...` environment variables ask for.
struct Environment {
    /// NVML_SIM_BOARDS: a number of boards, their kinds, or recording:FILE; default one desktop board.
    std::vector<Board> Boards;
    /// NVML_SIM_SEED: a whole number. With the default, much happens from the first moment on.
    uint64_t Seed = 3;
    /// NVML_SIM_DELAYS=realistic.
    bool bRealisticDelays = false;
    /// NVML_SIM_RIGHTS=user takes the right to change settings away; default admin.
    bool bAdministrator = true;
    /// NVML_SIM_STATE=FILE: where locked clocks and power limits are kept, so that they outlive the process and that
    /// processes share them (state_file.h). By default they end with the process.
    std::string StatePath;
    /// NVML_SIM_LOSE=GPU@CALLS, several separated by commas: after how many calls a board is lost.
    std::map<unsigned int, uint64_t> LostAfterCalls;
    /// NVML_SIM_HANG, likewise: after how many calls a call on a board never returns.
    std::map<unsigned int, uint64_t> HangsAfterCalls;
};

/// Reads all variables into `environment`. False when one makes no sense: `*problem` then says which and why.
bool ReadEnvironment(Environment* environment, std::string* problem);

/// Prints on stderr what is wrong with a variable or with what it names.
void SayProblem(const std::string& sentence);

}  // namespace simulated_nvml

#endif  // ENVIRONMENT_H
