#ifndef MONITOR_TEST_H
#define MONITOR_TEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "fixed_boards.h"
#include "gpu_profiler.h"
#include "nvml_gpu_monitor.h"
#include "sampler_clock.h"
#include "simulated_nvml.h"

/// The time now, on the clock of the samples' timestamps.
inline double SteadySeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// Every test begins with one fixed board without faults, and fails when the simulator saw misuse or NVML was left
/// open.
class ScriptedTest : public testing::Test {
protected:
    ScriptedTest() {
        *GPUProfiler::Get() = {};
        StartOver();
    }
    ~ScriptedTest() override {
        EXPECT_THAT(Log(), testing::AnyOf("", testing::EndsWith("dlclose "), testing::EndsWith("dlopen(1) ")))
            << "NVML was left open";
        EXPECT_THAT(Sim.Misuse(), testing::IsEmpty());
        sampler_clock::Reset();
    }

    void StartOver() {
        EXPECT_THAT(Sim.Misuse(), testing::IsEmpty());
        Sim.Reset();
        Sim.SetBoards(fixed_boards::FixedBoards(1));
        Sim.RecordLog();
        Sim.ForbidConcurrentCalls();
        Sim.LetFailuresWrite();
    }

    /// The entries of the log from `from` on that contain one of `words`: "?Name" is a lookup, "Name(...)" a call. The
    /// common beginnings of NVML's names are left out.
    std::string Log(size_t from = 0, const std::vector<std::string>& words = {""}) const {
        std::string text;
        const std::vector<std::string> log = Sim.Log();
        for (size_t i = from; i < log.size(); ++i) {
            const auto contains = [&](const std::string& word) { return log[i].find(word) != std::string::npos; };
            if (std::any_of(words.begin(), words.end(), contains)) text += Brief(log[i]) + " ";
        }
        return text;
    }

    static std::string Brief(std::string line) {
        const std::pair<std::string, std::string> words[] = {
            {"dlsym ", "?"}, {"nvmlDeviceGet", ""}, {"nvmlSystemGet", ""}, {"nvml", ""}};
        for (const auto& [word, brief] : words) {
            const size_t place = line.find(word);
            if (place != std::string::npos) line.replace(place, word.size(), brief);
        }
        return line;
    }

    bool WaitForCalls(const std::string& name, uint64_t count) const {
        return Sim.WaitForCalls(name, count, std::chrono::seconds(60));
    }

    simulated_nvml::SimulatedNvml& Sim = simulated_nvml::SimulatedNvml::Get();
};

/// Has a monitor, which is destroyed before the test looks for misuse.
class MonitorTest : public ScriptedTest {
protected:
    NvmlGpuMonitor Monitor;
};

#endif  // MONITOR_TEST_H
