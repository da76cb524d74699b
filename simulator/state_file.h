#ifndef STATE_FILE_H
#define STATE_FILE_H

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "board_settings.h"
#include "nvml_abi.h"
#include "simulated_nvml.h"

namespace simulated_nvml {

/// Changes settings of a board. Result: success, or why the board refuses them.
using SettingsEdit = std::function<NvmlReturn(const Board& board, BoardSettings* settings)>;

/// What a driver would keep, in a file that outlives the process and that several processes share: NVML_SIM_STATE.
///
/// It is JSON for people to read and to edit:
///
///     {
///       "since": 1764000000.25,
///       "rights": "admin",
///       "boards": {
///         "GPU-...": { "graphics_mhz": [900, 900], "memory_mhz": [5001, 5001], "power_limit_mw": 200000 }
///       }
///     }
///
/// `since` is when the boards' life began, in seconds of the system clock: processes that share it see the same
/// readings at the same moment. The first process writes it. `rights` is for people to edit: with
/// "user", no client may change settings. Everything else in the file is left as it is. To edit the file while it is in
/// use, replace it as a whole or hold an exclusive flock on it.
///
/// Each process has its own boards; the file may hold settings of others. Not safe to use from two threads at once.
class StateFile {
public:
    struct State {
        double SinceSeconds = 0.0;
        bool bAdministrator = true;
        /// By the board's UUID.
        std::map<std::string, BoardSettings> Settings;
    };

    StateFile(std::string path, std::vector<Board> boards);

    /// Creates the file if there is no file yet, and writes `since` if it has no value. False when the file cannot be
    /// used or makes no sense: a sentence on stderr then says why.
    bool Start();
    /// What the file says now, or said when it last made sense.
    const State& Now();
    /// What it said then; does not read the file.
    const State& Latest() const { return LatestState; }
    /// Changes settings of a board for every process, unless the file takes away the right to. A file that makes no
    /// sense is left alone.
    NvmlReturn Change(const Board& board, const SettingsEdit& edit);

private:
    /// Runs `body`; false when it finds that the file cannot be used, which is said once until it can be again.
    template <typename Body>
    bool Attempt(Body body);
    void Create() const;
    /// Writes down that the boards' life begins now, unless it has begun. Result: what the file says then.
    std::string BeginLife() const;
    /// Makes `text` the latest text that makes sense; throws what is wrong with it when it makes no sense.
    void Take(const std::string& text);

    std::string Path;
    std::vector<Board> Boards;
    State LatestState;
    std::string LatestText;
    /// The sentence that was said last, until the file makes sense again.
    std::string ProblemSaid;
};

}  // namespace simulated_nvml

#endif  // STATE_FILE_H
