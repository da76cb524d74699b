#ifndef NVML_GPU_MONITOR_H
#define NVML_GPU_MONITOR_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// \file
/// Telemetry and tuning of NVIDIA GPUs for a program that embeds it.
///
/// The module opens NVIDIA's management library (NVML, `libnvidia-ml.so.1`) at run time. Nothing has to be linked or
/// installed to build with it. On a machine without the NVIDIA driver, `Status` says so and every operation fails
/// without harm.
///
///     NvmlGpuMonitor monitor;
///     if (!monitor.Start()) std::puts(monitor.Status().c_str());
///     ...
///     for (const GpuTelemetryHistory& gpu : monitor.Snapshot()) Plot(gpu.Device.Name, gpu.Samples);
///
/// Every record is a plain value that the host owns: nothing in it refers to the monitor.
///
/// Frame time: the monitor puts the GPU time of the host's frames beside its readings. It asks a class `GPUProfiler`,
/// which `gpu_profiler.h` defines when `nvml_gpu_monitor.cpp` is compiled. A host with such a header names the header's
/// folder in the CMake variable `NVML_GPU_MONITOR_PROFILER_DIR`, before `add_subdirectory` or `find_package`. Without
/// CMake it compiles `nvml_gpu_monitor.cpp` itself with that folder on the include path. Every other build of the
/// library has a stand-in without frames, `profiler/gpu_profiler.h`; its comments say what the monitor demands of a
/// host's own. Installed, that source and that folder are in `share/nvml_gpu_monitor/`.
///
/// Exceptions: `nvml_gpu_monitor.cpp` does not compile with `-fno-exceptions`. A host that is compiled so can still
/// include this header and link the library; an exception that leaves an operation then ends the process. Run-time
/// type information is not needed.
///
/// Versions: those with the same major number only add to the interface, in source and in binary form. Records keep
/// their fields and layout.

/// The version of this header, three numbers.
#define NVML_GPU_MONITOR_VERSION_MAJOR 1
#define NVML_GPU_MONITOR_VERSION_MINOR 0
#define NVML_GPU_MONITOR_VERSION_PATCH 0

// Xlib has macros of these names, which would change the declarations below.
#if defined(Status) || defined(Success)
#error "nvml_gpu_monitor.h: include it in a source without Xlib's headers, or #undef Status and Success before it."
#endif

// What exports the class from a library; the shared build sets it.
#ifndef NVML_GPU_MONITOR_API
#define NVML_GPU_MONITOR_API
#endif

/// Identity of one GPU, read once when NVML starts. Texts are as NVML delivers them.
struct GpuDeviceInfo {
    /// Product name. Never unread: a GPU without a readable name is not listed. Source: `nvmlDeviceGetName`.
    std::string Name;
    /// NVML device index: the number that addresses this GPU in every operation. Indices can have gaps.
    unsigned int Index = 0;
    /// NVML's UUID text, stable across reboots; empty when not read. Source: `nvmlDeviceGetUUID`.
    std::string Uuid;
    /// PCI bus id, the full form where the driver gives it; empty when not read. Source: `nvmlDeviceGetPciInfo_v3`.
    std::string PciBusId;
    /// Version of the installed driver, the same for every GPU; empty when not read. Source:
    /// `nvmlSystemGetDriverVersion`.
    std::string DriverVersion;
    /// Version of the video BIOS; empty when not read. Source: `nvmlDeviceGetVbiosVersion`.
    std::string VbiosVersion;
    /// "Kepler" to "Blackwell", or "Unknown" for an architecture this module has no name for; empty when not read.
    /// Source: `nvmlDeviceGetArchitecture`.
    std::string Architecture;
    /// Size of the BAR1 aperture in bytes; 0 when not read. Source: `nvmlDeviceGetBAR1MemoryInfo`.
    uint64_t Bar1TotalBytes = 0;
};

/// One reading of one GPU at one moment.
///
/// A field that could not be read keeps its default, so samples with only some fields filled are normal: -1 for
/// integers and -1.0 for floating-point fields. `TimestampSeconds`, the byte counts and `PerformanceLimitReasons` have
/// 0 instead; test a byte count by its total.
struct GpuTelemetrySample {
    /// Seconds of `std::chrono::steady_clock` since its epoch at the moment of reading; only differences mean anything.
    /// 0.0: no reading took place.
    double TimestampSeconds = 0.0;
    /// Temperature of the GPU die, degrees Celsius. Source: `nvmlDeviceGetTemperature`.
    int TemperatureC = -1;
    /// Share of time in which the GPU was busy, percent. Source: `nvmlDeviceGetUtilizationRates`.
    int GpuUtilizationPercent = -1;
    /// Share of time in which the memory controller was busy, percent. Source: `nvmlDeviceGetUtilizationRates`.
    int MemoryUtilizationPercent = -1;
    /// Load of the video encoder, percent. Source: `nvmlDeviceGetEncoderUtilization`.
    int EncoderUtilizationPercent = -1;
    /// Load of the video decoder, percent. Source: `nvmlDeviceGetDecoderUtilization`.
    int DecoderUtilizationPercent = -1;
    /// Video memory in use, bytes, with what the driver reserves. Source: `nvmlDeviceGetMemoryInfo`.
    uint64_t VramUsedBytes = 0;
    /// Video memory in total, bytes; 0 when not read. Source: `nvmlDeviceGetMemoryInfo`.
    uint64_t VramTotalBytes = 0;
    /// BAR1 aperture in use, bytes. Source: `nvmlDeviceGetBAR1MemoryInfo`.
    uint64_t Bar1UsedBytes = 0;
    /// BAR1 aperture in total, bytes; 0 when not read. Source: `nvmlDeviceGetBAR1MemoryInfo`.
    uint64_t Bar1TotalBytes = 0;
    /// Power that the board draws, watts. Source: `nvmlDeviceGetPowerUsage`.
    double PowerWatts = -1.0;
    /// Power limit in force, watts. Source: `nvmlDeviceGetEnforcedPowerLimit`; where that cannot be read,
    /// `nvmlDeviceGetPowerManagementLimit`.
    double PowerLimitWatts = -1.0;
    /// The board's default power limit, watts. Source: `nvmlDeviceGetPowerManagementDefaultLimit`.
    double DefaultPowerLimitWatts = -1.0;
    /// Lowest power limit that the driver accepts, watts. Source: `nvmlDeviceGetPowerManagementLimitConstraints`.
    double MinimumPowerLimitWatts = -1.0;
    /// Highest power limit that the driver accepts, watts. Source: `nvmlDeviceGetPowerManagementLimitConstraints`.
    double MaximumPowerLimitWatts = -1.0;
    /// Fan speed, percent; can exceed 100 on some boards. Source: `nvmlDeviceGetFanSpeed`.
    int FanPercent = -1;
    /// Graphics clock, MHz. Source: `nvmlDeviceGetClockInfo`.
    int GraphicsClockMHz = -1;
    /// Clock of the streaming multiprocessors, MHz. Source: `nvmlDeviceGetClockInfo`.
    int SmClockMHz = -1;
    /// Memory clock, MHz. Source: `nvmlDeviceGetClockInfo`.
    int MemoryClockMHz = -1;
    /// Clock of the video engines, MHz. Source: `nvmlDeviceGetClockInfo`.
    int VideoClockMHz = -1;
    /// Performance state: 0 is the fastest, 15 the slowest. Source: `nvmlDeviceGetPerformanceState`.
    int PerformanceState = -1;
    /// Generation of the PCIe link as it runs now; an idle GPU lowers it. Source:
    /// `nvmlDeviceGetCurrPcieLinkGeneration`.
    int PcieGeneration = -1;
    /// Lanes of the PCIe link as it runs now. Source: `nvmlDeviceGetCurrPcieLinkWidth`.
    int PcieWidth = -1;
    /// Data the GPU received over PCIe, MiB per second. Source: `nvmlDeviceGetPcieThroughput`.
    double PcieReceiveMiBPerSecond = -1.0;
    /// Data the GPU sent over PCIe, MiB per second. Source: `nvmlDeviceGetPcieThroughput`.
    double PcieTransmitMiBPerSecond = -1.0;
    /// NVML's bit mask of what limits the clocks at this moment; 0 when nothing does and also when not read. 0x1 idle,
    /// which is no limit; 0x2 application clocks; 0x4 power cap; 0x8 hardware slowdown; 0x10 sync boost; 0x20 thermal
    /// slowdown by the driver, 0x40 by the hardware; 0x80 power brake; 0x100 display clocks. `gpu_feed/limit_reasons.h`
    /// of the feed has names for them. Source: `nvmlDeviceGetCurrentClocksThrottleReasons`.
    uint64_t PerformanceLimitReasons = 0;
    /// GPU time of the host's latest frame, milliseconds; -1.0 when the host's profiler has no frame or gives 0 or
    /// less. Any other value is the profiler's, NaN included. Source: `GPUProfiler` of the `gpu_profiler.h` that the
    /// library was compiled with; the stand-in has no frames.
    double FrameTimeMs = -1.0;
};

/// Video memory of one process on one GPU.
struct GpuProcessMemory {
    /// Process id as NVML reports it: in a container it can be the host's.
    int Pid = 0;
    /// Video memory that the process uses on this GPU, bytes. Source: `nvmlDeviceGetComputeRunningProcesses` and
    /// `nvmlDeviceGetGraphicsRunningProcesses`, the newest version that the driver has.
    uint64_t VramUsedBytes = 0;
};

/// Everything that the monitor keeps about one GPU.
struct GpuTelemetryHistory {
    /// Which GPU this is.
    GpuDeviceInfo Device;
    /// Oldest first, newest last. At most 6000: once full, each new sample drops the oldest. A GPU that is lost gets no
    /// more of them; nothing else shows that it is lost.
    std::deque<GpuTelemetrySample> Samples;
    /// The processes that used video memory on this GPU at the latest sampling cycle that reached it, each listed once
    /// with the largest value NVML gave for it, in no particular order. Compute and graphics processes are read from
    /// lists of at most 4096 each; a list that could not be read adds nothing, which looks as if nothing ran, and a
    /// process whose memory NVML does not know is left out.
    std::vector<GpuProcessMemory> ProcessMemory;
};

/// What became of a change of a GPU's clocks or power limit. The sentence that comes with a failure is for the user.
enum class GpuClockOperationResult : uint8_t {
    /// The driver took the change.
    Success = 0,
    /// The driver refuses this user. Changes usually need root, in a container CAP_SYS_ADMIN; the same call with more
    /// rights can succeed. No query can show this beforehand.
    NoPermission = 1,
    /// Not with this driver, this GPU or this value: another value may be taken. Of the power limit also when it cannot
    /// be set at this moment, which the sentence then says.
    Unsupported = 2,
    /// Anything else: NVML could not be started, the GPU is gone, or the driver failed.
    Error = 3,
};

/// A graphics clock and a memory clock that a GPU can be locked to together.
struct GpuClockPair {
    /// Graphics clock, MHz.
    int GraphicsClockMHz = 0;
    /// Memory clock, MHz.
    int MemoryClockMHz = 0;

    friend bool operator==(const GpuClockPair& a, const GpuClockPair& b) {
        return a.GraphicsClockMHz == b.GraphicsClockMHz && a.MemoryClockMHz == b.MemoryClockMHz;
    }
    friend bool operator!=(const GpuClockPair& a, const GpuClockPair& b) { return !(a == b); }
};

/// Which clocks one GPU can be locked to and what it runs at now.
struct GpuClockCapabilities {
    /// NVML index that was asked about; 0 when NVML could not be started.
    unsigned int DeviceIndex = 0;
    /// `GpuDeviceInfo::Uuid` of that GPU; empty when it was not read or no GPU of this index was discovered.
    std::string DeviceUuid;
    /// `GpuDeviceInfo::Name` of that GPU; empty when no GPU of this index was discovered.
    std::string DeviceName;
    /// Every pair that can be locked, each once, by ascending graphics clock and then ascending memory clock; empty
    /// when clocks cannot be locked. Source: `nvmlDeviceGetSupportedMemoryClocks` and
    /// `nvmlDeviceGetSupportedGraphicsClocks`; a list of more than 4096 clocks counts as not readable.
    std::vector<GpuClockPair> SupportedPairs;
    /// Graphics clock at this moment, MHz; -1 when not read. Source: `nvmlDeviceGetClockInfo`.
    int CurrentGraphicsClockMHz = -1;
    /// Memory clock at this moment, MHz; -1 when not read. Source: `nvmlDeviceGetClockInfo`.
    int CurrentMemoryClockMHz = -1;
    /// True when `SupportedPairs` is not empty. A lock can still be refused for lack of rights.
    bool CanControl = false;
    /// One line for the user: why clocks cannot be locked or the query failed; otherwise the monitor's `Status()`.
    std::string Status;
};

/// The clocks of NVML device 0 before a lock, for `RestoreClockState`.
struct GpuClockState {
    /// True when the clocks of device 0 could be locked at the time of the capture.
    bool Valid = false;
    /// Graphics clock that device 0 ran at, MHz; -1 when not read. Which clocks were locked is not known. Source:
    /// `nvmlDeviceGetClockInfo`.
    int GraphicsClockMHz = -1;
    /// Memory clock that device 0 ran at, MHz; -1 when not read. Source: `nvmlDeviceGetClockInfo`.
    int MemoryClockMHz = -1;
};

/// Whether a setting of a GPU can be changed.
enum class GpuCapabilityState : uint8_t {
    /// It can, according to the driver; a change can still be refused for lack of rights.
    Supported = 0,
    /// This GPU does not have it.
    Unsupported = 1,
    /// For the host's own use, after a change was refused: no operation of this module reports it.
    PermissionRequired = 2,
    /// The installed driver lacks what control needs; a newer one may have it.
    DriverLimitation = 3,
    /// NVML, the GPU or the range cannot be used now. Also the state of a record that was never filled.
    Unavailable = 4,
};

/// Whether and in which range the power limit of one GPU can be set.
struct GpuPowerCapabilities {
    /// NVML index that was asked about.
    unsigned int DeviceIndex = 0;
    /// `GpuDeviceInfo::Uuid` of that GPU; empty when it was not read or the query gave false.
    std::string DeviceUuid;
    /// What follows from the driver's entry points and from the readings of the limit and its range.
    GpuCapabilityState State = GpuCapabilityState::Unavailable;
    /// Limit in force, watts; -1.0 when not read. Source: `nvmlDeviceGetEnforcedPowerLimit`; where that cannot be read,
    /// `nvmlDeviceGetPowerManagementLimit`.
    double CurrentWatts = -1.0;
    /// The board's default limit, watts; -1.0 when not read. Source: `nvmlDeviceGetPowerManagementDefaultLimit`.
    double DefaultWatts = -1.0;
    /// Lowest limit that the driver accepts, watts; -1.0 when not read. Source:
    /// `nvmlDeviceGetPowerManagementLimitConstraints`.
    double MinimumWatts = -1.0;
    /// Highest limit that the driver accepts, watts; -1.0 when not read. Source:
    /// `nvmlDeviceGetPowerManagementLimitConstraints`.
    double MaximumWatts = -1.0;
    /// One sentence for the user that explains `State`.
    std::string Status;
};

/// Reads every NVIDIA GPU once per interval on a thread of its own and keeps bounded histories; the host takes copies.
/// It also finds out whether clocks and power limit of a GPU can be changed, and changes them.
///
/// Create one, keep it while the application runs, and stop it before `main` returns: its thread must not outlive the
/// host's profiler.
///
/// Threads: `Start`, `Stop`, `PauseSampling`, `ResumeSampling` and the destructor belong to one controlling thread at a
/// time. Every other operation may be called from any thread at any time. One mutex serializes everything, and the
/// sampler holds it for a whole cycle over all GPUs: on real hardware an operation can wait tens of milliseconds per
/// GPU, so keep them off a render thread. A driver call that hangs holds it too, and then every operation waits, `Stop`
/// and the destructor included. The host's `GPUProfiler` is asked with that mutex held, by the sampler thread and by
/// threads that read a sample: it must be safe to call from them, must not throw, and must never call into the monitor.
///
/// Start: where NVML is down, every reading, query and change starts it, which can take seconds, and everything else
/// waits meanwhile. A child process of `fork` must not use the monitor of its parent.
///
/// Failure: NVML's failures are reported by results and by `Status`; nothing is thrown for them and nothing is logged.
/// Only the standard library's own exceptions (out of memory, no thread available, a broken mutex) pass out of an
/// operation. On the sampler thread, running out of memory ends the cycle: GPUs that it has reached keep its updates,
/// and the next cycle runs after the usual wait. Any other exception there ends the process, as no caller can catch it.
///
/// Tuning: what the host sets belongs to the driver, not to the monitor. A locked clock or a power limit outlives
/// `Stop`, the monitor and the process, and acts on every program of the machine; nothing is reset unless the host asks
/// for it.
///
/// Cost: an open NVML keeps a laptop's GPU awake; only `Stop` releases it.
class NVML_GPU_MONITOR_API NvmlGpuMonitor {
public:
    /// Opens nothing and starts nothing: `IsAvailable` is false, `Status` and `Snapshot` are empty.
    NvmlGpuMonitor();

    /// Calls `Stop`. Locked clocks and power limits that were set on a GPU outlive the monitor.
    ~NvmlGpuMonitor();

    NvmlGpuMonitor(const NvmlGpuMonitor&) = delete;
    NvmlGpuMonitor& operator=(const NvmlGpuMonitor&) = delete;

    /// Starts NVML, unless it is up, and the sampler thread. The first cycle follows the initial sample delay.
    ///
    /// An NVML that was down is started afresh: GPUs are discovered and all histories begin empty. The first start can
    /// take seconds where the driver is not kept loaded.
    /// Result: true when the sampler runs, also when it ran before. False when NVML cannot be started: `Status` says
    /// why, no thread exists, and a later call tries again.
    /// Throws: `std::system_error` or `std::bad_alloc` when no thread can be created; NVML is then up and the sampler
    /// not running. `std::bad_alloc` when memory runs out while NVML starts; NVML is then closed.
    /// Threads: the controlling thread.
    bool Start();

    /// Ends the sampler thread, shuts NVML down and closes it. Valid in every state, any number of times.
    ///
    /// Waits for a cycle in progress, not for the interval. Histories and `Status` keep what they hold until NVML is
    /// started again. Clocks and power limits stay as they are on the GPU.
    /// Threads: the controlling thread.
    void Stop();

    /// Ends the sampler thread and leaves NVML up and the histories in place: a gap in their timestamps is all that a
    /// pause leaves. Everything else goes on working. No effect when the sampler is not running.
    ///
    /// Waits for a cycle in progress, not for the interval.
    /// Threads: the controlling thread.
    void PauseSampling();

    /// Goes on after `PauseSampling`, with the histories as they are. In every other state the same as `Start`.
    ///
    /// Result, exceptions and threads: as `Start`.
    bool ResumeSampling();

    /// True while NVML is up with at least one GPU. Never starts NVML.
    ///
    /// Threads: any thread, any time; waits for a cycle in progress.
    bool IsAvailable() const;

    /// The outcome of the latest attempt to start NVML as one line for the user; empty before the first attempt.
    /// Neither a stop nor an attempt that ended with an exception changes it. Never starts NVML.
    ///
    /// Threads: any thread, any time; waits for a cycle in progress.
    std::string Status() const;

    /// Sets the wait between the end of one cycle and the start of the next, 100 to 10000 ms; a value outside becomes
    /// the nearer bound. Default: 1000 ms.
    ///
    /// Takes effect at once: each call, also one that changes nothing, ends the sampler's current wait, so that a cycle
    /// runs now. Only an initial delay starts over instead.
    /// Threads: any thread, any time; waits for a cycle in progress.
    void SetSampleInterval(std::chrono::milliseconds interval);

    /// Sets how long each newly started sampler waits before its first cycle, 0 to 10000 ms; a value outside becomes
    /// the nearer bound. Default: 0 ms.
    ///
    /// A delay that is running is not disturbed: the new one counts from the next start or resume on, or when
    /// `SetSampleInterval` makes the running one start over.
    /// Threads: any thread, any time; waits for a cycle in progress.
    void SetInitialSampleDelay(std::chrono::milliseconds delay);

    /// Copies all histories, one per GPU in ascending NVML index order, never in the middle of a cycle.
    ///
    /// Works in every state and never starts NVML: empty before the first start, the last data after a stop or a pause.
    /// A start that fails after NVML reported GPUs leaves it empty.
    /// Cost: up to 6000 samples per GPU are copied while the sampler waits, about 1 MiB and half a millisecond for each
    /// GPU. Call it once per interval at most; `SnapshotSince` copies what is new.
    /// Threads: any thread, any time; waits for a cycle in progress.
    /// Ownership: the copy is the caller's and shares nothing with the monitor.
    std::vector<GpuTelemetryHistory> Snapshot() const;

    /// Reads the clock capabilities of NVML device 0. As `GetClockCapabilities(0, output)`.
    bool GetClockCapabilities(GpuClockCapabilities* output);

    /// Reads which clocks a GPU can be locked to and what it runs at now, and says why its clocks cannot be locked.
    ///
    /// `deviceIndex` is the NVML index (`GpuDeviceInfo::Index`), not a position in a snapshot.
    /// Result: true when `*output` describes the GPU; whether its clocks can be locked is `CanControl`. False when
    /// `output` is null (nothing happens), NVML cannot be started (only `Status` is filled), or the driver gives no
    /// handle for this index (`Status`, the index and, for a discovered GPU, its name and UUID are filled). What was
    /// not read holds its default, whatever the record held before. After an exception it is filled in part at most.
    /// Side effect: starts NVML if needed, with empty histories, and leaves it open until `Stop`; never starts the
    /// sampler. Changes nothing on the GPU.
    /// Source: the queries named at the fields of `GpuClockCapabilities`.
    /// Cost: two calls per memory clock and a handful more; nothing is kept from one query to the next.
    /// Threads: any thread, any time; waits for a cycle in progress.
    /// Ownership: the caller owns `*output`, and nothing in it points back into the monitor.
    bool GetClockCapabilities(unsigned int deviceIndex, GpuClockCapabilities* output);

    /// Finds out whether and in which range the power limit of a GPU can be set, and says why not.
    ///
    /// `deviceIndex` is the NVML index (`GpuDeviceInfo::Index`), not a position in a snapshot.
    /// Result: true when the GPU was found; whether its limit can be set is `State`. False when `output` is null
    /// (nothing happens), NVML cannot be started, there is no handle for this index or discovery skipped the GPU:
    /// `State` is then `Unavailable`, and only `DeviceIndex` and `Status` are filled. What was not read holds its
    /// default, whatever the record held before. After an exception it is filled in part at most.
    /// Side effect: starts NVML if needed, with empty histories, and leaves it open until `Stop`; never starts the
    /// sampler. Changes nothing on the GPU.
    /// Source: the queries named at the fields of `GpuPowerCapabilities`.
    /// Cost: a handful of calls; nothing is kept from one query to the next.
    /// Threads: any thread, any time; waits for a cycle in progress.
    /// Ownership: the caller owns `*output`, and nothing in it points back into the monitor.
    bool GetPowerCapabilities(unsigned int deviceIndex, GpuPowerCapabilities* output);

    /// Notes what NVML device 0 runs at now, if its clocks can be locked.
    ///
    /// Result: true when the clocks of device 0 can be locked: `*output` is then valid, also with clocks that could
    /// not be read. False when `output` is null (nothing happens) or they cannot be locked for any reason; a non-null
    /// `*output` then holds its defaults. `GetClockCapabilities` gives the reason.
    /// Side effect, source, cost, threads and ownership: as `GetClockCapabilities`.
    bool CaptureClockState(GpuClockState* output);

    /// Locks the clocks of NVML device 0. As `SetLockedClock(0, pair, error)`.
    GpuClockOperationResult SetLockedClock(const GpuClockPair& pair, std::string* error = nullptr);

    /// Locks a GPU's graphics and memory clock to one listed pair, until they are reset.
    ///
    /// `deviceIndex` is the NVML index (`GpuDeviceInfo::Index`), not a position in a snapshot.
    /// `pair` must be one of `GpuClockCapabilities::SupportedPairs`, which are queried anew in this call.
    /// Result: `Success` when both clocks are locked; the GPU can still run slower, for heat or power. `Unsupported`
    /// for a pair that is not listed, also when nothing is. `Error` when NVML cannot be started or there is no such
    /// GPU. Otherwise what the driver answers.
    /// After a failure: when the driver refused the graphics clock, an earlier lock is as it was. When it refused the
    /// memory clock, both locks are reset as far as it lets them, an earlier lock too.
    /// `error`: null, or receives one sentence for the user in place of what it held. Untouched on success, not kept.
    /// Lasting effect: the lock outlives `Stop`, the monitor and the process. `RestoreDefaultClocks` releases it.
    /// Rights: usually root, in a container CAP_SYS_ADMIN; only the attempt shows it, as `NoPermission`.
    /// Side effect: starts NVML if needed, with empty histories, and leaves it open until `Stop`.
    /// Source: `nvmlDeviceSetGpuLockedClocks`, `nvmlDeviceSetMemoryLockedClocks`.
    /// Cost: a whole query of the clock capabilities comes first.
    /// Threads: any thread, any time; waits for a cycle in progress.
    GpuClockOperationResult SetLockedClock(unsigned int deviceIndex, const GpuClockPair& pair,
                                           std::string* error = nullptr);

    /// Releases the locked clocks of NVML device 0. As `RestoreDefaultClocks(0, error)`: `state` is not looked at, and
    /// its clocks are not applied, because they are the clocks that ran, not clocks that were locked.
    GpuClockOperationResult RestoreClockState(const GpuClockState& state, std::string* error = nullptr);

    /// Releases the locked clocks of NVML device 0. As `RestoreDefaultClocks(0, error)`.
    GpuClockOperationResult RestoreDefaultClocks(std::string* error = nullptr);

    /// Releases the locked memory and graphics clock of a GPU, whoever locked them and whether or not they are locked,
    /// also of one that discovery skipped.
    ///
    /// `deviceIndex` is the NVML index (`GpuDeviceInfo::Index`), not a position in a snapshot. Without `error`, a
    /// literal 0 has to be `0U`: it could be either argument.
    /// Result: `Success` when both were reset. `Error` when NVML cannot be started or there is no such GPU,
    /// `Unsupported` when the driver lacks one of the resets, and then neither is made; otherwise what the driver
    /// answers, for the memory clock first. When one reset fails, the other is tried too.
    /// `error`: null, or receives one sentence for the user in place of what it held. Untouched on success, not kept.
    /// Rights and side effect: as `SetLockedClock`.
    /// Source: `nvmlDeviceResetMemoryLockedClocks`, `nvmlDeviceResetGpuLockedClocks`.
    /// Cost: two calls.
    /// Threads: any thread, any time; waits for a cycle in progress.
    GpuClockOperationResult RestoreDefaultClocks(unsigned int deviceIndex, std::string* error = nullptr);

    /// Sets the power limit of a GPU, rounded to whole milliwatts.
    ///
    /// `deviceIndex` is the NVML index (`GpuDeviceInfo::Index`), not a position in a snapshot.
    /// `watts` must be within `GpuPowerCapabilities::MinimumWatts` to `MaximumWatts`, both included, which are queried
    /// anew in this call.
    /// Result: `Success` when the driver took the limit. `Unsupported` for a value that is outside or not finite, and
    /// when the limit cannot be set, even if only for now. `Error` when NVML cannot be started or there is no such GPU.
    /// Otherwise what the driver answers. After a failure the limit is as it was.
    /// `error`: null, or receives one sentence for the user in place of what it held. Untouched on success, not kept.
    /// Lasting effect: the limit outlives `Stop`, the monitor and the process. `RestoreDefaultPowerLimit` undoes it.
    /// Rights and side effect: as `SetLockedClock`.
    /// Source: `nvmlDeviceSetPowerManagementLimit`.
    /// Cost: a whole query of the power capabilities comes first.
    /// Threads: any thread, any time; waits for a cycle in progress.
    GpuClockOperationResult SetPowerLimit(unsigned int deviceIndex, double watts, std::string* error = nullptr);

    /// Sets the power limit of a GPU to the board's default.
    ///
    /// Result: as `SetPowerLimit` with the default limit, but `Unsupported` also when NVML cannot be started, there is
    /// no such GPU, or no default limit can be read; `error` then receives the `Status` of `GetPowerCapabilities`,
    /// which can say that control is supported when only the default is missing.
    /// Everything else: as `SetPowerLimit`.
    GpuClockOperationResult RestoreDefaultPowerLimit(unsigned int deviceIndex, std::string* error = nullptr);

    /// Reads one sample of NVML device 0 at once. As `ReadCurrentSample(0, output)`.
    bool ReadCurrentSample(GpuTelemetrySample* output);

    /// Reads one sample of one GPU at once, outside the sampler's rhythm; the histories do not change.
    ///
    /// `deviceIndex` is the NVML index (`GpuDeviceInfo::Index`), not a position in a snapshot.
    /// An index that discovery skipped is read too, as far as the driver allows.
    /// Result: true when power or graphics clock could be read. False when neither could: what else was read is in
    /// `*output`. False also when `output` is null (nothing happens), NVML cannot be started (`Status` says why), or
    /// the driver gives no handle for this index (there is no such GPU, or it is lost); a non-null `*output` then holds
    /// its defaults, so `TimestampSeconds` is 0.0. The same after an exception.
    /// Side effect: starts NVML if needed, with empty histories, and leaves it open until `Stop`; never starts the
    /// sampler.
    /// Source: the queries named at the fields of `GpuTelemetrySample`.
    /// Cost: all these queries; on real hardware PCIe throughput alone takes about 20 ms per direction.
    /// Threads: any thread, any time; waits for a cycle in progress.
    /// Ownership: the caller owns `*output`, and nothing in it points back into the monitor.
    bool ReadCurrentSample(unsigned int deviceIndex, GpuTelemetrySample* output);

    /// As `Snapshot`, but of each GPU only the samples that are newer than `timestampSeconds`. Devices and process
    /// lists are always there.
    ///
    /// `timestampSeconds` is in the seconds of `GpuTelemetrySample::TimestampSeconds`. To follow the histories, pass
    /// the newest timestamp over all GPUs that the call before returned: a cycle is seen whole or not at all, so
    /// nothing is left out or comes twice. A start empties the histories; later samples are newer all the same.
    /// Result: the samples whose `TimestampSeconds` is greater than `timestampSeconds`, oldest first. Samples without a
    /// moment (0.0) are among them only for a negative argument, and NaN gives no samples.
    /// Cost: what is returned, however many samples are kept; each history is searched from its newest sample back.
    /// Threads and ownership: as `Snapshot`.
    std::vector<GpuTelemetryHistory> SnapshotSince(double timestampSeconds) const;

private:
    /// Body of the sampler thread: the initial delay, then cycles with a wait after each.
    void SamplerLoop();
    /// Waits for the initial delay to pass, and begins it again whenever a wake-up ends it early. False: the sampler is
    /// to end.
    bool WaitInitialDelay();
    /// Waits for `duration`, or until the sampler is to end or `WakeGeneration` is no longer `generation`. `lock` holds
    /// `Mutex`, also afterwards.
    void WaitForWake(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds duration, uint64_t generation);
    /// The work of one cycle: a sample and the process list of every GPU; the caller holds `Mutex`.
    void SampleAllDevicesLocked();

    /// Starts the sampler thread, and NVML before it when it is down; the caller holds `Mutex`.
    bool StartSamplingLocked();
    /// Starts NVML and rebuilds `Histories`, unless NVML is up; the caller holds `Mutex`.
    bool InitializeLocked();
    /// Shuts NVML down and closes it, whatever is open; the caller holds `Mutex`.
    void ShutdownLocked();
    /// Twins of the public operations of the same names; the caller holds `Mutex`.
    bool GetClockCapabilitiesLocked(GpuClockCapabilities* output);
    bool GetClockCapabilitiesLocked(unsigned int deviceIndex, GpuClockCapabilities* output);
    bool GetPowerCapabilitiesLocked(unsigned int deviceIndex, GpuPowerCapabilities* output);
    bool CaptureClockStateLocked(GpuClockState* output);
    GpuClockOperationResult SetLockedClockLocked(const GpuClockPair& pair, std::string* error);
    GpuClockOperationResult SetLockedClockLocked(unsigned int deviceIndex, const GpuClockPair& pair,
                                                 std::string* error);
    GpuClockOperationResult RestoreClockStateLocked(const GpuClockState& state, std::string* error);
    GpuClockOperationResult RestoreDefaultClocksLocked(std::string* error);
    GpuClockOperationResult RestoreDefaultClocksLocked(unsigned int deviceIndex, std::string* error);
    GpuClockOperationResult SetPowerLimitLocked(unsigned int deviceIndex, double watts, std::string* error);
    GpuClockOperationResult RestoreDefaultPowerLimitLocked(unsigned int deviceIndex, std::string* error);
    bool ReadCurrentSampleLocked(GpuTelemetrySample* output);
    bool ReadCurrentSampleLocked(unsigned int deviceIndex, GpuTelemetrySample* output);

    // Mutex guards every member except SamplerThread, which belongs to the controlling thread.
    void* Library = nullptr;
    bool bInitialized = false;
    bool bRunning = false;
    std::string StatusText;
    std::chrono::milliseconds SampleInterval{1000};
    std::chrono::milliseconds InitialSampleDelay{0};
    uint64_t WakeGeneration = 0;
    std::thread SamplerThread;
    mutable std::mutex Mutex;
    std::condition_variable WakeCv;
    std::vector<GpuTelemetryHistory> Histories;
    void* PrimaryDevice = nullptr;
};

#endif  // NVML_GPU_MONITOR_H
