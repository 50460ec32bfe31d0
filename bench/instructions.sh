#!/usr/bin/env bash
# Instructions per record: the difference between two runs under callgrind, of N records and of 3N, so that
# start-up and the making of the stream fall out.
#   bench/instructions.sh [path of vxbench] [N]
set -euo pipefail
bench=${1:-build/bin/vxbench}
records=${2:-168000}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

count() { # count WHAT RECORDS
    valgrind --tool=callgrind --callgrind-out-file="$work/out" "$bench" --only "$1" --records "$2" >"$work/log" 2>&1 ||
        { cat "$work/log" >&2; exit 1; }
    awk '/^(summary|totals):/ { total = $2 } END { print total }' "$work/out"
}

for what in frames decode; do
    few=$(count "$what" "$records")
    many=$(count "$what" $((3 * records)))
    printf '%-7s instructions_per_record=%d\n' "$what" $(((many - few) / (2 * records)))
done
