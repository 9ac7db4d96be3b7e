#!/usr/bin/env bash
# What the shared library asks of the system: the C library and libnuma alone, bound at load, never unloaded, with
# nothing executable that need not be: needed_test.sh LIBRARY
set -euo pipefail
export LC_ALL=C
library=$1
dynamic=$(readelf -dW "$library")
segments=$(readelf -lW "$library")
failures=0
wrong() {
    echo "$library: $1"
    failures=$((failures + 1))
}

needed=$(sed -nE 's/.*\(NEEDED\).*\[(.*)\]/\1/p' <<<"$dynamic")
grep -qx 'libc\.so\.6' <<<"$needed" || wrong "does not name the C library"
others=$(grep -vxE 'libc\.so\.6|libnuma\.so\.1' <<<"$needed" || true)
[ -z "$others" ] || wrong "needs $others"
grep -q 'SONAME.*\[libkemsd\.so\.1\]' <<<"$dynamic" || wrong "is not named libkemsd.so.1"
grep -qE 'FLAGS_1.*NOW' <<<"$dynamic" || wrong "is not bound at load (-z now)"
grep -qE 'FLAGS_1.*NODELETE' <<<"$dynamic" || wrong "can be unloaded (-z nodelete)"
! grep -qE '\((RPATH|RUNPATH|TEXTREL)\)' <<<"$dynamic" || wrong "has a run path or text relocations"
grep -q GNU_RELRO <<<"$segments" || wrong "has no read-only relocations (-z relro)"
! grep -qE 'GNU_STACK.*RWE' <<<"$segments" || wrong "wants an executable stack"
echo "needs ${needed//$'\n'/, }"
[ "$failures" -eq 0 ]
