#!/usr/bin/env bash
# Compares what gpu_monitor and nvidia-smi print of this machine's GPUs, and checks the sampler on the real driver. Prints
# one line per check. Changes nothing on a GPU unless --tuning is given.
#
#   scripts/check_real_gpu.sh                    builds gpu_monitor first
#   scripts/check_real_gpu.sh --program PATH     uses the program at this path
#   sudo scripts/check_real_gpu.sh --tuning      also sets a power limit and locks clocks, and takes both back
#
# --tuning affects every program of the machine for some seconds, and releases clocks that were locked before.
# Needs python3. Without a C++ compiler, some checks are skipped. The tolerances are in real_gpu/compare.py.
# Exit status: 0 every check passed, 1 a check failed, 2 wrong usage, 77 there is no driver to check with.
set -euo pipefail

root=$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
program=
tuning=()

usage() {
    echo "usage: ${0##*/} [--program PATH] [--tuning]" >&2
    exit 2
}

fail() {
    echo "check_real_gpu: $1" >&2
    exit 1
}

no_driver() {
    echo "check_real_gpu: $1: there is no NVIDIA driver to check with." >&2
    exit 77
}

while (($# > 0)); do
    case $1 in
        --program)
            (($# >= 2)) || usage
            program=$2
            shift
            ;;
        --tuning) tuning=(--tuning) ;;
        *) usage ;;
    esac
    shift
done

if ((${#tuning[@]} > 0 && EUID != 0)); then
    echo "check_real_gpu: --tuning needs root" >&2
    exit 2
fi
command -v nvidia-smi >/dev/null || no_driver 'nvidia-smi is not installed'
nvidia-smi -L >/dev/null 2>&1 || no_driver 'nvidia-smi reaches no driver'
command -v python3 >/dev/null || fail 'python3 is not installed'

scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT

if [[ -z $program ]]; then
    # run.sh builds it, and prints the errors of the build. The program's own answer is judged below.
    "$root/scripts/run.sh" --version >/dev/null || fail 'gpu_monitor could not be built'
    program=$root/build/run/bin/gpu_monitor
fi
[[ -x $program ]] || fail "$program is not a program"
if ! said=$("$program" list 2>&1 >/dev/null); then
    case $said in
        'NVML unavailable'*) no_driver 'gpu_monitor finds no libnvidia-ml.so.1' ;;
        *) fail "nvidia-smi reaches a driver, but gpu_monitor says: ${said%%$'\n'*}" ;;
    esac
fi

# The probe embeds the library, so it can pause and resume it, and makes the queries of a cycle without the library, too.
probe=$scratch/probe
compiler=${CXX:-c++}
# Unquoted: CXX may carry a launcher or flags.
# shellcheck disable=SC2086
if ! command -v -- ${compiler%% *} >/dev/null; then
    probe=
elif ! $compiler -std=c++17 -O2 -I"$root/include" -I"$root/profiler" "$root/scripts/real_gpu/probe.cpp" \
    "$root/src/nvml_gpu_monitor.cpp" -o "$probe" -ldl -pthread; then
    fail 'the probe could not be built'
fi

python3 "$root/scripts/real_gpu/compare.py" --program "$program" --probe "$probe" "${tuning[@]}"
