# The same transfers (the receiver running until SIGTERM) while cangen floods vcan0 with frames of
# another identifier (0x123, 8 bytes, back to back): the proxies' receive filters keep them out,
# and nothing of the transfers is lost.
# qbvm-time-limit: 240
. /lib/qbvm/qbvm.sh
RECV_END=signal
. /lib/qbvm/transfer.sh
before=$(tx_packets)
cangen vcan0 -I 123 -L 8 -D i -g 0 >cangen.log 2>&1 &
flood=$!
wait_for 10 sh -c "[ \$(cat /sys/class/net/vcan0/statistics/tx_packets) -gt $((before + 100)) ]" ||
    { fail "cangen does not flood vcan0: $(head -c 200 cangen.log)"; exit 1; }
start=$(uptime_s)
transfer_sizes
seconds=$(elapsed "$start")
alive "$flood" && flooding=yes || flooding=no
kill "$flood" 2>/dev/null
wait "$flood" 2>/dev/null
carried=$(( $(tx_packets) - before ))
metric flood.frames-on-vcan0 "$carried"
metric flood.frames-per-second "$(awk -v n="$carried" -v s="$seconds" 'BEGIN { printf "%d", n / s }')"
if [ "$flooding" = yes ]; then
    result flood PASS "cangen flooded vcan0 throughout: $carried frames in ${seconds} s"
else
    result flood FAIL "cangen stopped before the transfers ended: $(head -c 200 cangen.log)"
fi
