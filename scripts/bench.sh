#!/usr/bin/env bash
# Builds the release preset's benchmarks, runs them, and prints what the module costs, each figure beside the one that it
# is compared with. Takes some three minutes. Only the ratios mean anything on another machine.
set -euo pipefail

root=$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
build=$root/build/release
programs=(sample_bench cycle_bench bound_bench snapshot_bench lifecycle_bench memory_bench wait_bench)
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
    key == "run_name" { run = text }
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

# line WHAT UNIT MEASURED COMPARED RESULT TARGET: one line of the table.
line() { printf '| %-47s | %-4s | %9s | %9s | %7s | %-14s |\n' "$@"; }

# compare WHAT UNIT MEASURED COMPARED TARGET [FACTOR]: the ratio of two figures, the second one multiplied by FACTOR.
compare() {
    local figures a b ratio target
    figures=$(awk -v unit="$2" -v a="${measured[$3]}" -v b="${measured[$4]}" -v target="$5" -v factor="${6:-1}" 'BEGIN {
        scale = unit == "KiB" ? 1024 : 1000
        ratio = sprintf("%.2f", a / (b * factor))
        if (target != "-") target = "<= " target (ratio + 0 <= target + 0 ? " met" : " MISSED")
        printf "%.1f|%.1f|%s|%s", a / scale, b * factor / scale, ratio, target }')
    IFS='|' read -r a b ratio target <<<"$figures"
    line "$1" "$2" "$a" "$b" "$ratio" "$target"
}

# exceed WHAT MEASURED COMPARED TARGET: by how many microseconds one time is above another.
exceed() {
    local figures a b more target
    figures=$(awk -v a="${measured[$2]}" -v b="${measured[$3]}" -v target="$4" 'BEGIN {
        more = (a - b) / 1000
        printf "%.1f|%.1f|+%.2f|< %s %s", a / 1000, b / 1000, more, target, more < target ? "met" : "MISSED" }')
    IFS='|' read -r a b more target <<<"$figures"
    line "$1" us "$a" "$b" "$more" "$target"
}

wait_lines() {
    local boards interval run
    for boards in 1 4; do
        for interval in 1000 100; do
            run=SnapshotWait/$boards/$interval/real_time
            line "Snapshot waits, $boards GPU, $interval ms: median, p99" ms \
                "$(printf '%.1f' "${measured[$run median_ms]}")" "$(printf '%.1f' "${measured[$run p99_ms]}")" - -
        done
    done
}

table() {
    local boards processes cycle
    line 'what: compared with what' unit measured compared result target
    line --- --- --- --- --- ---
    compare 'one sample: by hand' us 'SampleOfMonitor cpu_time' 'SampleByHand cpu_time' 1.10
    exceed 'one sample: direct calls' 'SampleOfMonitor cpu_time' 'SampleDirectly cpu_time' 5
    for boards in 1 8 64; do
        for processes in 0 16 4096; do
            cycle=$boards/$processes/manual_time
            compare "cycle, $boards GPU, $processes processes: by hand" us \
                "CycleOfMonitor/$cycle real_time" "CycleByHand/$cycle real_time" 1.10
        done
    done
    for processes in 0 16 4096; do
        compare "cycle, 64 GPU, $processes processes: 8 times 8 GPU" us "CycleOfMonitor/64/$processes/manual_time real_time" \
            "CycleOfMonitor/8/$processes/manual_time real_time" 1.10 8
    done
    compare 'cycle, 8 GPU, 4096 processes: 4 times 1024' us 'CycleOfMonitor/8/4096/manual_time real_time' \
        'CycleOfMonitor/8/1024/manual_time real_time' 1.10 4
    compare 'cycle, 8 GPU, full histories: growing ones' us 'CycleAfter/AtBound/8/iterations:2000/manual_time real_time' \
        'CycleAfter/BelowBound/8/iterations:2000/manual_time real_time' 1.05
    for boards in 1 8 64; do
        compare "Snapshot, $boards GPU, full: copy outside" us "SnapshotOfMonitor/$boards cpu_time" \
            "CopyOutside/$boards cpu_time" 1.05
    done
    for boards in 1 8 64; do
        compare "start and stop, $boards GPU: by hand" us "StartAndStopOfMonitor/$boards/process_time cpu_time" \
            "StartAndStopByHand/$boards/process_time cpu_time" -
    done
    compare 'memory per GPU, full: its samples' KiB 'FullHistory/8/iterations:1 bytes_per_gpu' \
        'FullHistory/8/iterations:1 bytes_of_samples' -
    wait_lines
    line 'shared library, stripped' KiB "$(awk -v bytes="${measured[library bytes]}" 'BEGIN { printf "%.1f", bytes / 1024 }')" - - -
}

"$root/scripts/setup.sh" test
echo 'bench: building' >&2
(cd -- "$root" && quietly cmake --preset release && quietly cmake --build "$build" --target "${programs[@]}")
measure_library

measure sample_bench --benchmark_repetitions=40 --benchmark_min_time=0.02
# Short cycles are hardly longer than the wake-up before them, which varies: they need more repetitions.
measure cycle_bench --benchmark_repetitions=60 --benchmark_min_time=0.01 --benchmark_filter='/(1|8)/'
measure cycle_bench --benchmark_repetitions=20 --benchmark_min_time=0.01 --benchmark_filter='/64/'
measure bound_bench --benchmark_repetitions=20
measure snapshot_bench --benchmark_repetitions=40 --benchmark_min_time=0.02
measure lifecycle_bench --benchmark_repetitions=40 --benchmark_min_time=0.01
measure memory_bench
# Times that a driver's delays decide: not repeated, but many calls.
measure wait_bench --benchmark_min_time=10
table
