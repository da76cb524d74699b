#!/usr/bin/env bash
# Builds everything and runs the tests. Arguments go to ctest: scripts/test.sh -R Lifecycle
set -euo pipefail

cd -- "$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)"
scripts/setup.sh test
cmake --preset dev
cmake --build --preset dev
exec ctest --preset dev "$@"
