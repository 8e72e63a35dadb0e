#!/usr/bin/env bash
# Runs the libFuzzer targets of the `fuzz` preset for a fixed time each, on a copy of their
# corpus, and reports executions per second and in total. Any crash, sanitizer report, leak,
# time-out or memory excess fails the run; its input is kept as <out>/<target>/crash-... (the
# artifact name libFuzzer gives it) and printed in base64 so that it can be added to
# fuzz/corpus/<target>/ as a regression test from the log alone:
#     base64 -d > fuzz/corpus/<target>/crash-<sha1>   (paste the printed block)
#
# Usage: fuzz/run-fuzzers.sh [-t SECONDS] [-j PARALLEL] [-o OUTDIR] [-b BUILDDIR] [TARGET...]
#   -t  time per target (default 60)     -j  targets run at once (default 2)
#   -o  work and artifact directory (default build/fuzz-run)
#   -b  build directory of the fuzz preset (default build/fuzz)
#   TARGET: trace_reader endpoint_frames endpoint_line candump_decode (default: all)
set -uo pipefail
cd "$(dirname "$0")/.."

seconds=60
parallel=2
out=build/fuzz-run
build=build/fuzz
while getopts "t:j:o:b:" opt; do
    case $opt in
        t) seconds=$OPTARG ;;
        j) parallel=$OPTARG ;;
        o) out=$OPTARG ;;
        b) build=$OPTARG ;;
        *) sed -n '2,15p' "$0"; exit 2 ;;
    esac
done
shift $((OPTIND - 1))
targets=("$@")
[ "${#targets[@]}" -gt 0 ] || targets=(trace_reader endpoint_frames endpoint_line candump_decode)

# Longest input per target: room for the largest payload (4200 bytes) and a few messages, for
# a line beyond the 4096-character limit of cantp decode; more would only slow the search.
max_len() {
    case $1 in
        trace_reader | candump_decode) echo 16384 ;;
        endpoint_frames) echo 8192 ;;
        *) echo 4096 ;;
    esac
}

run_one() {
    local t=$1 dir=$out/$1
    rm -rf "$dir"
    mkdir -p "$dir/corpus"
    cp fuzz/corpus/"$t"/* "$dir/corpus/"
    "$build/fuzz/qb_fuzz_$t" "$dir/corpus" \
        -max_total_time="$seconds" -max_len="$(max_len "$t")" -rss_limit_mb=1024 -timeout=20 \
        -print_final_stats=1 -artifact_prefix="$dir/" >"$dir/fuzz.log" 2>&1
    echo $? >"$dir/status"
}

for t in "${targets[@]}"; do
    if [ ! -x "$build/fuzz/qb_fuzz_$t" ]; then
        echo "no fuzz target $build/fuzz/qb_fuzz_$t (build the fuzz preset first)" >&2
        exit 2
    fi
done

mkdir -p "$out"
running=0
for t in "${targets[@]}"; do
    if [ "$running" -ge "$parallel" ]; then
        wait -n
        running=$((running - 1))
    fi
    echo "fuzzing $t for ${seconds} s"
    run_one "$t" &
    running=$((running + 1))
done
wait

failed=0
printf '\n%-16s %12s %12s %8s %8s  %s\n' target executions exec/s rss_mb corpus result
for t in "${targets[@]}"; do
    dir=$out/$t
    log=$dir/fuzz.log
    status=$(cat "$dir/status" 2>/dev/null || echo 99)
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
    rss=$(sed -n 's/^stat::peak_rss_mb: *//p' "$log" | tail -1)
    units=$(find "$dir/corpus" -type f | wc -l)
    artifacts=$(find "$dir" -maxdepth 1 -type f \( -name 'crash-*' -o -name 'leak-*' -o \
        -name 'timeout-*' -o -name 'oom-*' -o -name 'slow-unit-*' \) | sort)
    result=ok
    if [ "$status" != 0 ] || [ -n "$artifacts" ]; then
        result="FAILED (exit $status)"
        failed=1
    fi
    printf '%-16s %12s %12s %8s %8s  %s\n' "$t" "${execs:-?}" "${rate:-?}" "${rss:-?}" \
        "$units" "$result"
done

for t in "${targets[@]}"; do
    dir=$out/$t
    status=$(cat "$dir/status" 2>/dev/null || echo 99)
    artifacts=$(find "$dir" -maxdepth 1 -type f \( -name 'crash-*' -o -name 'leak-*' -o \
        -name 'timeout-*' -o -name 'oom-*' \) | sort)
    if [ "$status" = 0 ] && [ -z "$artifacts" ]; then
        continue
    fi
    echo
    echo "=== $t: last lines of $dir/fuzz.log"
    tail -40 "$dir/fuzz.log"
    for a in $artifacts; do
        echo
        echo "=== $t: input $a ($(stat -c %s "$a") bytes); add it to the corpus with"
        echo "base64 -d > fuzz/corpus/$t/$(basename "$a") <<'INPUT'"
        base64 "$a"
        echo "INPUT"
    done
done
exit $failed
