#!/bin/sh
# Hosts without CMake, built with bare compiler lines: one that links the installed library, and one that compiles it
# with its own profiler.
#
#   pkg_config.sh FOLDER_OF_THE_PC_FILE ENGINE SIMULATOR BUILD_FOLDER COMPILER [FLAG...]
#
# EMULATOR, when it is not empty, is the command that runs what COMPILER has built.
set -eu

export PKG_CONFIG_PATH="$1"
engine=$2 simulator=$3 build=$4
shift 4

host=$(dirname "$0")/nvml_gpu_monitor_host.cpp
emulated() { ${EMULATOR-} "$@"; }
package() { pkg-config "$@" nvml_gpu_monitor; }
mkdir -p "$build"

# What pkg-config prints is meant to be split.
# shellcheck disable=SC2046
"$@" -std=c++17 "$host" $(package --cflags --libs) -ldl -Wl,-rpath,"$(package --variable=libdir)" -o "$build/linked"
emulated "$build/linked" "$simulator"
# shellcheck disable=SC2046
"$@" -std=c++17 -I "$engine" "$host" "$(package --variable=source)" $(package --cflags) -ldl -pthread \
    -o "$build/compiled"
emulated "$build/compiled" "$simulator"
