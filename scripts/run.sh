#!/usr/bin/env bash
# Builds the terminal program and shows the GPUs: of the real driver where there is one, else of a simulated one.
#
#   scripts/run.sh                          the live view or, where there is no terminal, the stream
#   scripts/run.sh sample --simulate=4      gpu_monitor with these arguments instead
set -euo pipefail

root=$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
build=$root/build/run # apart from the presets' builds: this one is without tests, so GoogleTest need not be there
log=$build/build.log
gpu_monitor=$build/bin/gpu_monitor

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
mkdir -p -- "$build"
[[ -x $gpu_monitor ]] || echo "Building gpu_monitor in build/run ..." >&2
if ! (configure_and_build) >"$log" 2>&1; then
    cat -- "$log" >&2
    echo "run: the build failed" >&2
    exit 1
fi

if (($# == 0)); then
    if [[ -t 0 && -t 1 ]]; then
        set -- watch
    else
        set -- stream
    fi
    if ! "$gpu_monitor" list >/dev/null 2>&1; then
        echo "No NVIDIA GPU can be read here: showing 4 simulated ones." >&2
        set -- "$@" --simulate=4
    fi
fi
exec "$gpu_monitor" "$@"
