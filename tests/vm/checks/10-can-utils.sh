# can-utils on vcan0: frames sent with cansend are captured by candump -L exactly, standard and
# extended identifiers, 0 to 8 data bytes. Proves the kernel's CAN stack, vcan and the tools that
# the other checks compare against.
. /lib/qbvm/qbvm.sh

start_candump dump.log || { fail "candump does not receive"; exit 1; }
cansend vcan0 123#DEADBEEF
cansend vcan0 1ABCDEF0#0102030405060708
cansend vcan0 7E0#
cansend vcan0 000#00
stop_candump dump.log

cat >expected <<'END'
vcan0 123#DEADBEEF
vcan0 1ABCDEF0#0102030405060708
vcan0 7E0#
vcan0 000#00
END
frames_of dump.log >actual
if cmp -s expected actual; then
    pass "4 frames sent with cansend, captured by candump -L exactly"
else
    fail "candump -L captured: $(tr '\n' ';' <actual)"
fi
