#!/usr/bin/env bash
# Checks that the public header stands alone: in C++17 and C++20, included twice, with strict warnings, for g++ and
# clang++, and that it includes nothing but the standard library.
set -euo pipefail

cd -- "$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)"
header=include/nvml_gpu_monitor.h

if grep '^#include' "$header" | grep -v '^#include <[a-z_]*>$'; then
    echo "check_header: $header includes more than the standard library" >&2
    exit 1
fi
for compiler in g++ clang++; do
    for standard in c++17 c++20; do
        echo "$compiler -std=$standard"
        printf '#include "%s"\n#include "%s"\nint main() { return NvmlGpuMonitor().IsAvailable() ? 1 : 0; }\n' \
            "$header" "$header" |
            "$compiler" -std="$standard" -fsyntax-only -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror \
                -I . -x c++ -
    done
done
