#ifndef SHELL_H
#define SHELL_H

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>

/// How a shell script has ended.
struct Result {
    int Status;
    std::string Output;
    std::string Errors;
};

/// Runs a shell script in which `gpu_monitor` and `gpu_overlay` are the programs and `on_simulator` lets them find the
/// simulator as any NVML client does.
inline Result Shell(const std::string& script) {
    const std::string setUp = "PATH='" PROGRAM_DIR
                              "':$PATH; unset LD_LIBRARY_PATH; "
                              "on_simulator() { env LD_LIBRARY_PATH='" SIMULATOR_DIR "' \"$@\"; }; ";
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = std::system((setUp + script).c_str());
    return {WEXITSTATUS(status), testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
}

#endif  // SHELL_H
