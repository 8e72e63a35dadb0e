# cantp dump --pcap on vcan0 beside can-utils' own candump: payloads of 5, 100 and 4095 bytes sent
# with cantp send to cantp recv, a consecutive frame out of place and a frame of another
# identifier injected with cansend. The dump's transport view equals what 'cantp decode' makes of
# candump's record of the same identifiers, line for line and time stamps included; it shows each
# payload byte-exact; its capture, turned back into candump lines with 'cantp convert', equals
# candump's record. A capture that cannot be written ends the dump with exit 1 and a clear error.
# qbvm-time-limit: 120
. /lib/qbvm/qbvm.sh

SIZES="5 100 4095"

start_candump dump.log vcan0,7E0:7FF,7E8:7FF,7FF:7FF,123:7FF -r 4194304 ||
    { fail "candump does not receive"; exit 1; }
filters_before=$(can_filters 7E0)
cantp dump --can socketcan:vcan0 --id 0x7E0 --id 0x7E8 --pcap live.pcap >view.txt 2>view.err &
dump_pid=$!
if ! wait_can_filters 7E0 $((filters_before + 1)); then
    fail "cantp dump did not bind its socket: $(head -c 300 view.err)"
    exit 1
fi
cantp recv --can socketcan:vcan0 --id 0x7E8 --peer-id 0x7E0 --count 3 >recv.out 2>recv.err &
recv_pid=$!
if ! wait_can_filters 7E0 $((filters_before + 2)); then
    fail "cantp recv did not bind its socket: $(head -c 300 recv.err)"
    exit 1
fi
problems=''
n=0
for size in $SIZES; do
    n=$((n + 1))
    random_file "p$n.bin" "$size"
    cantp send --can socketcan:vcan0 --id 0x7E0 --peer-id 0x7E8 "p$n.bin" >"send$n.out" \
        2>"send$n.err" || problems="$problems send of $size bytes failed: $(tail -n 1 "send$n.err");"
done
wait_for 30 sh -c "! kill -0 $recv_pid 2>/dev/null" || { problems="$problems cantp recv still runs;"; kill "$recv_pid"; }
wait "$recv_pid" || problems="$problems cantp recv failed: $(tail -n 1 recv.err);"
# Frames the dump must name: a consecutive frame with no transfer open, and a frame of an
# identifier it was not asked for (candump records it; the dump and its capture must not).
cansend vcan0 7E0#21AABB
cansend vcan0 123#0102
stop_candump dump.log
# Everything candump saw before its end probe has reached the dump's socket too.
wait_for 10 grep -q '^error vcan0 7E0: consecutive frame out of place' view.txt ||
    problems="$problems the dump did not show the injected frame;"
kill -INT "$dump_pid"
wait "$dump_pid"
rc=$?
[ "$rc" = 0 ] || problems="$problems cantp dump exit $rc: $(tail -n 2 view.err | tr '\n' ' ');"
[ -s view.err ] && note "dump's standard error: $(head -c 300 view.err)"

# The view: the decoder over candump's record of the two identifiers.
grep -E ' (7E0|7E8)#' dump.log >candump-7e0-7e8.log
cantp decode candump-7e0-7e8.log >decoded.txt 2>decode.err
if cmp -s decoded.txt view.txt; then
    result view PASS "$(wc -l <view.txt) lines, equal to 'cantp decode' of candump's record ($(wc -l <candump-7e0-7e8.log) frames)"
else
    result view FAIL "differs from 'cantp decode' of candump's record: $(diff decoded.txt view.txt | head -n 6 | tr '\n' ';')"
fi

# The payloads, in the order sent.
n=0
wrong=''
for size in $SIZES; do
    n=$((n + 1))
    line=$(grep '^payload ' view.txt | sed -n "${n}p")
    [ "$line" = "payload vcan0 7E0 len=$size $(hexfile "p$n.bin")" ] || wrong="$wrong $size"
done
if [ -z "$wrong" ] && [ "$(grep -c '^payload ' view.txt)" = 3 ]; then
    result payloads PASS "5, 100 and 4095 bytes shown byte-exact"
else
    result payloads FAIL "wrong or missing:$wrong; $(grep -c '^payload ' view.txt) payload lines"
fi

# The capture: candump lines again, equal to candump's record of the same identifiers.
if cantp convert --iface vcan0 live.pcap live.log 2>convert.err && cmp -s candump-7e0-7e8.log live.log; then
    result capture PASS "$(wc -l <live.log) frames, equal to candump's record, time stamps included"
else
    result capture FAIL "$(head -c 200 convert.err) $(diff candump-7e0-7e8.log live.log | head -n 6 | tr '\n' ';')"
fi

# A capture that cannot be written: /dev/full takes the file header into the stream's buffer
# and fails the first write through.
filters_before=$(can_filters 7E0)
cantp dump --can socketcan:vcan0 --id 0x7E0 --pcap /dev/full >full.out 2>full.err &
full_pid=$!
if wait_can_filters 7E0 $((filters_before + 1)); then
    cansend vcan0 7E0#0211
    if wait_for 10 sh -c "! kill -0 $full_pid 2>/dev/null"; then
        wait "$full_pid"
        rc=$?
        if [ "$rc" = 1 ] && grep -q '^cantp dump: error: writing /dev/full failed after ' full.err; then
            result full-disk PASS "exit 1: $(grep '^cantp dump: error: writing' full.err)"
        else
            result full-disk FAIL "exit $rc: $(head -c 200 full.err)"
        fi
    else
        kill "$full_pid"
        result full-disk FAIL "the dump went on with a capture it could not write"
    fi
else
    kill "$full_pid"
    result full-disk FAIL "cantp dump did not bind its socket: $(head -c 300 full.err)"
fi

if [ -n "$problems" ]; then
    fail "$problems"
else
    pass "the transfers ran: 3 payloads sent and received"
fi
