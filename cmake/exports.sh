#!/usr/bin/env bash
# Prints the names that the public headers declare with KEM_API, one a line, sorted: exports.sh INCLUDE_DIR
set -euo pipefail
cat "$1"/kemsd/*.h | tr '\n' ' ' | grep -oE 'KEM_API [^;]*;' |
    sed -E 's/ *\(\*[^)]*\)//; s/\(.*//; s/;.*//; s/\[.*//' | awk '{n=$NF; sub(/^\*+/, "", n); print n}' | LC_ALL=C sort -u
