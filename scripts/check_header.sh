#!/usr/bin/env bash
# Checks that each public header can be included alone: in C++17 and C++20, included twice, with strict warnings, by g++
# and clang++. They include nothing but each other and the standard library.
set -euo pipefail

cd -- "$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)"
headers=(nvml_gpu_monitor.h)
for header in feed/include/gpu_feed/*.h; do
    headers+=("gpu_feed/${header##*/}")
done

if grep '^#include' include/*.h feed/include/gpu_feed/*.h |
    grep -vE '#include (<[a-z_]*>|"nvml_gpu_monitor\.h"|"gpu_feed/[a-z_]*\.h")$'; then
    echo "check_header: a public header includes more than the standard library and public headers" >&2
    exit 1
fi
for compiler in g++ clang++; do
    for standard in c++17 c++20; do
        echo "$compiler -std=$standard"
        for header in "${headers[@]}"; do
            printf '#include <%s>\n#include <%s>\n' "$header" "$header" |
                "$compiler" -std="$standard" -fsyntax-only -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror \
                    -I include -I feed/include -x c++ -
        done
    done
done
