#!/usr/bin/env bash
# Checks what gets installed: hosts build against the shared library in every way, it exports its class and nothing
# else, hosts of the library and of the feed build and run against the unpacked Debian packages too, and so do the
# programs; the exporter's service is in a tight sandbox, and its rules and its dashboard name what it exports.
set -euo pipefail

cd -- "$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)"
packed=$PWD/build/package/packed

scripts/package.sh -DNVML_GPU_MONITOR_BUILD_TESTS=ON
ctest --preset package -L consumer
for package in "$packed"/*.deb; do
    dpkg-deb --extract "$package" "$packed/root"
done

library=$(find "$packed/root" -name 'libnvml_gpu_monitor.so.*' -type f)
symbols=$(nm -DC --defined-only "$library")
if others=$(grep -v ' NvmlGpuMonitor::' <<<"$symbols"); then
    printf 'check_package: the shared library exports more than its class:\n%s\n' "$others" >&2
    exit 1
fi
# What programs linked with an earlier version of this soname can need: the list only grows.
exported=$(nm -D --defined-only "$library" | awk '{ print $3 }')
if missing=$(grep -vxFe "$exported" cmake/exported_symbols.txt); then
    printf 'check_package: programs linked with an earlier version need, and this library does not have:\n%s\n' \
        "$(c++filt <<<"$missing")" >&2
    exit 1
fi

simulator=$packed/root/usr/lib/nvml_gpu_monitor/simulator/libnvidia-ml.so.1
for library in nvml_gpu_monitor feed; do
    host=$packed/${library}_host
    cmake -S tests/consumers/find_package -B "$host" -G Ninja -DCMAKE_PREFIX_PATH="$packed/root/usr" \
        -DLIBRARY="$library"
    cmake --build "$host"
    "$host/host" "$simulator"
done
"$packed/root/usr/bin/gpu_monitor" list --simulate
xvfb-run -a "$packed/root/usr/bin/gpu_overlay" --simulate --frames 3 --size 300x300

# systemd knows every setting of the unit, and rates its exposure at 2.0 of 10 at most.
unit=$packed/gpu-exporter.service
sed "s|^ExecStart=|&$packed/root|" "$packed/root/usr/lib/systemd/system/gpu-exporter.service" >"$unit"
complaints=$(systemd-analyze verify --man=no "$unit" 2>&1) || complaints+=' (failed)'
if [[ -n $complaints ]]; then
    printf 'check_package: systemd complains about the unit:\n%s\n' "$complaints" >&2
    exit 1
fi
systemd-analyze security --offline=true --threshold=20 --no-pager "$unit"

# Some series come with the second reading.
"$packed/root/usr/bin/gpu_exporter" --simulate=4 --processes --listen 127.0.0.1:0 2>"$packed/exporter.log" &
exporter=$!
trap 'kill "$exporter"' EXIT
page=$packed/metrics.txt
tries=0
until url=$(grep -oE 'http://.*/metrics' "$packed/exporter.log") && curl -sSf -o "$page" "$url" &&
    grep -q '^gpu_exporter_cycle_duration_seconds' "$page"; do
    kill -0 "$exporter"
    ((++tries < 300))
    sleep 0.1
done
promtool check metrics <"$page"
scripts/check_prometheus.sh "$page"
kill "$exporter"
wait "$exporter"
trap - EXIT
