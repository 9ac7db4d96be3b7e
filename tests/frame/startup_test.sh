#!/usr/bin/env bash
# No code of ours runs before main or at exit: startup_test.sh SHARED_LIBRARY ARCHIVE
set -euo pipefail
export LC_ALL=C
shared=$1 archive=$2
failures=0

# The archive holds our objects alone: none may have a constructor, a destructor or a table of them.
objects=$(readelf -SW "$archive")
grep -q '\.text' <<<"$objects" || { echo "$archive: no code found"; exit 1; }
tables=$(awk '/^File:/ {file = $2} /\.(preinit_array|init_array|fini_array|ctors|dtors|init|fini)[ .]/ {print file}' <<<"$objects")
if [ -n "$tables" ]; then
    printf 'code before main or at exit in:\n%s\n' "$tables"
    failures=$((failures + 1))
fi

# The shared library has the one entry that the compiler's own start file brings (frame_dummy and its counterpart).
for table in init_array fini_array; do
    bytes=$(readelf -SW "$shared" | sed -E 's/^ *\[ *[0-9]+\]//' | awk -v name=".$table" '$1 == name {print $5}')
    if [ $((16#${bytes:-0})) -gt 8 ]; then
        echo "$shared: .$table holds $((16#$bytes / 8)) entries"
        failures=$((failures + 1))
    fi
done

# Functions that register code to run at exit, or guard a late initialisation.
registered=$(nm -D --undefined-only "$shared" | awk '{sub(/@.*/, "", $2); print $2}' |
    grep -xE 'atexit|on_exit|__cxa_atexit|__cxa_thread_atexit(_impl)?|__cxa_guard_acquire' || true)
if [ -n "$registered" ]; then
    echo "$shared uses $registered"
    failures=$((failures + 1))
fi
[ "$failures" -eq 0 ]
