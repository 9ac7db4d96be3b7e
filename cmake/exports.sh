#!/usr/bin/env bash
# Prints the names that the public headers declare with KEM_API, one a line, sorted: exports.sh INCLUDE_DIR
# The headers are preprocessed first, so that comments and macros cannot hide a declaration or look like one.
set -euo pipefail
export LC_ALL=C
if [ $# -ne 1 ] || [ ! -d "$1/kemsd" ]; then
    echo "usage: exports.sh INCLUDE_DIR" >&2
    exit 2
fi

(cd "$1" && printf '#include <%s>\n' kemsd/*.h) |
    "${CC:-cc}" -E -P -x c -D_GNU_SOURCE -I "$1" - |
    tr '\n' ' ' | grep -oE '__attribute__ *\(\(visibility\("default"\)\)\)[^;]*;' |
    sed -E 's/^__attribute__ *\(\([^)]*\)\)\)//; s/[(;=[].*//; s/.*[^A-Za-z0-9_]([A-Za-z0-9_]+) *$/\1/' | sort -u
