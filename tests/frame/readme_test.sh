#!/usr/bin/env bash
# The program in README.md compiles, links with the archive and runs: readme_test.sh ROOT C-COMPILER ARCHIVE
set -euo pipefail
root=$1 cc=$2 archive=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The first block of C.
awk '/^```c$/ {inside = 1; next} /^```/ {if (inside) exit} inside' "$root/README.md" >"$work/readme.c"
[ -s "$work/readme.c" ] || { echo "README.md holds no block of C"; exit 1; }
"$cc" -std=c11 -Wall -Wextra -Werror -I "$root/include" "$work/readme.c" "$archive" -pthread -o "$work/readme"
(cd "$work" && ./readme)
