"""Child process of the Ctrl-C tests: blocks in one call of an endpoint, reports the moment
KeyboardInterrupt arrives.

Usage: sigint_child.py recv|send CHANNEL
Prints "ready" when it is about to block, then "interrupted <CLOCK_MONOTONIC seconds>".
"""

import sys
import time

import can

import qbcantp

mode, channel = sys.argv[1], sys.argv[2]
bus = can.Bus(interface="virtual", channel=channel)
with qbcantp.Endpoint(bus, 0x7E0, [0x7E8]) as ep:
    print("ready", flush=True)
    try:
        if mode == "recv":
            ep.recv()
        else:
            ep.send(b"\x01\x02\x03")  # nobody answers: waits up to 5 s for the give-up
        print("returned", flush=True)
    except KeyboardInterrupt:
        print("interrupted %.6f" % time.clock_gettime(time.CLOCK_MONOTONIC), flush=True)
bus.shutdown()
