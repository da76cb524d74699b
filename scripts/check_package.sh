#!/usr/bin/env bash
# Checks what gets installed: hosts build against the shared library in every way, it shows its class and nothing else,
# and against the unpacked Debian packages a host builds and runs too.
set -euo pipefail

cd -- "$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)"
build=$PWD/build/package
packed=$build/packed

cmake --preset package
cmake --build --preset package
ctest --preset package -L consumer

rm -rf -- "$packed"
mkdir -- "$packed"
(cd -- "$build" && cpack -B "$packed")
for package in "$packed"/*.deb; do
    dpkg-deb --extract "$package" "$packed/root"
done

library=$(find "$packed/root" -name 'libnvml_gpu_monitor.so.*' -type f)
symbols=$(nm -DC --defined-only "$library")
if others=$(grep -v ' NvmlGpuMonitor::' <<<"$symbols"); then
    printf 'check_package: the shared library shows more than its class:\n%s\n' "$others" >&2
    exit 1
fi

cmake -S tests/consumers/find_package -B "$packed/host" -G Ninja -DCMAKE_PREFIX_PATH="$packed/root/usr"
cmake --build "$packed/host"
simulator=$packed/root/usr/lib/nvml_gpu_monitor/simulator/libnvidia-ml.so.1
"$packed/host/host" "$simulator"
"$packed/root/usr/bin/gpu_monitor" list --simulate
