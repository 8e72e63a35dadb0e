# cantp endpoint on vcan0 against can-utils' own programs: every frame the endpoint sends is
# captured by candump -L byte-exact (and printed by the endpoint with the interface's name), and
# frames injected with cansend are answered as the protocol says: a peer's single frame is
# acknowledged with 0x33 and delivered, a peer's first frame answered with 0x31 (ready to
# receive) and, once its consecutive frames arrived, delivered and acknowledged; a frame of an
# identifier that is not the peer's is not taken.
# qbvm-time-limit: 120
. /lib/qbvm/qbvm.sh

start_candump dump.log || { fail "candump does not receive"; exit 1; }
filters_before=$(can_filters 7E8)
mkfifo commands
cantp endpoint --can socketcan:vcan0 --id 0x7E0 --peer-id 0x7E8 <commands >endpoint.out \
    2>endpoint.err &
endpoint=$!
exec 4>commands
if ! wait_can_filters 7E8 $((filters_before + 1)); then
    fail "cantp endpoint did not bind its socket: $(head -c 300 endpoint.err)"
    exit 1
fi

problems=
# expect_frame FRAME: wait until candump has captured FRAME (ID#DATA) N times in all, where N
# counts the expectations of FRAME so far.
expect_frame() {
    echo "$1" >>expectations
    want=$(grep -cx "$1" expectations)
    wait_for 10 sh -c "[ \$(grep -c ' $1\$' dump.log) -ge $want ]" ||
        problems="$problems no $1 after: $2;"
}
# expect_line PATTERN WHAT: wait until the endpoint printed a line matching PATTERN.
expect_line() {
    wait_for 10 grep -q "$1" endpoint.out || problems="$problems $2;"
}

# The endpoint gives its peer 1 s to answer, and a shell that polls a file is slow under emulation:
# each answer below is sent the moment a candump armed beforehand (arm N: exits after N frames of
# 0x7E0) has seen the frames it answers (fire: waits for that candump).
arm() {
    local before
    before=$(can_filters 7E0)
    candump -n "$1" vcan0,7E0:7FF >/dev/null 2>&1 &
    ARMED=$!
    wait_can_filters 7E0 $((before + 1)) || problems="$problems a trigger candump did not start;"
}
fire() { wait "$ARMED" || problems="$problems a trigger candump failed;"; }

# A payload of 3 bytes from the endpoint: one single frame; the peer acknowledges.
arm 1
echo "send 112233" >&4
fire
cansend vcan0 7E8#3300000000000000
expect_frame 7E0#0311223300000000 "send 112233"
expect_line '^status CTT_ACKNOWLEDGED' "no acknowledgement reported for the single frame sent"

# A payload of 20 bytes: first frame, the peer's 0x31, two consecutive frames, the peer's 0x33.
arm 1
first=$ARMED
arm 3
all=$ARMED
echo "send 000102030405060708090A0B0C0D0E0F10111213" >&4
ARMED=$first fire
cansend vcan0 7E8#3100000000000000
ARMED=$all fire
cansend vcan0 7E8#3300000000000000
expect_frame 7E0#210D0E0F10111213 "flow control 0x31"
wait_for 10 sh -c "[ \$(grep -c '^status CTT_ACKNOWLEDGED' endpoint.out) -ge 2 ]" ||
    problems="$problems no acknowledgement reported for the 20 bytes sent;"

# A single frame of another identifier: filtered out, neither answered nor delivered.
cansend vcan0 123#03DDEEFF00000000
# The peer's single frame: acknowledged with 0x33, delivered.
cansend vcan0 7E8#03AABBCC00000000
expect_frame 7E0#3300000000000000 "the peer's single frame"
expect_line '^recv 7E8 AABBCC$' "the peer's single frame was not delivered"

# The peer's first frame: answered with 0x31; its consecutive frames: delivered, acknowledged.
arm 1
cansend vcan0 7E8#1014000102030405
fire
cansend vcan0 7E8#20060708090A0B0C
cansend vcan0 7E8#210D0E0F10111213
expect_frame 7E0#3100000000000000 "the peer's first frame"
expect_frame 7E0#3300000000000000 "the peer's consecutive frames"
expect_line '^recv 7E8 000102030405060708090A0B0C0D0E0F10111213$' \
    "the peer's 20 bytes were not delivered"

# End of input: the endpoint stops once its queue is empty.
exec 4>&-
wait_for 10 sh -c "! kill -0 $endpoint 2>/dev/null" || problems="$problems the endpoint did not stop at end of input;"
wait "$endpoint"
rc=$?
[ "$rc" = 0 ] || problems="$problems endpoint exit status $rc;"
stop_candump dump.log

cat >expected <<'END'
vcan0 7E0#0311223300000000
vcan0 7E8#3300000000000000
vcan0 7E0#1014000102030405
vcan0 7E8#3100000000000000
vcan0 7E0#20060708090A0B0C
vcan0 7E0#210D0E0F10111213
vcan0 7E8#3300000000000000
vcan0 123#03DDEEFF00000000
vcan0 7E8#03AABBCC00000000
vcan0 7E0#3300000000000000
vcan0 7E8#1014000102030405
vcan0 7E0#3100000000000000
vcan0 7E8#20060708090A0B0C
vcan0 7E8#210D0E0F10111213
vcan0 7E0#3300000000000000
END
frames_of dump.log >bus
if cmp -s expected bus; then
    result candump PASS "the 15 frames on vcan0 (7 sent by the endpoint, 8 by cansend) captured by candump -L byte-exact"
else
    result candump FAIL "candump -L captured: $(tr '\n' ';' <bus)"
fi

# The endpoint's own frame lines: '(SEC.USEC) vcan0 ID#DATA', the frames candump saw from 0x7E0.
grep '^([0-9]*\.[0-9]\{6\}) vcan0 [0-9A-F]*#' endpoint.out | cut -d' ' -f2- >printed
grep ' 7E0#' expected >expected.7e0
if cmp -s expected.7e0 printed; then
    result printed PASS "the endpoint printed its 7 frames as '(SEC.USEC) vcan0 ID#DATA', as candump saw them"
else
    result printed FAIL "the endpoint printed: $(tr '\n' ';' <printed)"
fi

if grep -q '^recv 123\|DDEEFF' endpoint.out; then
    problems="$problems the frame of 0x123 reached the endpoint;"
fi
if [ -z "$problems" ]; then
    result answers PASS "single frame acknowledged with 0x33 and delivered, first frame answered with 0x31 and delivered, 0x123 not taken, both payloads sent acknowledged"
else
    result answers FAIL "$problems"
fi
