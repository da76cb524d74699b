#ifndef GPU_MONITOR_SILENT_DRIVER_H
#define GPU_MONITOR_SILENT_DRIVER_H

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <thread>
#include <utility>

#include "common/failure.h"
#include "common/left_driver.h"
#include "nvml_gpu_monitor.h"

/// A command that needs an answer waits this long: NVML can take seconds to start.
constexpr double kLongestDriverSilenceSeconds = 20.0;

/// The failure of a command that has waited for that time.
Failure DriverIsSilent();

/// The monitor of a command that runs once. It asks on a thread of its own, so that the command goes on without the
/// answer of a driver that hangs.
class PatientMonitor {
public:
    /// Once this descriptor is readable, the driver gets two seconds more.
    void HurryAfter(int stopDescriptor) { StopDescriptor = stopDescriptor; }

    /// What `question` answers about the monitor. It must refer to nothing of its caller: when the driver does not
    /// answer, it is left behind, and `Failure` is thrown.
    template <typename Question>
    auto Ask(Question question) {
        using Answer = decltype(question(Monitor.get()));
        std::packaged_task<Answer()> task(
            [monitor = Monitor, question = std::move(question)] { return question(monitor.get()); });
        std::future<Answer> answer = task.get_future();
        std::thread thread(std::move(task));
        const bool bAnswered = HasAnswered(
            [&answer](std::chrono::milliseconds wait) { return answer.wait_for(wait) == std::future_status::ready; });
        if (!bAnswered) {
            thread.detach();
            NoteDriverLeftBehind();
            throw DriverIsSilent();
        }
        thread.join();
        return answer.get();
    }

private:
    /// Calls `hasCome`, which waits for the given time, until it returns true. False: that took too long.
    bool HasAnswered(const std::function<bool(std::chrono::milliseconds wait)>& hasCome) const;

    /// Shared with a thread that may hang.
    const std::shared_ptr<NvmlGpuMonitor> Monitor = std::make_shared<NvmlGpuMonitor>();
    int StopDescriptor = -1;
};

#endif  // GPU_MONITOR_SILENT_DRIVER_H
