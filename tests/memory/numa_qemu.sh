#!/usr/bin/env bash
# NUMA placement on a real kernel: boots a guest of two nodes under software emulation, whose only program is
# GUEST_PROGRAM, and compares what it prints: numa_qemu.sh GUEST_PROGRAM
# Wants qemu-system-x86 and a kernel image: KERNEL_IMAGE=file, else the newest one in /boot (linux-image-amd64). Without
# them it says so and ends with 77: skipped.
set -euo pipefail
export LC_ALL=C
readonly seconds=100 skipped=77
program=$1
skip() {
    echo "skipped: $1"
    exit $skipped
}

command -v qemu-system-x86_64 >/dev/null || skip "no qemu-system-x86_64 (package qemu-system-x86)"
kernel=${KERNEL_IMAGE:-$(find /boot -maxdepth 1 -name 'vmlinuz-*' -readable 2>/dev/null | sort -V | tail -1)}
[ -r "$kernel" ] ||
    skip "no readable kernel image in /boot (package linux-image-amd64) or KERNEL_IMAGE"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# One member of an initial file system (cpio, "newc"): header, name and content, each filled up to 4 bytes.
fill() { head -c $(((4 - $1 % 4) % 4)) /dev/zero; }
member() { # NAME MODE FILE
    local size
    size=$(stat -L -c %s "$3")
    printf '070701%08X%08X%08X%08X%08X%08X%08X%08X%08X%08X%08X%08X%08X%s\0' \
        0 "$2" 0 0 1 0 "$size" 0 0 0 0 $((${#1} + 1)) 0 "$1"
    fill $((110 + ${#1} + 1))
    cat "$3"
    fill "$size"
}
{
    member init 0100755 "$program"
    member 'TRAILER!!!' 0 /dev/null
} >"$work/initrd"

# shellcheck disable=SC2054
qemu=(
    qemu-system-x86_64 -accel tcg -M pc -nodefaults -no-user-config -no-reboot
    -display none -serial stdio -smp 2 -m 256
    -object memory-backend-ram,id=m0,size=128M -numa node,nodeid=0,cpus=0,memdev=m0
    -object memory-backend-ram,id=m1,size=128M -numa node,nodeid=1,cpus=1,memdev=m1
    -kernel "$kernel" -initrd "$work/initrd" -append 'console=ttyS0 quiet panic=-1 mitigations=off'
)
status=0
timeout --kill-after=5 $seconds "${qemu[@]}" </dev/null >"$work/console" 2>&1 || status=$?

cat >"$work/expected" <<'TEXT'
variable absent: 0 nodes, number 5 on -1
variable true: 0 nodes, number 5 on -1
variable FALSE, no acceleration: 0 nodes, number 5 on -1
variable FALSE, acceleration: 2 nodes, number 5 on 1
buffer for node 1: result 0, 65536 bytes
then: on node 1, preferred 1
it, written on node 1, lies on 1 to 1
freed: 0
bound to 0: on node 0, preferred 0
buffer for node 1: result 0, 65536 bytes
then: on node 0, preferred 0
it, written on node 0, lies on 0 to 0
freed: 0
buffer for node 0: result 0, 65536 bytes
then: on node 0, preferred 0
it, written on node 0, lies on 0 to 0
freed: 0
bound to a number beyond every node: on node 0
second thread bound to 1: on node 1, preferred 1
first thread: on node 0, preferred 0
made again by a thread on one node: 0 nodes, number 5 on -1
end
TEXT
tr -d '\r' <"$work/console" | sed -n 's/^.*numa: //p' >"$work/said"
# A machine that is busy with other work may be too slow to boot a guest; that says nothing about placement.
[ $status -ne 124 ] || [ -s "$work/said" ] || skip "the guest did not come up within $seconds s"
if [ $status -ne 0 ] || ! diff -u "$work/expected" "$work/said"; then
    echo "the guest ended with $status; its console:"
    tr -d '\r' <"$work/console" | tail -40
    exit 1
fi
echo "placement holds on $(basename "$kernel")"
