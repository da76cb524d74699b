#!/usr/bin/env bash
# Checks what comes with the exporter for Prometheus and Grafana against a page that it serves.
#
#   check_prometheus.sh PAGE    a file with the answer to /metrics, of GPUs that have every reading
set -euo pipefail

page=$1
folder=$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../programs/gpu_exporter/prometheus" && pwd)
work=$(mktemp -d)
trap 'rm -rf -- "$work"' EXIT

fail() {
    printf 'check_prometheus: %s\n' "$*" >&2
    exit 1
}

# ---- Both configurations of the scrape file: as it is, and with what it has as comments ----

sed -e "s|/usr/share/gpu_exporter|$folder|" "$folder/scrape.yml" >"$work/scrape.yml"
sed -e 's/^    #\( *[a-z-]\)/    \1/' "$work/scrape.yml" >"$work/everything.yml"
promtool check config "$work/scrape.yml" "$work/everything.yml"

# ---- The dashboard's expressions are PromQL: as rules, promtool reads them ----

# Queries of variables are functions of Grafana around a selector.
jq '{groups: [{name: "dashboard", rules: [
        [.panels[].targets[]?.expr, (.templating.list[].query.query? // empty | capture("\\((?<e>.*), ").e)]
        | to_entries[] | {record: "expression_\(.key)", expr: (.value | gsub("\\$__rate_interval"; "5m"))}]}]}' \
    "$folder/dashboard.json" >"$work/dashboard_rules.yml"
promtool check rules "$work/dashboard_rules.yml"

# ---- What the dashboard and the tests of the rules name is on the page, or a rule makes it ----

sed -n 's/^\([a-z0-9_]*\)[{ ].*/\1/p' "$page" >"$work/known"
sed -n 's/^ *- record: //p' "$folder/gpu_rules.yml" >>"$work/known"
printf '%s\n' up ALERTS >>"$work/known"
{
    jq -r '.groups[].rules[].expr' "$work/dashboard_rules.yml" |
        sed -E 's/\{[^}]*\}//g; s/\b(by|on|group_left) *\([^)]*\)//g' |
        grep -oE '\b(gpu|process|up|job|instance|ALERTS)[a-z0-9_:]*'
    sed -nE "s/.*\{series: '([^{]*)\{.*/\1/p" "$folder/gpu_rules_test.yml"
} >"$work/used"
(($(wc -l <"$work/used") > 100)) || fail 'the names of series were not found'
unknown=$(sort -u "$work/used" | grep -vxFf "$work/known" || true)
[[ -z $unknown ]] || fail "nothing exports ${unknown//$'\n'/, }"
