#!/usr/bin/env bash
# promtool with these arguments; exit status 77, "skipped", where it is not installed.
if ! command -v promtool >/dev/null; then
    echo 'SKIPPED: promtool is not installed'
    exit 77
fi
exec promtool "$@"
