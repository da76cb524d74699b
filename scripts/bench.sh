#!/usr/bin/env bash
# Builds the release preset's benchmarks, runs them, and prints what the module costs, each figure beside the one that it
# is compared with. Takes some four minutes. Only the ratios mean anything on another machine.
set -euo pipefail

root=$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
build=$root/build/release
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT
declare -A measured # by "RUN MEMBER", as "SampleOfMonitor cpu_time"

quietly() {
    if ! "$@" >"$scratch/log" 2>&1; then
        cat -- "$scratch/log" >&2
        echo "bench: failed: $*" >&2
        exit 1
    fi
}

# Turns Google Benchmark's JSON, which has one member per line, into lines "RUN MEMBER VALUE", of medians where a run was
# repeated.
# shellcheck disable=SC2016 # awk expands
to_lines='
    { key = $1; gsub(/[ "]/, "", key); text = $2; gsub(/[",]/, "", text) }
    key == "run_name" { run = text; sub(/\/(manual_time|process_time|real_time|iterations:.*)$/, "", run) }
    key == "aggregate_name" { bOther = text != "median" }
    run != "" { value[key] = text }
    /^ *}/ {
        if (run != "" && !bOther) for (member in value) print run, member, value[member]
        split("", value); run = ""; bOther = 0
    }'

# measure PROGRAM ARGUMENT...: repetitions are interleaved, so that both sides of a comparison meet the same moments.
measure() {
    local run member value
    echo "bench: $1" >&2
    quietly "$build/benchmarks/$1" --benchmark_out="$scratch/out.json" --benchmark_out_format=json \
        --benchmark_enable_random_interleaving=true --benchmark_report_aggregates_only=true "${@:2}"
    while read -r run member value; do measured["$run $member"]=$value; done \
        < <(awk -F '": ' "$to_lines" "$scratch/out.json")
}

# The shared library alone, as a package would have it.
measure_library() {
    quietly cmake -S "$root" -B "$scratch/shared" -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_SHARED_LIBS=ON \
        -DNVML_GPU_MONITOR_BUILD_PROGRAMS=OFF -DNVML_GPU_MONITOR_BUILD_TESTS=OFF \
        -DNVML_GPU_MONITOR_BUILD_BENCHMARKS=OFF
    quietly cmake --build "$scratch/shared"
    strip -o "$scratch/stripped.so" "$scratch/shared/libnvml_gpu_monitor.so"
    measured['library bytes']=$(stat -c %s "$scratch/stripped.so")
}

# line WHAT UNIT MEASURED COMPARED RATIO TARGET: one line of the table.
line() { printf '| %-50s | %-4s | %9s | %9s | %5s | %-14s |\n' "$@"; }

# compare WHAT UNIT MEASURED [COMPARED [TARGET [FACTOR]]]: a figure, and its ratio to another one times FACTOR. Waits, in
# ms, have no ratio.
compare() {
    local figures
    figures=$(awk -v unit="$2" -v a="${measured[$3]}" -v b="${measured[${4:-$3}]}" -v target="${5:--}" \
        -v factor="${6:-1}" -v bAlone=$(($# == 3)) 'BEGIN {
        scale = unit == "KiB" ? 1024 : unit == "us" ? 1000 : 1
        ratio = unit == "ms" ? "-" : sprintf("%.2f", a / (b * factor))
        if (target != "-") target = "<= " target (ratio + 0 <= target + 0 ? " met" : " MISSED")
        if (bAlone) printf "%.1f|-|-|-", a / scale
        else printf "%.1f|%.1f|%s|%s", a / scale, b * factor / scale, ratio, target }')
    IFS='|' read -ra figures <<<"$figures"
    line "$1" "$2" "${figures[@]}"
}

table() {
    local boards processes run width which
    line 'what: compared with what' unit measured compared ratio target
    line --- --- --- --- --- ---
    compare 'one sample: by hand' us 'SampleOfMonitor cpu_time' 'SampleByHand cpu_time' 1.10
    compare 'one sample: by hand, looked up once' us 'SampleOfMonitor cpu_time' 'SampleLookedUpOnce cpu_time'
    compare 'cycle, 1 GPU, no process' us 'Cycle/1/0 real_time'
    for processes in 0 16 4096; do
        compare "cycle, 64 GPU, $processes processes: 8 times 8 GPU" us "Cycle/64/$processes real_time" \
            "Cycle/8/$processes real_time" 1.10 8
    done
    compare 'cycle, 8 GPU, 4096 processes: 4 times 1024' us 'Cycle/8/4096 real_time' 'Cycle/8/1024 real_time' 1.10 4
    compare 'cycle, 8 GPU, full histories: growing ones' us 'CycleAfter/6000 real_time' 'CycleAfter/1000 real_time' 1.05
    for boards in 1 8 64; do
        compare "Snapshot, $boards GPU, full: copy outside" us "SnapshotOfMonitor/$boards cpu_time" \
            "CopyOutside/$boards cpu_time" 1.05
    done
    for boards in 1 8 64; do compare "start and stop, $boards GPU" us "StartAndStop/$boards cpu_time"; done
    compare 'memory per GPU, full: its samples' KiB 'FullHistory/8 bytes_per_gpu' 'FullHistory/8 bytes_of_samples'
    compare 'memory per GPU, full, with the feed: 2.2 MiB' KiB 'FullHistoryAndFeed/8 bytes_per_gpu' 'allowed bytes' 1.00
    compare 'look of the feed, 8 GPU, full: 60 to 600' us 'LookWith/6000 real_time' 'LookWith/60 real_time' 1.10
    for width in 400 1000 1900; do
        for which in median worst; do
            run=PanelBesidePlotLines/$width
            compare "panel, 8 GPU, $width pixels, $which: PlotLines" us "$run panel_${which}_ns" "$run lines_${which}_ns" 4.00
        done
    done
    for run in SnapshotWait/{1,4}/{1000,100}; do
        compare "${run//\// }: median, 99th percentile" ms "$run median_ms" "$run p99_ms"
    done
    compare 'shared library, stripped' KiB 'library bytes'
}

"$root/scripts/setup.sh" test
echo 'bench: building' >&2
(cd -- "$root" && quietly cmake --preset release &&
    quietly cmake --build "$build" --target sample_bench cycle_bench snapshot_bench memory_bench look_bench wait_bench \
        panel_bench scrape_bench)
measure_library

measure sample_bench --benchmark_repetitions=40 --benchmark_min_time=0.02
measure cycle_bench --benchmark_repetitions=20 --benchmark_min_time=0.01
measure snapshot_bench --benchmark_repetitions=40 --benchmark_min_time=0.02
measure memory_bench
measured['allowed bytes']=$((22 * 1024 * 1024 / 10))
measure look_bench --benchmark_repetitions=20
measure panel_bench --benchmark_min_time=3
# Times that a driver's delays decide: not repeated, but many calls.
measure wait_bench --benchmark_min_time=10
table
# Prints a table of its own; what the exporter costs is compared with nothing.
echo 'bench: scrape_bench' >&2
"$build/benchmarks/scrape_bench"
