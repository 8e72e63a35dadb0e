"""Shared fixtures of the Python tests: python-can virtual buses and endpoints on them.

Every test gets its own virtual channel, so tests never see each other's frames. Waits are
deadlines, never bare sleeps.
"""

import itertools
import os
import time

import can
import pytest

import qbcantp

_channels = itertools.count()

#: The identifiers of the two endpoints of most tests.
A_ID = 0x7E0
B_ID = 0x7E8


def wait_until(condition, timeout=5.0):
    """Calls condition() until it is true or `timeout` seconds have passed; returns its last
    result."""
    deadline = time.monotonic() + timeout
    while True:
        if condition():
            return True
        if time.monotonic() >= deadline:
            return condition()
        time.sleep(0.001)


def open_fds():
    return len(os.listdir("/proc/self/fd"))


def rss_bytes():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


@pytest.fixture
def channel():
    return f"qbcantp-test-{os.getpid()}-{next(_channels)}"


@pytest.fixture
def make_bus(channel):
    """make_bus(): a new virtual bus on this test's channel; all are shut down afterwards."""
    buses = []

    def make():
        bus = can.Bus(interface="virtual", channel=channel)
        buses.append(bus)
        return bus

    yield make
    for bus in buses:
        bus.shutdown()


@pytest.fixture
def pair(make_bus):
    """Endpoint A (0x7E0, listens to 0x7E8) and B (0x7E8, listens to 0x7E0), each on its own
    virtual bus of the same channel."""
    a = qbcantp.Endpoint(make_bus(), A_ID, [B_ID])
    b = qbcantp.Endpoint(make_bus(), B_ID, [A_ID])
    yield a, b
    a.close()
    b.close()


class Peer:
    """A peer written by hand on the virtual bus: it sends the frames a test gives it and
    receives every frame on the bus."""

    def __init__(self, bus, can_id=B_ID):
        self.bus = bus
        self.can_id = can_id

    def send(self, data_hex, can_id=None):
        data = bytes.fromhex(data_hex)
        self.bus.send(can.Message(arbitration_id=self.can_id if can_id is None else can_id,
                                  data=data, is_extended_id=False))

    def expect(self, timeout=2.0):
        """The next frame on the bus as (id, hex of its data), or fails the test."""
        msg = self.bus.recv(timeout)
        assert msg is not None, "no frame within %.1f s" % timeout
        return msg.arbitration_id, bytes(msg.data).hex()

    def expect_nothing(self, timeout=0.3):
        msg = self.bus.recv(timeout)
        assert msg is None, "unexpected frame %03X#%s" % (msg.arbitration_id, bytes(msg.data).hex())


@pytest.fixture
def peer_and_endpoint(make_bus):
    """Endpoint A (0x7E0, listens to 0x7E8) and a scripted Peer with identifier 0x7E8."""
    a = qbcantp.Endpoint(make_bus(), A_ID, [B_ID])
    peer = Peer(make_bus())
    yield peer, a
    a.close()
