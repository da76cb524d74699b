#!/usr/bin/env bash
# Writes each code block of one language in the documents into a file of its own.
#
#   scripts/document_blocks.sh LANGUAGE FOLDER DOCUMENT...
#
# The block whose fence is line 26 of README.md becomes FOLDER/README_26.cpp when the language is cpp. For each block a
# line is printed, separated by tabs: the file, DOCUMENT:LINE, and REASON when the line before the fence is
# <!-- not run: REASON -->. Errors are blocks without a fence, without its end or without one of the documents' languages,
# and markers that mark nothing or have no reason.
set -euo pipefail

if (($# < 3)); then
    echo "usage: ${0##*/} LANGUAGE FOLDER DOCUMENT..." >&2
    exit 2
fi
language=$1 folder=$2
shift 2
mkdir -p -- "$folder"

for document in "$@"; do
    name=${document##*/}
    awk -v language="$language" -v prefix="$folder/${name%.md}_" -v document="$document" '
        function fail(line, message) {
            printf "%s:%d: %s\n", document, line, message >"/dev/stderr"
            failed = 1
            exit 1
        }
        {
            match($0, /^ */)
            text = substr($0, RLENGTH + 1)
        }
        fence && text == "```" {
            fence = 0
            if (file) close(file)
            next
        }
        fence {
            if (file) print substr($0, indent + 1) >file
            next
        }
        text ~ /^```/ {
            fence = NR
            indent = RLENGTH
            file = ""
            if (text !~ /^```(cmake|cpp|nginx|sh|text)$/)
                fail(NR, "the language of a code block is cmake, cpp, nginx, sh or text")
            if (text == "```" language) {
                file = prefix NR "." language
                printf "" >file
                printf "%s\t%s:%d%s\n", file, document, NR, reason ? "\t" reason : ""
            }
            reason = ""
            next
        }
        reason { fail(NR - 1, "no code block follows \"not run\"") }
        text ~ /^<!-- not run: .+ -->$/ { reason = substr(text, 15, length(text) - 18) }
        !reason && tolower(text) ~ /^<!-- *not run/ { fail(NR, "this marker is not <!-- not run: REASON -->") }
        text ~ /^~~~/ || previous == "" && /^(    |\t)/ && NR > 1 { fail(NR, "the code block has no fence") }
        { previous = $0 }
        END {
            if (failed) exit
            if (fence) fail(fence, "the code block has no end")
            if (reason) fail(NR, "no code block follows \"not run\"")
        }' "$document"
done
