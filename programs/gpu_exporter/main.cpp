// gpu_exporter serves what the NVIDIA GPUs of this machine are doing over HTTP, for Prometheus. Its help lists the exit
// statuses.

#include "common/run_program.h"
#include "run/command_line.h"

int main(int argc, char** argv) {
    return RunProgram([=] { return RunCommandLine(argc, argv); });
}
