# cantp demo over vcan0: the demo's two endpoints, each with its own socket and proxy, exchange
# 200 payloads of random sizes (100 requests of 1 to 4095 bytes, each answered), every byte
# verified.
# qbvm-time-limit: 400
. /lib/qbvm/qbvm.sh

start=$(uptime_s)
cantp demo --bus socketcan:vcan0 --payloads 100 --seed 7 >demo.out 2>demo.err
rc=$?
metric run-seconds "$(elapsed "$start")"
cat demo.out
summary=$(grep '^payloads ' demo.out)
verdict=$(grep '^result ' demo.out)
metric goodput-bytes-per-second "$(sed -n 's/^goodput *\([0-9]*\) B\/s.*/\1/p' demo.out)"
# Each node's frames sent must be the other's frames received: none lost on vcan0.
a_sent=$(sed -n 's/^ *node 0x7E0: \([0-9,]*\) frames sent, \([0-9,]*\) received.*/\1/p' demo.out | tr -d ,)
a_recv=$(sed -n 's/^ *node 0x7E0: \([0-9,]*\) frames sent, \([0-9,]*\) received.*/\2/p' demo.out | tr -d ,)
b_sent=$(sed -n 's/^ *node 0x7E8: \([0-9,]*\) frames sent, \([0-9,]*\) received.*/\1/p' demo.out | tr -d ,)
b_recv=$(sed -n 's/^ *node 0x7E8: \([0-9,]*\) frames sent, \([0-9,]*\) received.*/\2/p' demo.out | tr -d ,)
metric frames.7E0-sent "${a_sent:-?}"
metric frames.7E8-sent "${b_sent:-?}"
frames_ok=no
[ -n "$a_sent" ] && [ "$a_sent" = "$b_recv" ] && [ "$b_sent" = "$a_recv" ] && frames_ok=yes
if [ "$rc" = 0 ] &&
    echo "$summary" | grep -q 'sent 200, delivered 200, verified 200, failed 0, delivered wrong 0, delivered twice 0' &&
    [ "$verdict" = "result    every payload verified" ] && [ "$frames_ok" = yes ]; then
    pass "exit 0; $summary; $verdict; frames 0x7E0 $a_sent, 0x7E8 $b_sent, each received whole by the other"
else
    fail "exit $rc; ${summary:-no payloads line}; ${verdict:-no result line}; frames 0x7E0 sent ${a_sent:-?} received ${a_recv:-?}, 0x7E8 sent ${b_sent:-?} received ${b_recv:-?}; $(tail -n 3 demo.err | tr '\n' ' ')"
fi
