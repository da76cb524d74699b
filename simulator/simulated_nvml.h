#ifndef SIMULATED_NVML_H
#define SIMULATED_NVML_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "entry_point_list.h"
#include "scripted_answers.h"

/// \file
/// The script of the simulated NVML: which boards there are, what goes wrong, and what the caller did.
///
/// The simulator is a real `libnvidia-ml.so.1`. A program that only needs GPUs to show does without this header:
/// it puts the simulator's folder on its library path and sets the `NVML_SIM_...` environment variables. A test links
/// the simulator and scripts it from here; the environment variables then have no effect.

namespace simulated_nvml {

/// What entry points answer.
constexpr unsigned int kSuccess = 0;
constexpr unsigned int kUninitialized = 1;
constexpr unsigned int kInvalidArgument = 2;
constexpr unsigned int kNotSupported = 3;
constexpr unsigned int kNoPermission = 4;
constexpr unsigned int kNotFound = 6;
constexpr unsigned int kInsufficientSize = 7;
constexpr unsigned int kGpuIsLost = 15;
constexpr unsigned int kArgumentVersionMismatch = 25;
constexpr unsigned int kUnknown = 999;

/// Bits of `Readings::LimitReasons`.
constexpr uint64_t kReasonIdle = 0x1;
constexpr uint64_t kReasonApplicationClocks = 0x2;
constexpr uint64_t kReasonSoftwarePowerCap = 0x4;
constexpr uint64_t kReasonHardwareSlowdown = 0x8;
constexpr uint64_t kReasonSyncBoost = 0x10;
constexpr uint64_t kReasonSoftwareThermal = 0x20;
constexpr uint64_t kReasonHardwareThermal = 0x40;
constexpr uint64_t kReasonHardwarePowerBrake = 0x80;
constexpr uint64_t kReasonDisplayClocks = 0x100;

struct Process {
    unsigned int Pid = 0;
    uint64_t UsedBytes = 0;
    /// Its share of the board's own percentage.
    unsigned int GpuPercent = 0;
};

/// A board's readings at one moment, in NVML's own units.
struct Readings {
    unsigned int TemperatureC = 0;
    unsigned int GpuPercent = 0;
    unsigned int MemoryPercent = 0;
    unsigned int EncoderPercent = 0;
    unsigned int DecoderPercent = 0;
    unsigned int PowerMilliwatts = 0;
    unsigned int FanPercent = 0;
    unsigned int GraphicsMHz = 0;
    unsigned int SmMHz = 0;
    unsigned int MemoryMHz = 0;
    unsigned int VideoMHz = 0;
    unsigned int PerformanceState = 0;
    unsigned int PcieGeneration = 0;
    unsigned int PcieWidth = 0;
    unsigned int PcieReceiveKiBPerSecond = 0;
    unsigned int PcieTransmitKiBPerSecond = 0;
    uint64_t LimitReasons = 0;
    uint64_t VramUsedBytes = 0;
    uint64_t Bar1UsedBytes = 0;
    std::vector<Process> ComputeProcesses;
    std::vector<Process> GraphicsProcesses;
};

/// One memory clock and the graphics clocks that go with it, highest first.
struct ClockGroup {
    unsigned int MemoryMHz = 0;
    std::vector<unsigned int> GraphicsMHz;
};

/// What keeps a board busy.
enum class Workload { Game, Training, Video, Office };

class RecordedGpu;

/// What never changes about a board. A living board needs clocks, more than 320 MiB of video memory, and powers and
/// temperatures in a sensible order; a board with fixed or recorded readings may leave all of that out.
struct Board {
    std::string Name;
    std::string Uuid;
    std::string BusId;
    std::string BusIdLegacy;
    std::string VbiosVersion;
    unsigned int PciBus = 0;
    unsigned int PciDeviceId = 0;
    unsigned int PciSubSystemId = 0;
    /// NVML's code: 2 Kepler to 10 Blackwell.
    unsigned int Architecture = 0;
    /// NVML's code, such as 5 for GeForce.
    unsigned int Brand = 0;
    /// Empty: the board has no serial number.
    std::string Serial;
    /// A board without a fan reading has no fans for NVML.
    unsigned int FanCount = 1;
    uint64_t VramTotalBytes = 0;
    uint64_t Bar1TotalBytes = 0;
    /// Highest memory clock first.
    std::vector<ClockGroup> Clocks;
    unsigned int IdlePowerMilliwatts = 0;
    /// What the board would draw at its highest clocks and full load if no limit held it.
    unsigned int PeakPowerMilliwatts = 0;
    unsigned int DefaultPowerLimitMilliwatts = 0;
    unsigned int MinimumPowerLimitMilliwatts = 0;
    unsigned int MaximumPowerLimitMilliwatts = 0;
    /// What the default power limit heats it to with the fan at full speed.
    unsigned int FullLoadTemperatureC = 0;
    unsigned int SlowdownTemperatureC = 0;
    unsigned int ShutdownTemperatureC = 0;
    unsigned int MaxPcieGeneration = 0;
    unsigned int MaxPcieWidth = 0;
    Workload Load = Workload::Game;
    /// Whether programs on it draw, so that the graphics process list has them.
    bool bDraws = true;
    /// Ids that a living workload's processes have. Empty: those of this system's own processes, the client among them.
    std::vector<unsigned int> ProcessIds;
    /// Entry points that answer "not supported" on this board; one name stands for all versions of its query. Only
    /// queries and changes of a board can.
    std::set<std::string> Unsupported;
    /// Always answered in place of a living workload's readings.
    std::optional<Readings> Fixed;
    /// Played in place of a living workload's readings; `RecordedBoards` makes such boards.
    std::shared_ptr<const RecordedGpu> Recorded;
};

/// How many boards there can be at once.
constexpr size_t kMaxBoards = 64;

/// A desktop card: everything can be read and set.
SIMULATED_NVML_EXPORT Board DesktopBoard(unsigned int index);
/// A laptop card: no fan, and a power limit that only the laptop itself controls.
SIMULATED_NVML_EXPORT Board LaptopBoard(unsigned int index);
/// A data-center card: no fan reading, and nothing draws on it.
SIMULATED_NVML_EXPORT Board DataCenterBoard(unsigned int index);
/// An old card: no locked clocks, no power readings, few readings at all.
SIMULATED_NVML_EXPORT Board OldBoard(unsigned int index);

/// A workstation card: its graphics clocks can be locked, its memory clocks cannot.
SIMULATED_NVML_EXPORT Board WorkstationBoard(unsigned int index);

/// The boards of a CSV file that `gpu_monitor stream --csv` or `watch --log` wrote: one per GPU, in the order of their
/// indices. Throws `std::invalid_argument` with a sentence when the file cannot be played.
SIMULATED_NVML_EXPORT std::vector<Board> RecordedBoards(const std::string& path);

/// How the caller has used the library, where a loader asks the simulator.
struct LibraryUse {
    /// Successful and other attempts to open it.
    uint64_t Openings = 0;
    /// Grows with each opening, closing, lookup and call.
    uint64_t Activity = 0;
    unsigned int OpenLibraries = 0;
    /// Initializations that were not shut down yet.
    unsigned int Initializations = 0;
};

/// The one script of the simulator in this process.
///
/// Operations throw `std::invalid_argument` for an entry point or a board that does not exist and for values that make
/// no sense, so that a typing error in a script does not go unnoticed.
/// Threads: any thread, any time.
class SIMULATED_NVML_EXPORT SimulatedNvml {
public:
    static SimulatedNvml& Get();

    SimulatedNvml(const SimulatedNvml&) = delete;
    SimulatedNvml& operator=(const SimulatedNvml&) = delete;

    /// Back to one desktop board that nothing is wrong with, an empty log, and NVML not initialized. Calls that were
    /// held go on; a library that is open then is forgotten, so close it first.
    void Reset();

    // ---- Boards and time ----

    /// Replaces all boards, lost ones too; handles of the old ones become stale. At most `kMaxBoards`.
    void SetBoards(std::vector<Board> boards);
    /// Boards with the same seed have the same readings at the same moment. Makes the boards anew: locks, limits and
    /// handles are gone.
    void SetSeed(uint64_t seed);
    /// Stops the boards' clock at `seconds` after their start. It can be set forward again and again, never back.
    void HoldTimeAt(double seconds);

    // ---- What goes wrong ----

    // Operations about the library and about lookups need a loader that asks the simulator (simulated_loader.cpp).

    /// Opening the library fails from now on, as on a machine without NVML.
    void RemoveLibrary();
    /// Takes a name out of the library, or lets only the lookups before the n-th from now on find it.
    void HideEntryPoint(const std::string& name, uint64_t nthLookup = 1);
    /// From its n-th call on from now, `name` answers `code`, which is a failure, and writes nothing; on one board only
    /// if `board` is given.
    void FailFrom(const std::string& name, unsigned int code, uint64_t nthCall = 1,
                  std::optional<unsigned int> board = std::nullopt);
    /// The n-th call from now on, whatever its name, answers `code`, which is a failure; only this one.
    void FailNthCall(uint64_t nth, unsigned int code);
    /// Takes back every `FailFrom` and `FailNthCall`.
    void StopFailing();
    /// The n-th lookup from now on, whatever its name, finds nothing; only this one.
    void MissNthLookup(uint64_t nth);
    /// Makes every call take as long as on hardware.
    void UseRealisticDelays();
    /// Holds calls of `name` inside NVML until `Unblock`.
    void Block(const std::string& name);
    void Unblock();
    /// Fills text buffers to the last byte, without a terminator.
    void UseUnterminatedText();
    /// Makes the list that `name` reports longer or shorter by `entries` each time its size has been asked for.
    void ChangeListAfterSizeQuery(const std::string& name, int entries);
    /// Makes `name` write process records of 16, 24 or 32 bytes. By default the names without a version write 16, as
    /// drivers of their time did, the others 24; some drivers write 32.
    void SetProcessRecordBytes(const std::string& name, size_t bytes);
    /// With false, every change of a setting answers `kNoPermission`.
    void SetAdministratorRights(bool bAllowed);
    /// Makes queries that fail by `FailFrom` fill their outputs as if they had succeeded.
    void LetFailuresWrite();
    /// Makes it misuse when two threads are inside NVML at once.
    void ForbidConcurrentCalls();
    /// Single calls, scripted one by one. `Reset` takes them back.
    ScriptedAnswers& Answers();

    // ---- What the caller did ----

    /// Keeps a log from now on. Without it, only the counts are kept.
    void RecordLog();
    /// In order, where a loader asks the simulator: "dlopen(FLAGS)", "dlsym NAME", "dlclose" and calls such as
    /// "nvmlDeviceGetClockInfo(0, 2)": the board's index, then the values passed in. Null buffers show as "null".
    std::vector<std::string> Log() const;
    /// Calls of `name` so far, on every board together, the failing ones included.
    uint64_t Calls(const std::string& name) const;
    /// Waits until `name` has been called `count` times in all, counted when a call begins. False when it takes longer
    /// than `timeout`.
    bool WaitForCalls(const std::string& name, uint64_t count, std::chrono::milliseconds timeout) const;
    /// What the caller did wrong, one sentence each: calls before initialization, after shutdown or after the library
    /// was closed, stale handles, outputs without room, two threads inside where that is forbidden, a library closed
    /// before NVML was asked to shut down. The first thousand.
    std::vector<std::string> Misuse() const;
    LibraryUse Use() const;
    /// True on a thread that is at work inside the simulator: what it allocates there the caller did not ask for.
    static bool InsideCall();

    // ---- For a loader between the caller and the simulator, such as simulated_loader.cpp ----

    /// False when NVML is not installed.
    bool OnOpen(int flags);
    /// No entry point when `name` is hidden, or when NVML has no such name, which is misuse.
    std::optional<EntryPoint> OnLookup(const char* name);
    void OnClose();

private:
    SimulatedNvml() = default;
    ~SimulatedNvml() = default;
};

}  // namespace simulated_nvml

#endif  // SIMULATED_NVML_H
