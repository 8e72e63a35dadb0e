# The Python module qbcantp on vcan0, run by the host's /usr/bin/python3 (with the host's
# python3-can and pytest and the module from the build tree) in 'chroot /host', the host's root
# file system shared read-only by scripts/vm/run.sh --host-root; there every host path holds.
#
# pytest: tests/python/test_socketcan.py with QB_VCAN=vcan0 and QB_CANTP the cantp tool under
# test: payloads of 1, 7, 8, 100 and 4095 bytes from the module to 'cantp recv' and from
# 'cantp send' to the module, byte-exact; the module's frames as candump -L records them, equal
# to the frames the protocol cuts each payload into; each through Endpoint.socketcan() (the C++
# SocketCAN proxy) and through Endpoint() on python-can's socketcan bus (the Python bridge).
# Every test must run and pass (none skipped).
#
# timing: through the 500 kbit/s token-bucket queue of check 31, on vcan0 for this part only,
# 4095-byte payloads sent by 'cantp send', by Endpoint.socketcan() and by the bridge, five each,
# to one 'cantp recv' (tests/python/socketcan_timing.py): the time from each payload's first
# frame to its last consecutive frame, from candump's time stamps, as metrics (medians and the
# ratios to 'cantp send'). Only the delivery is judged (every payload byte-exact, its frames the
# protocol's), never the times.
#
# Needs from the host (the variables come from run.sh: --host-root sets QB_HOST_CANTP, the CTest
# test passes --env QB_PYTHONPATH=<build>/python and --env QB_PYTHON_TESTS=<source>/tests/python
# when the module is built): /usr/bin/python3 with python3-can and python3-pytest, can-utils.
# Without them the check says SKIP with the reason, or FAIL where QB_REQUIRE_PYTHON=1 (.ci/run's
# vm stage, which installs and builds them).
# qbvm-time-limit: 600
. /lib/qbvm/qbvm.sh

# cannot_run REASON: the check cannot run here.
cannot_run() {
    if [ "${QB_REQUIRE_PYTHON:-0}" = 1 ]; then
        fail "$* (QB_REQUIRE_PYTHON=1: the Python checks must run)"
    else
        skip "$*"
    fi
    exit 0
}

[ -d /host/usr/bin ] || cannot_run "no host root at /host (scripts/vm/run.sh --host-root)"
[ -n "${QB_PYTHONPATH:-}" ] && [ -n "${QB_PYTHON_TESTS:-}" ] ||
    cannot_run "the Python module is not built (QB_BUILD_PYTHON is off)"
ls /host"$QB_PYTHONPATH"/qbcantp/_qbcantp*.so >/dev/null 2>&1 ||
    cannot_run "no compiled module in $QB_PYTHONPATH/qbcantp (build the target _qbcantp)"
[ -n "${QB_HOST_CANTP:-}" ] && [ -x /host"$QB_HOST_CANTP" ] ||
    cannot_run "the cantp tool is not at its host path '${QB_HOST_CANTP:-}'"
[ -x /host/usr/bin/python3 ] || cannot_run "the host has no /usr/bin/python3"
for p in candump cansend; do
    [ -x /host/usr/bin/$p ] || cannot_run "the host has no $p (install can-utils)"
done

# on_host DIR COMMAND...: COMMAND in the host's root file system, in DIR, with the module on
# the Python path and a clean environment.
on_host() {
    local dir=$1
    shift
    chroot /host /usr/bin/env -i -C "$dir" PATH=/usr/bin:/bin:/usr/sbin:/sbin \
        HOME=/dev/shm TMPDIR=/dev/shm \
        LC_ALL=C.UTF-8 PYTHONPATH="$QB_PYTHONPATH" PYTHONDONTWRITEBYTECODE=1 \
        QB_VCAN=vcan0 QB_CANTP="$QB_HOST_CANTP" "$@"
}

missing=$(on_host / /usr/bin/python3 -c '
import importlib.util
print(" ".join(p for m, p in (("can", "python3-can"), ("pytest", "python3-pytest"))
               if importlib.util.find_spec(m) is None))' 2>&1) ||
    cannot_run "the host's /usr/bin/python3 does not run: $(echo "$missing" | tail -n 2 | tr '\n' ' ')"
[ -z "$missing" ] || cannot_run "the host's /usr/bin/python3 lacks $missing (apt-get install $missing)"
on_host / /usr/bin/python3 -c 'import qbcantp' >import.log 2>&1 ||
    cannot_run "the module does not import: $(tail -n 2 import.log | tr '\n' ' ')"

# pytest: every test of test_socketcan.py, none skipped.
start=$(uptime_s)
on_host "$QB_PYTHON_TESTS" /usr/bin/python3 -m pytest -q -rs -p no:cacheprovider \
    test_socketcan.py >pytest.log 2>&1
rc=$?
metric pytest.seconds "$(elapsed "$start")"
cat pytest.log
summary=$(grep -E '^=* *[0-9]+ (passed|failed|error)' pytest.log | tail -n 1 | tr -d '=' |
    sed 's/^ *//; s/ *$//')
failed_tests=$(sed -n 's/^\(FAILED\|ERROR\) \([^ ]*\).*/\2/p' pytest.log | head -n 5 | tr '\n' ' ')
skipped=$(echo "$summary" | sed -n 's/.* \([0-9][0-9]*\) skipped.*/\1/p')
passed=$(echo "$summary" | sed -n 's/^\([0-9][0-9]*\) passed.*/\1/p')
metric pytest.passed "${passed:-0}"
if [ "$rc" != 0 ]; then
    result pytest FAIL "test_socketcan.py: exit $rc, ${summary:-no summary}: $failed_tests"
elif [ -n "$skipped" ]; then
    reasons=$(grep '^SKIPPED' pytest.log | head -n 2 | tr '\n' ' ')
    result pytest FAIL "test_socketcan.py: $skipped tests skipped, all must run here: $reasons"
elif [ -z "$passed" ]; then
    result pytest FAIL "test_socketcan.py: no test passed (${summary:-no summary})"
else
    result pytest PASS "test_socketcan.py: $summary (the module on vcan0 through" \
        "Endpoint.socketcan and python-can's socketcan bus, against cantp send/recv and candump)"
fi

# timing: the three senders through the 500 kbit/s queue; the queue only for this part.
fresh_vcan0() {
    ip link del vcan0 2>/dev/null
    ip link add dev vcan0 type vcan && ip link set up vcan0
}
fresh_vcan0 || { result timing FAIL "cannot set up vcan0 again"; exit 1; }
tc qdisc replace dev vcan0 root tbf rate 500kbit burst 1600 limit 200 ||
    { result timing FAIL "cannot set up the tbf queue"; exit 1; }
start=$(uptime_s)
on_host / /usr/bin/python3 "$QB_PYTHON_TESTS/socketcan_timing.py" --channel vcan0 \
    --cantp "$QB_HOST_CANTP" --rounds 5 --size 4095 >timing.log 2>&1
rc=$?
metric timing.seconds "$(elapsed "$start")"
refused=$(qdisc_dropped)
tc qdisc del dev vcan0 root || note "the tbf queue could not be removed"
cat timing.log
sed -n 's/^metric \([^ ]*\) \([^ ]*\)$/\1 \2/p' timing.log | while read -r key value; do
    metric "timing.$key" "$value"
done
metric timing.queue-refused "${refused:-?}"
median() { sed -n "s/^metric first-to-last\.$1\.median-ms //p" timing.log; }
ratio() { sed -n "s/^metric ratio\.$1-to-cantp-send //p" timing.log; }
if [ "$rc" = 0 ]; then
    result timing PASS "15 payloads of 4095 bytes through the 500 kbit/s queue, each" \
        "byte-exact and cut as the protocol says; median first-to-last frame:" \
        "cantp send $(median cantp-send) ms, Endpoint.socketcan $(median socketcan) ms" \
        "(x$(ratio socketcan)), python-can bridge $(median python-can) ms" \
        "(x$(ratio python-can)) (measured, not judged)"
else
    problems=$(grep '^problem ' timing.log | head -n 3 | cut -c 9- | tr '\n' ';')
    result timing FAIL "exit $rc: $problems $(grep -v '^problem \|^metric ' timing.log |
        tail -n 3 | tr '\n' ' ')"
fi
