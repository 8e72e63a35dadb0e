#!/usr/bin/env bash
# run.sh [options]: the SocketCAN checks in a Linux kernel under qemu.
#
# Fetches the recorded Debian kernel into the cache (fetch-kernel.sh), builds an initramfs with
# busybox, can-utils, tc, the programs under test and the check scripts (build-initramfs.sh), boots
# the kernel under qemu-system-x86_64 with software emulation, and reads the result lines the
# guest writes on its serial console. Exit status 0 only if the guest reported every check passed;
# 1 if a check failed, the guest's end marker is missing (crash, time limit) or anything else went
# wrong; 2 for a wrong command line.
#
# Options:
#   --cantp PATH        the cantp tool under test (default: build/default/tools/cantp)
#   --bin PATH          another program to put into the guest's /usr/bin (repeatable)
#   --checks DIR        the guest side: init, lib/ and checks/ (default: tests/vm)
#   --only PATTERN      run only the checks whose file name contains PATTERN
#   --out DIR           keep the results here: console.log (the guest's result lines),
#                       details.log (each check's output), summary.txt (default: a temporary
#                       directory, removed unless a check failed)
#   --time-limit SEC    the whole guest run, after which qemu is stopped (default 600)
#   --smp N             virtual processors (default 1: each takes a host core under emulation)
#   --host-root         share the host's root file system read-only with the guest (9p), mounted
#                       at /host; checks can run host programs such as /usr/bin/python3 there
#                       (in 'chroot /host', where host paths hold: QB_HOST_CANTP is then the
#                       absolute host path of the cantp tool under test)
#   --env NAME=VALUE    set NAME to VALUE in the environment of every check (repeatable; VALUE
#                       of letters, digits and . _ / : , = + @ -)
#   -h, --help          this text
#
# Environment: QB_VM_CACHE (the kernel cache, see fetch-kernel.sh); QB_REQUIRE_PYTHON, if set,
# is passed to the checks (1: the Python check fails instead of skipping when it cannot run).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/../.." && pwd)

usage() { sed -n '2,/^set -euo/p' "$0" | sed '$d; s/^# \{0,1\}//'; }
bad_usage() {
    echo "run.sh: $*" >&2
    echo "Try '$0 --help'." >&2
    exit 2
}
die() { echo "run.sh: $*" >&2; exit 1; }

cantp=$repo/build/default/tools/cantp
bins=()
guest=$repo/tests/vm
only=
out=
time_limit=600
smp=1
host_root=
envs=()
while [ $# -gt 0 ]; do
    case $1 in
        --cantp | --bin | --checks | --only | --out | --time-limit | --smp | --env)
            [ $# -ge 2 ] || bad_usage "option '$1' needs a value"
            case $1 in
                --cantp) cantp=$2 ;;
                --bin) bins+=("$2") ;;
                --checks) guest=$2 ;;
                --only) only=$2 ;;
                --out) out=$2 ;;
                --time-limit) time_limit=$2 ;;
                --smp) smp=$2 ;;
                --env)
                    [[ $2 =~ ^[A-Za-z_][A-Za-z0-9_]*=[A-Za-z0-9._/:,=+@-]*$ ]] ||
                        bad_usage "--env takes NAME=VALUE, VALUE of letters, digits and . _ / : , = + @ -"
                    envs+=("$2")
                    ;;
            esac
            shift 2
            ;;
        --host-root) host_root=1; shift ;;
        -h | --help) usage; exit 0 ;;
        *) bad_usage "unknown argument '$1'" ;;
    esac
done
[[ $time_limit =~ ^[1-9][0-9]*$ ]] || bad_usage "--time-limit needs a whole number of seconds"
[[ $smp =~ ^[1-9][0-9]*$ ]] || bad_usage "--smp needs a whole number"
[[ $only =~ ^[A-Za-z0-9._-]*$ ]] || bad_usage "--only takes letters, digits, '.', '_' and '-'"

missing=()
for tool in qemu-system-x86_64:qemu-system-x86 busybox:busybox-static candump:can-utils \
    cpio:cpio; do
    command -v "${tool%%:*}" >/dev/null || missing+=("${tool#*:}")
done
PATH=$PATH:/usr/sbin:/sbin command -v tc >/dev/null || missing+=(iproute2)
if [ "${#missing[@]}" -gt 0 ]; then
    die "missing programs; install them with: apt-get install -y --no-install-recommends ${missing[*]}"
fi
[ -x "$cantp" ] || die "no cantp tool at $cantp: build it (cmake --build build/default --target cantp) or give --cantp PATH"
cantp=$(cd "$(dirname "$cantp")" && pwd)/$(basename "$cantp")
if [ -n "$host_root" ]; then
    envs+=("QB_HOST_CANTP=$cantp")
fi
if [ -n "${QB_REQUIRE_PYTHON:-}" ]; then
    [[ $QB_REQUIRE_PYTHON =~ ^[A-Za-z0-9]*$ ]] || die "QB_REQUIRE_PYTHON must be a word (e.g. 1)"
    envs+=("QB_REQUIRE_PYTHON=$QB_REQUIRE_PYTHON")
fi

if [ -z "$out" ]; then
    out=$(mktemp -d "${TMPDIR:-/tmp}/qbcantp-vm.XXXXXX")
    keep_out=
else
    mkdir -p "$out"
    out=$(cd "$out" && pwd)
    keep_out=1
fi
rm -f "$out"/{console.log,details.log,summary.txt,initramfs.cpio,guest.env}
# The checks' variables, sourced by the guest's /init (values checked above: nothing to quote).
for e in "${envs[@]}"; do
    echo "export ${e%%=*}='${e#*=}'"
done >"$out/guest.env"

now() { date +%s.%N; }
seconds_since() { awk -v a="$1" -v b="$(now)" 'BEGIN { printf "%.1f", b - a }'; }
t0=$(now)
load_before=$(cut -d' ' -f1-3 /proc/loadavg)

kernel=$("$here/fetch-kernel.sh")
t_fetch=$(seconds_since "$t0")

modules=(can_dev vcan can can_raw sch_tbf)
append="console=ttyS0 quiet panic=-1"
qemu_extra=()
if [ -n "$host_root" ]; then
    modules+=(virtio_pci 9pnet_virtio 9p)
    append+=" qbvm.hostroot=hostroot"
    # multidevs=remap: the host's root spans several file systems; 9p keeps their inode
    # numbers apart.
    qemu_extra+=(-virtfs "local,path=/,mount_tag=hostroot,security_model=none,readonly=on,multidevs=remap")
fi
[ -z "$only" ] || append+=" qbvm.only=$only"

t1=$(now)
build_args=(--kernel "$kernel" --guest "$guest" --out "$out/initramfs.cpio" --bin "$cantp"
    --env-file "$out/guest.env")
for b in "${bins[@]}"; do build_args+=(--bin "$b"); done
for m in "${modules[@]}"; do build_args+=(--module "$m"); done
"$here/build-initramfs.sh" "${build_args[@]}"
t_initramfs=$(seconds_since "$t1")

echo "run.sh: booting $(cat "$kernel/package") ($(cat "$kernel/release")) under qemu, software emulation, $smp processor(s)"
t2=$(now)
qemu_status=0
timeout -k 10 "$time_limit" qemu-system-x86_64 \
    -accel tcg -cpu max -m 512 -smp "$smp" \
    -nodefaults -no-user-config -display none -no-reboot \
    -kernel "$kernel/vmlinux" -initrd "$out/initramfs.cpio" -append "$append" \
    -serial "file:$out/console.log" -serial "file:$out/details.log" \
    "${qemu_extra[@]}" || qemu_status=$?
t_qemu=$(seconds_since "$t2")
rm -f "$out/initramfs.cpio" "$out/guest.env"
tr -d '\r' <"$out/console.log" >"$out/console.tmp" && mv "$out/console.tmp" "$out/console.log"
tr -d '\r' <"$out/details.log" >"$out/details.tmp" && mv "$out/details.tmp" "$out/details.log"

# The verdict: the end marker with status 0, at least one check, and no FAIL line.
start_line=$(grep -m1 '^QBVM-START ' "$out/console.log" || true)
end_line=$(grep -m1 '^QBVM-END ' "$out/console.log" || true)
checks=$(grep -c '^CHECK ' "$out/console.log" || true)
failures=$(grep -c '^CHECK [^ ]* FAIL' "$out/console.log" || true)
skipped=$(grep -c '^CHECK [^ ]* SKIP' "$out/console.log" || true)
verdict=0
{
    grep -E '^(CHECK|METRIC) ' "$out/console.log" || true
    boot=$(sed -n 's/.*uptime=\([0-9.]*\).*/\1/p' <<<"$start_line")
    guest_end=$(sed -n 's/.*uptime=\([0-9.]*\).*/\1/p' <<<"$end_line")
    echo "TIMING kernel-fetch ${t_fetch}s initramfs ${t_initramfs}s qemu ${t_qemu}s total $(seconds_since "$t0")s"
    echo "TIMING guest boot-to-init ${boot:-?}s checks-end ${guest_end:-?}s (guest uptime)"
    # The protocol's time-outs are real time and the guest is emulated: a host busy with other
    # work slows it down (see docs/socketcan.md, "What the emulation does to timing").
    echo "LOAD host load average before ${load_before}, after $(cut -d' ' -f1-3 /proc/loadavg), $(nproc) processors"
    if [ "$qemu_status" = 124 ] || [ "$qemu_status" = 137 ]; then
        echo "RESULT FAIL qemu stopped at the time limit of ${time_limit}s"
    fi
    if [ -z "$start_line" ]; then
        echo "RESULT FAIL the guest never started its checks (qemu status $qemu_status)"
        echo "--- end of the console:"
        tail -n 20 "$out/console.log"
    elif [ -z "$end_line" ]; then
        echo "RESULT FAIL the guest's end marker is missing (qemu status $qemu_status)"
        echo "--- end of the console:"
        tail -n 20 "$out/console.log"
    elif [ "$checks" = 0 ]; then
        echo "RESULT FAIL no check ran"
    elif [ "$failures" != 0 ] || ! grep -q ' status=0 ' <<<"$end_line"; then
        echo "RESULT FAIL $failures of $checks checks failed"
    else
        echo "RESULT PASS $((checks - skipped)) checks passed, $skipped skipped"
    fi
} >"$out/summary.txt"
cat "$out/summary.txt"
grep -q '^RESULT PASS' "$out/summary.txt" || verdict=1

if [ "$verdict" != 0 ]; then
    echo "run.sh: each check's output: $out/details.log"
    # The output of each check that failed, 60 lines at most each.
    awk '/^=== / { if (failed) printf "%s", text; text = ""; failed = 0; lines = 0 }
         /^CHECK [^ ]* FAIL/ { failed = 1 }
         { if (++lines <= 60) text = text $0 "\n" }
         END { if (failed) printf "%s", text }' "$out/details.log"
elif [ -z "$keep_out" ]; then
    rm -rf "$out"
fi
exit "$verdict"
