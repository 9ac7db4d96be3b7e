#!/usr/bin/env bash
# The library defines exactly the names that the public headers declare, and the version script lists exactly these,
# sorted: exports_test.sh LIBRARY INCLUDE_DIR VERSION_SCRIPT
set -euo pipefail
export LC_ALL=C
library=$1 include=$2 map=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$(dirname "$0")/../../cmake/exports.sh" "$include" >"$work/headers"
# The names between "global:" and "local:" of every version node.
awk '/global:/ {inside = 1; next} /local:|}/ {inside = 0} inside {gsub(/[ \t;]/, ""); if ($0 != "") print}' "$map" \
    >"$work/map"
# Version nodes show as absolute symbols (A); every other kind of definition counts.
nm -D --defined-only "$library" | awk '$2 != "A" {sub(/@.*/, "", $3); print $3}' | sort -u >"$work/library"

failures=0
same() {
    diff "$work/$1" "$work/$2" >"$work/diff" && return
    echo "$3 (<) and $4 (>) differ:"
    grep '^[<>]' "$work/diff"
    failures=$((failures + 1))
}

[ -s "$work/headers" ] || { echo "the headers declare nothing"; exit 1; }
sort -c "$work/map" || { echo "$map: the names are not sorted"; failures=$((failures + 1)); }
[ -z "$(uniq -d "$work/map")" ] || { echo "$map: a name stands twice"; failures=$((failures + 1)); }
sort -u -o "$work/map" "$work/map"
same headers map "headers" "$map"
same headers library "headers" "$library"
echo "$(wc -l <"$work/headers") names, $failures failures"
[ "$failures" -eq 0 ]
