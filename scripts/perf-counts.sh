#!/usr/bin/env bash
# Counts that do not depend on how busy the machine is, for docs/performance.md:
#   - system calls per frame carried, counted by strace over a fast-mode demo of 4095-byte
#     payloads (requests and responses), and
#   - instructions per frame carried, counted by valgrind's callgrind over a fast-mode demo of
#     payloads of random sizes: for the whole process, and for the two endpoint threads alone
#     (CANTransportThread::threadCode, inclusive) and the simulated bus thread alone.
#
# Usage: scripts/perf-counts.sh [CANTP]   (default: build/default/tools/cantp)
# Needs strace and valgrind. Takes about a minute.
set -euo pipefail

cantp=${1:-build/default/tools/cantp}
[ -x "$cantp" ] || { echo "perf-counts.sh: no cantp at $cantp (build it first)" >&2; exit 2; }
for tool in strace valgrind callgrind_annotate; do
    command -v "$tool" >/dev/null || { echo "perf-counts.sh: $tool is needed" >&2; exit 2; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

frames_of() { # the "frames N carried" figure of a demo summary
    sed -n 's/^frames *\([0-9,]*\) carried.*/\1/p' "$1" | tr -d ,
}

echo "== system calls: cantp demo --fast --payloads 100 --min-size 4095 --seed 3 (strace -f -c)"
strace -f -c -o "$work/strace.txt" "$cantp" demo --fast --payloads 100 --min-size 4095 --seed 3 \
    >"$work/demo1.txt" 2>&1
frames=$(frames_of "$work/demo1.txt")
calls=$(awk '$NF == "total" { print $(NF-2) }' "$work/strace.txt")
sed -n '1,12p' "$work/strace.txt"
awk -v c="$calls" -v f="$frames" \
    'BEGIN { printf "frames %d, system calls %d: %.2f system calls per frame\n", f, c, c / f }'

echo
echo "== instructions: cantp demo --fast --payloads 50 --seed 3 (valgrind --tool=callgrind)"
valgrind --tool=callgrind --callgrind-out-file="$work/cg.out" \
    "$cantp" demo --fast --payloads 50 --seed 3 >"$work/demo2.txt" 2>"$work/cg.err"
frames=$(frames_of "$work/demo2.txt")
callgrind_annotate --inclusive=yes "$work/cg.out" >"$work/annotated.txt" 2>/dev/null
total=$(sed -n 's/^ *\([0-9,]*\) .*PROGRAM TOTALS.*/\1/p' "$work/annotated.txt" | tr -d ,)
thread_ir() { # inclusive instructions of the function named $1
    grep -F "$1" "$work/annotated.txt" | head -n 1 | awk '{ print $1 }' | tr -d ,
}
endpoints=$(thread_ir "CANTransportThread::threadCode()")
bus=$(thread_ir "SimulatedCanBus::threadCode()")
awk -v t="$total" -v e="$endpoints" -v b="$bus" -v f="$frames" 'BEGIN {
    printf "frames %d\n", f
    printf "instructions per frame: whole process %.0f, endpoint threads %.0f, bus thread %.0f\n",
        t / f, e / f, b / f
}'
