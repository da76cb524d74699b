#!/usr/bin/env bash
# Builds everything and runs the tests. Arguments go to ctest: scripts/test.sh -R Lifecycle
set -euo pipefail

cd -- "$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)"
source scripts/progress.sh

scripts/setup.sh test
[[ -e build/dev/build.ninja ]] ||
    echo "Building everything in build/dev takes about $(duration 350), the tests then 2 minutes." >&2
cmake --preset dev
cmake --build --preset dev
exec ctest --preset dev "$@"
