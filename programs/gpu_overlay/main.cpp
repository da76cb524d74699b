// gpu_overlay draws a real-time scene, measures its frames, and shows them over what the NVIDIA GPUs of this machine
// are doing. Its help lists the exit statuses.

#include "common/run_program.h"
#include "run/command_line.h"

int main(int argc, char** argv) {
    return RunProgram([=] { return RunCommandLine(argc, argv); });
}
