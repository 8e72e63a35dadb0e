# transfer_sizes: 'cantp send' to 'cantp recv' over vcan0, one payload of each size in $SIZES,
# every byte compared, and the proxies' figures reported (sourced by the send-recv checks after
# qbvm.sh; a check sets up the interface, e.g. a queue discipline or other traffic, first).
#
# The sender is 0x7E0 (its peer 0x7E8), the receiver 0x7E8 (its peer 0x7E0). candump records the
# two identifiers (and its probes) with a large receive buffer and reports its own drops (-d), so
# that the frames on the bus can be counted against what the proxies say they sent.
#
# Results: NAME.payloads (every payload acknowledged and delivered byte-exact), NAME.frames (no
# frame lost: each side received every frame the other side's proxy sent, and the bus carried
# them), and metrics.

SIZES=${SIZES:-1 7 8 100 1000 4095}
# How the receiver ends: count (--count N: it exits 0 after N payloads) or signal (no --count: it
# runs until SIGTERM, sent once the N payloads are out, and exits 0).
RECV_END=${RECV_END:-count}

# frames_for SIZE: the frames the protocol needs for a payload of SIZE bytes: a single frame up to
# 7 bytes; else a first frame (6 bytes) and consecutive frames of 7.
frames_for() {
    if [ "$1" -le 7 ]; then echo 1; else echo $((1 + ($1 - 6 + 6) / 7)); fi
}

transfer_sizes() {
    local n=0 size rc start problems='' sent=0 received_by_sender=0 retries=0 enobufs=0 expected=0
    local count
    count=$(echo $SIZES | wc -w)
    start_candump dump.log vcan0,7E0:7FF,7E8:7FF,7FF:7FF -r 4194304 -d ||
        { fail "candump does not receive"; return 1; }
    local filters_before
    filters_before=$(can_filters 7E0)
    local count_option=
    [ "$RECV_END" = count ] && count_option="--count $count"
    cantp recv --can socketcan:vcan0 --id 0x7E8 --peer-id 0x7E0 $count_option --stats \
        >recv.out 2>recv.err &
    local recv_pid=$!
    if ! wait_can_filters 7E0 $((filters_before + 1)); then
        fail "cantp recv did not bind its socket: $(head -c 300 recv.err)"
        return 1
    fi
    local all_start
    all_start=$(uptime_s)
    for size in $SIZES; do
        n=$((n + 1))
        random_file "p$n.bin" "$size"
        start=$(uptime_s)
        cantp send --can socketcan:vcan0 --id 0x7E0 --peer-id 0x7E8 --stats "p$n.bin" \
            >"send$n.out" 2>"send$n.err"
        rc=$?
        metric "send.$size.seconds" "$(elapsed "$start")"
        note "send of $size bytes: exit $rc, $(grep '^stats ' "send$n.err")"
        [ "$rc" = 0 ] || tail -n 20 "send$n.err"
        [ "$rc" = 0 ] || problems="$problems send of $size bytes: exit $rc, $(grep -v '^stats ' "send$n.err" | tail -n 2 | tr '\n' ' ');"
        sent=$((sent + $(stat_of "send$n.err" sent)))
        received_by_sender=$((received_by_sender + $(stat_of "send$n.err" received)))
        retries=$((retries + $(stat_of "send$n.err" retries)))
        enobufs=$((enobufs + $(stat_of "send$n.err" enobufs)))
        expected=$((expected + $(frames_for "$size")))
    done
    metric seconds.all-sends "$(elapsed "$all_start")"
    if [ "$RECV_END" = signal ]; then
        wait_for 30 sh -c "[ \$(wc -l <recv.out) -ge $count ]"
        kill -TERM "$recv_pid"
    fi
    if ! wait_for 30 sh -c "! kill -0 $recv_pid 2>/dev/null"; then
        problems="$problems cantp recv still runs after $count payloads;"
        kill "$recv_pid"
    fi
    wait "$recv_pid"
    rc=$?
    [ "$rc" = 0 ] || problems="$problems cantp recv exit $rc: $(grep -v '^stats ' recv.err | tail -n 2 | tr '\n' ' ');"
    stop_candump dump.log
    note "receiver: $(grep '^stats ' recv.err)"

    # Payloads: line i of the receiver's output is payload i in hex.
    n=0
    local wrong=0
    for size in $SIZES; do
        n=$((n + 1))
        if [ "$(sed -n "${n}p" recv.out)" != "$(hexfile "p$n.bin")" ]; then
            wrong=$((wrong + 1))
            problems="$problems payload $n ($size bytes) not delivered byte-exact;"
        fi
    done
    [ "$(wc -l <recv.out)" = "$count" ] || problems="$problems $(wc -l <recv.out) payloads delivered, not $count;"
    if [ -z "$problems" ]; then
        result payloads PASS "$count payloads ($(echo $SIZES | tr ' ' ',') bytes) acknowledged and delivered byte-exact"
    else
        result payloads FAIL "$problems"
    fi

    # Frames: what each proxy sent, the other received; what the bus carried.
    local r_received r_sent r_drops r_enobufs r_retries on_bus_7e0 on_bus_7e8 candump_drops
    r_received=$(stat_of recv.err received)
    r_sent=$(stat_of recv.err sent)
    r_drops=$(stat_of recv.err drops)
    r_enobufs=$(stat_of recv.err enobufs)
    r_retries=$(stat_of recv.err retries)
    on_bus_7e0=$(frames_of dump.log | grep -c '^vcan0 7E0#')
    candump_drops=$(sed -n 's/.*total drops \([0-9]*\).*/\1/p' dump.log | tail -n 1)
    metric frames.sender-sent "$sent"
    metric frames.expected "$expected"
    # More frames than the payloads need: the endpoint tried a payload again after a time-out
    # (under emulation a loaded processor can delay an answer past the protocol's 1 s).
    metric frames.sent-again "$((sent - expected))"
    metric frames.receiver-received "${r_received:-?}"
    metric frames.receiver-sent "${r_sent:-?}"
    metric frames.sender-received "$received_by_sender"
    metric frames.candump-seen-7E0 "$on_bus_7e0"
    metric frames.candump-drops "${candump_drops:-0}"
    metric frames.receive-drops "${r_drops:-?}"
    metric back-pressure.sender-enobufs "$enobufs"
    metric back-pressure.sender-retries "$retries"
    metric back-pressure.receiver-enobufs "${r_enobufs:-?}"
    metric back-pressure.receiver-retries "${r_retries:-?}"
    ENOBUFS_TOTAL=$((enobufs + ${r_enobufs:-0}))
    # Frames lost towards the receiver: sent by the sender's proxies, not received by the
    # receiver's. (The way back is counted on the bus: a sender exits on the acknowledgement,
    # and its statistics may be taken before its proxy counted that last frame.)
    local lost=$((sent - ${r_received:-0}))
    metric frames.lost "$lost"
    # The pace of the last burst (the first frame of the last segmented payload and its
    # consecutive frames), from candump's receive times.
    metric burst.frames-per-second "$(frames_of_times dump.log | awk '
        $2 ~ /^7E0#1/ { start = $1; last = $1; n = 1; next }
        $2 ~ /^7E0#2/ && n { last = $1; n++ }
        END { if (n > 1 && last > start) printf "%d", (n - 1) / (last - start); else print "?" }')"
    problems=
    [ -n "$r_received" ] || problems="$problems no stats line from cantp recv;"
    [ "${r_received:-x}" = "$sent" ] || problems="$problems the receiver got ${r_received:-?} of the $sent frames sent to it;"
    on_bus_7e8=$(frames_of dump.log | grep -c '^vcan0 7E8#')
    [ "${r_sent:-x}" = "$on_bus_7e8" ] || problems="$problems the bus carried $on_bus_7e8 frames of 0x7E8, the receiver sent ${r_sent:-?};"
    [ "${r_drops:-x}" = 0 ] || problems="$problems the receiver's kernel dropped ${r_drops:-?} frames;"
    if [ -z "$candump_drops" ] || [ "$candump_drops" = 0 ]; then
        [ "$on_bus_7e0" = "$sent" ] || problems="$problems the bus carried $on_bus_7e0 frames of 0x7E0, the sender sent $sent;"
    fi
    if [ -z "$problems" ]; then
        result frames PASS "0 frames lost: $sent frames to the receiver ($expected needed), ${r_sent} back, as the proxies counted and candump saw"
    else
        result frames FAIL "$problems"
    fi
}
