#ifndef GPU_MONITOR_CHANGE_TEXT_H
#define GPU_MONITOR_CHANGE_TEXT_H

#include <string>

#include "gpu_feed/tuning_session.h"

/// What every refusal for lack of rights is followed by, as a line.
constexpr const char* kRightsAdvice =
    "Changing GPUs needs root: run the same command with sudo, or in a container with CAP_SYS_ADMIN.";

/// What a change does: "lock the clocks to ...".
std::string ActionText(const gpu_feed::TuningChange& change);

/// What is so after a change: "clocks locked to ...".
std::string OutcomeText(const gpu_feed::TuningChange& change);

/// A command line of this program for one GPU; `values` and `simulateOption` may be empty.
std::string CommandLineFor(const std::string& command, unsigned int gpu, const std::string& values,
                           const std::string& simulateOption);

/// The command line of this program that makes a change.
std::string CommandOf(const gpu_feed::TuningChange& change, unsigned int gpu, const std::string& simulateOption);

#endif  // GPU_MONITOR_CHANGE_TEXT_H
