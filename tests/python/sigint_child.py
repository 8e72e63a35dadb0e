"""Child process of the Ctrl-C tests: blocks in one call of an endpoint, reports the moment
KeyboardInterrupt arrives.

Usage: sigint_child.py recv|send CHANNEL REPORT_FD
Writes "ready" to the descriptor REPORT_FD when it is about to block, then "interrupted
<CLOCK_MONOTONIC seconds>". Standard output is left to the endpoint's log lines, which its
thread may write at any moment.
"""

import sys
import time

import can

import qbcantp

mode, channel = sys.argv[1], sys.argv[2]
report = open(int(sys.argv[3]), "w")
bus = can.Bus(interface="virtual", channel=channel)
with qbcantp.Endpoint(bus, 0x7E0, [0x7E8]) as ep:
    print("ready", file=report, flush=True)
    try:
        if mode == "recv":
            ep.recv()
        else:
            ep.send(b"\x01\x02\x03")  # nobody answers: waits up to 5 s for the give-up
        print("returned", file=report, flush=True)
    except KeyboardInterrupt:
        print("interrupted %.6f" % time.clock_gettime(time.CLOCK_MONOTONIC), file=report,
              flush=True)
bus.shutdown()
