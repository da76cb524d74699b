#!/usr/bin/env bash
# A real Prometheus scrapes gpu_exporter on simulated GPUs, one of which is lost on the way, and is asked what it knows.
#
#   prometheus.sh GPU_EXPORTER SIMULATOR_FOLDER
#
# Exit status 77, "skipped", where Prometheus is not installed.
set -euo pipefail

for tool in prometheus promtool; do
    if ! command -v "$tool" >/dev/null; then
        echo "SKIPPED: $tool is not installed"
        exit 77
    fi
done

scratch=$(mktemp -d)
started=()
finish() {
    local status=$?
    if ((status != 0)); then tail -n 20 -- "$scratch"/*.log; fi
    if ((${#started[@]} > 0)); then
        kill -CONT "${started[@]}" || true
        kill "${started[@]}" || true
        wait "${started[@]}" || true
    fi
    rm -rf -- "$scratch"
}
trap finish EXIT

# await WHAT COMMAND...: until the command succeeds, for half a minute.
await() {
    local what=$1 giveUp=$((SECONDS + 30))
    shift
    until "$@"; do
        if ((SECONDS > giveUp)); then
            echo "never: $what"
            return 1
        fi
        sleep 0.1
    done
}

# listens LOG PATTERN: whether the program that writes the log has said where it listens; sets `port`.
listens() {
    port=$(sed -nE "s/.*$2.*127\.0\.0\.1:([1-9][0-9]*).*/\1/p" "$scratch/$1")
    [[ $port ]]
}

ask() { promtool query instant "$prometheus" "$1" 2>&1; }

# answers QUERY PATTERN: whether Prometheus answers so, for one series; without a pattern, whether it has no series.
answers() {
    local answer
    answer=$(ask "$1")
    # shellcheck disable=SC2053 # a pattern
    [[ $answer != *$'\n'* && $answer == ${2-} ]]
}

expect() {
    if ! await "$1 is ${2-nothing}" answers "$@"; then
        echo "it is: $(ask "$1")"
        return 1
    fi
}

LD_LIBRARY_PATH=$2 NVML_SIM_BOARDS=datacenter,desktop NVML_SIM_LOSE=1@1000 \
    "$1" --listen 127.0.0.1:0 --interval 100 2>"$scratch/exporter.log" &
exporter=$!
started+=("$exporter")
await 'gpu_exporter listens' listens exporter.log 'Listening on'
# Until Prometheus scrapes, which it begins after some seconds: GPU 1 must not be lost before that.
kill -STOP "$exporter"
cat >"$scratch/prometheus.yml" <<END
global:
  scrape_interval: 500ms
scrape_configs:
  - job_name: gpu
    static_configs:
      - targets: ['127.0.0.1:$port']
END
prometheus --config.file="$scratch/prometheus.yml" --storage.tsdb.path="$scratch/data" \
    --web.listen-address=127.0.0.1:0 2>"$scratch/prometheus.log" &
started+=($!)
await 'Prometheus listens' listens prometheus.log 'Listening on'
prometheus=http://127.0.0.1:$port
expect 'up{job="gpu"}' '* => 0 @*'
kill -CONT "$exporter"

expect 'gpu_up{gpu="0"}' '*uuid="GPU-233110de-51a7-4e5f-8d0c-0000a1b2c300"} => 1 @*'
expect 'up{job="gpu"}' '* => 1 @*'
expect 'gpu_info{gpu="0"}' '*name="NVIDIA H100 PCIe"* => 1 @*'
expect 'gpu_memory_size_bytes{gpu="0"}' '* => 85520809984 @*'
expect 'gpu_power_limit_maximum_watts{gpu="0"}' '* => 350 @*'
expect 'gpu_up{gpu="1"}' '* => 0 @*'
# It was there, and is not now: Prometheus would still give it for five minutes if the exporter had just gone silent.
expect 'count_over_time(gpu_power_watts{gpu="1"}[5m]) > bool 0' '* => 1 @*'
expect 'gpu_power_watts{gpu="1"}'
expect 'gpu_power_watts{gpu="0"} > bool 0' '* => 1 @*'
