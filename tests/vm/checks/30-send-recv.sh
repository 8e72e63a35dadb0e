# cantp send to cantp recv over vcan0: payloads of 1, 7, 8, 100, 1000 and 4095 bytes (a single
# frame, the largest single frame, the smallest segmented payload, and up to the largest length
# the protocol carries), each acknowledged and delivered byte-exact, no frame lost.
# qbvm-time-limit: 180
. /lib/qbvm/qbvm.sh
. /lib/qbvm/transfer.sh
transfer_sizes
