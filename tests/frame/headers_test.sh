#!/usr/bin/env bash
# Every public header compiles alone, twice in a row, as strict C11 and as C++20, and kemsd.h includes all others:
# headers_test.sh INCLUDE_DIR C-COMPILER C++-COMPILER
set -euo pipefail
include=$1 cc=$2 cxx=$3
warnings=(-pedantic-errors -Wall -Wextra -Wshadow -Wstrict-aliasing -Werror -fsyntax-only -I "$include")

alone() {
    local header=$1
    local text
    text=$(printf '#include <kemsd/%s>\n#include <kemsd/%s>\nint kemsdAlone;\n' "$header" "$header")
    "$cc" -x c -std=c11 "${warnings[@]}" -Wstrict-prototypes -Wwrite-strings - <<<"$text" ||
        { echo "$header does not stand alone as C11 ($cc)"; return 1; }
    "$cxx" -x c++ -std=c++20 "${warnings[@]}" -Wold-style-cast -fno-exceptions - <<<"$text" ||
        { echo "$header does not stand alone as C++20 ($cxx)"; return 1; }
}

failures=0 count=0
for path in "$include"/kemsd/*.h; do
    header=${path##*/}
    count=$((count + 1))
    alone "$header" || failures=$((failures + 1))
    if [ "$header" != kemsd.h ] && ! grep -qxF "#include <kemsd/$header>" "$include/kemsd/kemsd.h"; then
        echo "kemsd.h does not include $header"
        failures=$((failures + 1))
    fi
done
[ "$count" -gt 1 ] || { echo "no headers under $include/kemsd"; exit 1; }
echo "$count headers, $failures failures"
[ "$failures" -eq 0 ]
