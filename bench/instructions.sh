#!/usr/bin/env bash
# Instructions per record: the difference between two runs under callgrind, of N records and of 3N, so that
# start-up and the making of the stream fall out. The figure has no noise.
#   bench/instructions.sh [--most N] [path of vxbench] [N records]
# With --most only the decoder is measured, and the exit code is 1 when it takes more than N a record.
set -euo pipefail
most=0
if [ "${1:-}" = --most ]; then most=$2; shift 2; fi
bench=${1:-build/bin/vxbench}
records=${2:-168000}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

run() { # run WHAT RECORDS: the instructions go to a file of that name
    valgrind --tool=callgrind --callgrind-out-file="$work/$1.$2.out" "$bench" --only "$1" --records "$2" \
        >"$work/$1.$2.log" 2>&1 || { cat "$work/$1.$2.log" >&2; return 1; }
    awk '/^(summary|totals):/ { total = $2 } END { print total }' "$work/$1.$2.out" >"$work/$1.$2"
}

measure() { # measure WHAT: prints the line, leaves the figure in $figure
    run "$1" "$records" &
    local few=$!
    run "$1" $((3 * records))
    wait "$few"
    figure=$((($(cat "$work/$1.$((3 * records))") - $(cat "$work/$1.$records")) / (2 * records)))
    printf '%-7s instructions_per_record=%d\n' "$1" "$figure"
}

[ "$most" -gt 0 ] || measure frames
measure decode
[ "$most" -eq 0 ] || [ "$figure" -le "$most" ] || {
    echo "instructions: a record takes $figure, more than $most" >&2
    exit 1
}
