"""Helpers for the module's SocketCAN tests and the timing script (socketcan_timing.py): the
frames the protocol cuts a payload into, the receive filters bound on an interface, and
can-utils' candump recording an interface.
"""

import subprocess
import time

#: The receive buffer the module gives a python-can socketcan bus: what the cantp tool's
#: SocketCAN proxy asks for by default (cantp recv --rcvbuf).
RECEIVE_BUFFER_BYTES = 1 << 20


def frame(can_id, data):
    """A frame in candump -L's form, ID#DATA, its data padded to 8 bytes with 00."""
    data = bytes(data)
    return "%03X#%s" % (can_id, (data + bytes(8 - len(data))).hex().upper())


def protocol_frames(can_id, payload):
    """The frames the protocol cuts `payload` into (docs/protocol.md): a single frame up to 7
    bytes, else a first frame with the 12-bit length and the first 6 bytes, then consecutive
    frames of 7 bytes with sequence numbers 0, 1, ..., 15, 0, ..."""
    n = len(payload)
    if n <= 7:
        return [frame(can_id, bytes([n]) + payload)]
    frames = [frame(can_id, bytes([0x10 | n >> 8, n & 0xFF]) + payload[:6])]
    for i, start in enumerate(range(6, n, 7)):
        frames.append(frame(can_id, bytes([0x20 | i % 16]) + payload[start:start + 7]))
    return frames


def answer_frames(can_id, payload):
    """The receiver's flow control for `payload`: ready to receive (0x31) after a first frame,
    and the acknowledgement (0x33) of the whole payload."""
    ack = frame(can_id, b"\x33")
    return [ack] if len(payload) <= 7 else [frame(can_id, b"\x31"), ack]


def python_can_bus(channel):
    """python-can's socketcan bus on `channel`, as a user makes it: with the kernel's default
    receive buffer. The module enlarges it to 1 MiB when an endpoint attaches (python-can's
    default holds about 300 CAN frames, a 4095-byte payload is 586 sent in one burst), and
    test_python_can_bus_gets_a_receive_buffer_of_1_mib checks that it does."""
    import can

    return can.Bus(interface="socketcan", channel=channel)


def can_filters(channel, can_id):
    """How many CAN_RAW sockets on `channel` have a receive filter for the standard identifier
    `can_id`, from /proc/net/can/rcvlist_fil: a tool has bound its socket once its filter
    shows there."""
    n = 0
    with open("/proc/net/can/rcvlist_fil") as f:
        for line in f:
            fields = line.split()
            if len(fields) > 2 and fields[0] == channel:
                try:
                    n += int(fields[1], 16) == can_id
                except ValueError:
                    pass  # a heading
    return n


def wait_for(condition, timeout, what):
    """Calls condition() every 20 ms until it is true; raises AssertionError("WHAT within
    TIMEOUT s") once `timeout` seconds have passed."""
    deadline = time.monotonic() + timeout
    while not condition():
        if time.monotonic() >= deadline:
            raise AssertionError("%s within %.0f s" % (what, timeout))
        time.sleep(0.02)


class Candump:
    """`candump -L` on `channel` for the standard identifiers `ids` and the probes (0x7FF), into
    the file `path`. It counts as started once a probe frame (7FF#CAFE) sent with cansend shows
    in the file, and as complete once the end probe (7FF#CAFF), sent after everything else,
    shows: candump writes every frame out as it receives it."""

    def __init__(self, path, channel, ids):
        self.path = path
        self.channel = channel
        self.out = open(path, "w")
        what = ",".join([channel] + ["%03X:7FF" % i for i in ids] + ["7FF:7FF"])
        # A large receive buffer: a burst of 586 frames is recorded whole.
        self.process = subprocess.Popen(["candump", "-L", "-r", "4194304", what],
                                        stdout=self.out, stderr=subprocess.DEVNULL)
        try:
            wait_for(lambda: self._probe("7FF#CAFE"), 10, "candump did not record its probe")
        except BaseException:
            self.close()
            raise

    def _probe(self, probe):
        subprocess.run(["cansend", self.channel, probe], check=True)
        time.sleep(0.02)
        return self._seen(probe)

    def _seen(self, probe):
        with open(self.path) as f:
            return any(line.split()[-1:] == [probe] for line in f)

    def stop(self):
        """Sends the end probe, waits until candump has recorded it, stops candump and returns
        the frames it recorded as (time stamp in seconds, "ID#DATA"), without the probes."""
        subprocess.run(["cansend", self.channel, "7FF#CAFF"], check=True)
        wait_for(lambda: self._seen("7FF#CAFF"), 10, "candump did not record the end probe")
        self.close()
        frames = []
        with open(self.path) as f:
            for line in f:
                fields = line.split()
                if len(fields) == 3 and not fields[2].startswith("7FF#"):
                    frames.append((float(fields[0].strip("()")), fields[2]))
        return frames

    def close(self):
        if self.process.poll() is None:
            self.process.terminate()
        self.process.wait()
        self.out.close()
