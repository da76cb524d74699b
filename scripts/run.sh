#!/usr/bin/env bash
# Builds the terminal program and shows the GPUs of the driver or, where there is no driver, simulated ones.
#
#   scripts/run.sh                          the live view or, without a terminal that can show it, the stream
#   scripts/run.sh sample --simulate=4      gpu_monitor with these arguments instead
set -euo pipefail

root=$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
build=$root/build/run # not a preset's folder: this build is without tests, so it does not need GoogleTest
gpu_monitor=$build/bin/gpu_monitor
source "$root/scripts/progress.sh"

configure_and_build() {
    cd -- "$root" &&
        cmake --preset release -B "$build" \
            -DNVML_GPU_MONITOR_BUILD_PROGRAMS=ON \
            -DNVML_GPU_MONITOR_BUILD_EXAMPLES=OFF \
            -DNVML_GPU_MONITOR_BUILD_TESTS=OFF \
            -DNVML_GPU_MONITOR_BUILD_BENCHMARKS=OFF &&
        cmake --build "$build" --target gpu_monitor
}

"$root/scripts/setup.sh" run
[[ -x $gpu_monitor ]] || echo "Building gpu_monitor in build/run takes about $(duration 150), only this time." >&2
with_progress 'Building gpu_monitor' "$build/build.log" configure_and_build

if (($# == 0)); then
    if [[ -t 0 && -t 1 && ${TERM:-dumb} != dumb ]]; then
        set -- watch
    else
        set -- stream
    fi
    if ! "$gpu_monitor" list >/dev/null 2>&1; then
        echo "No NVIDIA GPU can be read here: showing simulated ones." >&2
        export NVML_SIM_BOARDS=${NVML_SIM_BOARDS:-4}
        set -- "$@" --simulate
    fi
fi
exec "$gpu_monitor" "$@"
