# vcan0 taken down in the middle of a 4095-byte transfer (slowed by a tbf queue to a trickle, so
# that it still runs whatever the emulation's pace): both proxies stop with a clear error, the sender reports
# its time-out or disconnection and exits 1, the receiver exits 1, and neither spins while it
# waits (CPU time from /proc/PID/stat).
# qbvm-time-limit: 120
. /lib/qbvm/qbvm.sh

tc qdisc replace dev vcan0 root tbf rate 1kbit burst 1600 limit 200 ||
    { fail "cannot set up the tbf queue"; exit 1; }
filters_before=$(can_filters 7E0)
candump -L vcan0,7E0:7FF >dump.log 2>candump.err &
wait_can_filters 7E0 $((filters_before + 1)) || { fail "candump did not bind its socket"; exit 1; }
cantp recv --can socketcan:vcan0 --id 0x7E8 --peer-id 0x7E0 --count 1 --stats >recv.out \
    2>recv.err &
receiver=$!
wait_can_filters 7E0 $((filters_before + 2)) || { fail "cantp recv did not bind its socket"; exit 1; }

random_file big.bin 4095
# The trigger: a candump that exits after the first frame and 109 consecutive frames of 0x7E0, and
# the interface goes down at once. The queue (frames count 16 bytes) lets about 100 frames through
# at once and then about 8 a second, so the transfer is then a quarter done and its other frames
# wait in the queue and the sender's proxy. (The endpoint gives its peer 1 s to acknowledge and
# tries again meanwhile, five times in all: the interface goes down well before it gives up.)
candump -n 110 vcan0,7E0:7FF >trigger.log 2>&1 &
trigger=$!
wait_can_filters 7E0 $((filters_before + 3)) || { fail "the trigger candump did not bind its socket"; exit 1; }
cantp send --can socketcan:vcan0 --id 0x7E0 --peer-id 0x7E8 --stats big.bin >send.out \
    2>send.err &
sender=$!
if ! wait "$trigger"; then
    fail "the trigger candump failed: $(head -c 200 trigger.log)"
    exit 1
fi
s_start=$(cpu_ticks "$sender")
r_start=$(cpu_ticks "$receiver")
ip link set down vcan0
down=$(uptime_s)
on_bus=$(grep -c ' 7E0#2' dump.log)
metric consecutive-frames-before-down "$on_bus"
if [ -z "$s_start" ] || [ -z "$r_start" ]; then
    wait "$sender"
    s_rc=$?
    cat send.err recv.err
    fail "the transfer ended before the interface went down ($on_bus consecutive frames on the bus, sender exit $s_rc): the down came too late to test anything"
    exit 1
fi

# Follow both tools until they exit, sampling their CPU time (clock ticks of 10 ms) every 100 ms
# while they run: the last sample is their CPU time to within the last 100 ms.
s_last=$s_start r_last=$r_start s_end='' r_end='' s_exit='' r_exit=''
deadline=60
while :; do
    if [ -z "$s_end" ]; then
        if t=$(cpu_ticks "$sender" 2>/dev/null) && [ -n "$t" ] && alive "$sender"; then
            s_last=$t
        else
            s_end=$s_last
            s_exit=$(elapsed "$down")
        fi
    fi
    if [ -z "$r_end" ]; then
        if t=$(cpu_ticks "$receiver" 2>/dev/null) && [ -n "$t" ] && alive "$receiver"; then
            r_last=$t
        else
            r_end=$r_last
            r_exit=$(elapsed "$down")
        fi
    fi
    [ -n "$s_end" ] && [ -n "$r_end" ] && break
    if awk -v e="$(elapsed "$down")" -v d="$deadline" 'BEGIN { exit !(e > d) }'; then
        break
    fi
    usleep 100000
done
# threads PID: each thread of PID with its state and where it waits in the kernel (for the log).
threads() {
    local t
    for t in /proc/"$1"/task/*; do
        echo "thread ${t##*/}: $(cut -d' ' -f3 "$t/stat" 2>/dev/null) $(cat "$t/wchan" 2>/dev/null)"
    done
}
problems=
if [ -z "$s_end" ]; then
    threads "$sender"
    problems="$problems the sender still runs ${deadline} s after the interface went down (CPU $((s_last - s_start)) ticks);"
    kill "$sender"
fi
if [ -z "$r_end" ]; then
    threads "$receiver"
    problems="$problems the receiver still runs ${deadline} s after the interface went down (CPU $((r_last - r_start)) ticks);"
    kill "$receiver"
fi
wait "$sender"
s_rc=$?
wait "$receiver"
r_rc=$?
cat send.err recv.err

s_cpu=$(( ${s_end:-0} - s_start ))
r_cpu=$(( ${r_end:-0} - r_start ))
metric sender.seconds-to-exit "${s_exit:-?}"
metric sender.cpu-ticks-after-down "$s_cpu"
metric receiver.seconds-to-exit "${r_exit:-?}"
metric receiver.cpu-ticks-after-down "$r_cpu"
# cpu_share TICKS SECONDS: percent of one processor.
cpu_share() { awk -v t="$1" -v s="$2" 'BEGIN { if (s > 0) printf "%.1f", t / s; else print 0 }'; }
metric sender.cpu-percent-after-down "$(cpu_share "$s_cpu" "${s_exit:-1}")"
metric receiver.cpu-percent-after-down "$(cpu_share "$r_cpu" "${r_exit:-1}")"

status_line=$(grep -E '^cantp send: (CTT_SEND_TIMEOUT|CTT_DISCONNECTED)$' send.err)
[ "$s_rc" = 1 ] || problems="$problems sender exit status $s_rc, not 1;"
[ -n "$status_line" ] || problems="$problems the sender reported no CTT_SEND_TIMEOUT or CTT_DISCONNECTED;"
grep -q 'interface vcan0 is down or gone' send.err ||
    problems="$problems no clear error about vcan0 from the sender;"
[ "$r_rc" = 1 ] || problems="$problems receiver exit status $r_rc, not 1;"
grep -q 'vcan0 is down or gone' recv.err ||
    problems="$problems no clear error about vcan0 from the receiver;"
[ -s recv.out ] && problems="$problems the receiver delivered a payload that was cut off;"
# Waiting is sleeping: a spinning tool would use close to 100 % of a processor.
[ -n "$s_exit" ] && [ "$s_cpu" -gt "$(awk -v s="$s_exit" 'BEGIN { printf "%d", s * 100 * 0.25 + 5 }')" ] &&
    problems="$problems the sender used $s_cpu ticks of CPU in ${s_exit} s after the interface went down;"
[ -n "$r_exit" ] && [ "$r_cpu" -gt "$(awk -v s="$r_exit" 'BEGIN { printf "%d", s * 100 * 0.25 + 5 }')" ] &&
    problems="$problems the receiver used $r_cpu ticks of CPU in ${r_exit} s after the interface went down;"

if [ -z "$problems" ]; then
    pass "down after $on_bus consecutive frames: sender '${status_line}' exit 1 after ${s_exit} s (${s_cpu} CPU ticks), receiver exit 1 after ${r_exit} s (${r_cpu} ticks), both with a clear error"
else
    fail "$problems"
fi
