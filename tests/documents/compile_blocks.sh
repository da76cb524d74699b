#!/usr/bin/env bash
# Compiles each C++ block of README.md and docs/, with the compiler's messages at the document's lines.
#
#   compile_blocks.sh [--leave-out EXPRESSION] FOLDER COMPILER [FLAG...]    FOLDER receives the blocks
set -euo pipefail

left_out=''
if [[ $1 == --leave-out ]]; then
    left_out=$2
    shift 2
fi
folder=$1
shift
cd -- "$(dirname -- "$0")/../.."

rm -rf -- "$folder"
blocks=$(scripts/document_blocks.sh cpp "$folder" README.md docs/*.md)
failures=0
while IFS=$'\t' read -r file place _; do
    if [[ -n $left_out ]] && grep -qE "$left_out" "$file"; then
        echo "$place: left out, because the panel is not built"
        continue
    fi
    # As a header, because some blocks show one.
    printf '#line %d "%s"\n' "$((${place##*:} + 1))" "${place%:*}" | cat - "$file" >"$file.h"
    if "$@" -fsyntax-only -include "$file.h" -x c++ /dev/null; then
        echo "$place: compiles"
    else
        echo "$place: this block does not compile" >&2
        failures=$((failures + 1))
    fi
done <<<"$blocks"
exit $((failures > 0))
