# shellcheck shell=bash
# Sourced by scripts that run something long: what they show of it, on standard error.

# How long work takes that keeps one core busy for so many seconds: "3 minutes".
duration() {
    local minutes=$((($1 / $(nproc) + 59) / 60))
    if ((minutes == 1)); then echo 'one minute'; else echo "$minutes minutes"; fi
}

# with_progress WHAT LOG COMMAND...: runs the command, whose output goes to LOG, and shows how far it is. When it fails,
# shows the end of the log. Waits while another one works in the log's folder. The command must not depend on set -e.
with_progress() {
    local what=$1 log=$2 lock
    shift 2
    mkdir -p -- "${log%/*}"
    exec {lock}<"${log%/*}"
    if ! flock --nonblock "$lock"; then
        echo "${0##*/}: waiting for another one, which works in ${log%/*}" >&2
        flock "$lock"
    fi
    if "$@" 2>&1 | tee -- "$log" | show_percent "$what"; then
        exec {lock}<&-
        return 0
    fi
    {
        sed -E '/^(dl|pm)status:/d' -- "$log" | tail -n 40 # without what apt writes for show_percent
        echo
        echo "${0##*/}: $what failed. The whole output is in $log"
    } >&2
    return 1
}

# Finds the percentage in what ninja and apt print. On a terminal it is one line, which vanishes in the end; elsewhere it
# is a line for each quarter.
show_percent() {
    local line percent shown=0 step=25
    if [[ -t 2 && ${TERM-dumb} != dumb ]]; then step=1; fi
    while IFS= read -r line; do
        if [[ $line =~ ^\[([0-9]+)/([0-9]+)\] ]]; then
            percent=$((100 * BASH_REMATCH[1] / BASH_REMATCH[2]))
        elif [[ $line =~ ^(dl|pm)status:[^:]*:([0-9]+) ]]; then
            percent=$((BASH_REMATCH[2] / 2)) # downloading is the first half
            if [[ ${BASH_REMATCH[1]} == pm ]]; then percent=$((percent + 50)); fi
        else
            continue
        fi
        ((percent >= shown + step)) || continue
        shown=$((percent / step * step))
        if ((step == 1)); then
            printf '\r%s: %d %%\e[K' "$1" "$percent" >&2
        else
            printf '%s: %d %%\n' "$1" "$percent" >&2
        fi
    done
    if ((step == 1)); then printf '\r\e[K' >&2; fi
}
