"""Endpoint.socketcan(): the C++ SocketCAN proxy under the module, and the python-can
socketcan bus under the bridge, against `cantp recv` and can-utils' candump.

The tests that need a CAN interface run where QB_VCAN names one (a vcan interface that is up,
as in the kernel VM's check) and QB_CANTP the cantp program; elsewhere they are skipped, and
only the refusal of a missing interface runs.
"""

import os
import shutil
import subprocess
import time

import pytest

import qbcantp

VCAN = os.environ.get("QB_VCAN")
CANTP = os.environ.get("QB_CANTP")

needs_vcan = pytest.mark.skipif(not VCAN or not CANTP,
                                reason="needs QB_VCAN (a vcan interface) and QB_CANTP")


def pattern(n):
    return bytes((i * 7 + 3) & 0xFF for i in range(n))


def test_socketcan_endpoint_on_a_missing_interface_raises_oserror():
    with pytest.raises(OSError):
        qbcantp.Endpoint.socketcan("nosuchcan9", 0x7E0, [0x7E8])


def cantp_recv(count=1):
    return subprocess.Popen([CANTP, "recv", "--can", "socketcan:" + VCAN, "--id", "0x7E8",
                             "--peer-id", "0x7E0", "--count", str(count)],
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)


@needs_vcan
@pytest.mark.parametrize("size", [1, 7, 8, 100, 4095])
def test_socketcan_payload_reaches_cantp_recv_byte_exact(size):
    receiver = cantp_recv()
    try:
        with qbcantp.Endpoint.socketcan(VCAN, 0x7E0, [0x7E8]) as ep:
            # Until cantp recv has bound its socket the first frame finds nobody; the
            # endpoint's retries (1 s apart) then carry it.
            ep.send(pattern(size), timeout=10)
        out, _ = receiver.communicate(timeout=10)
        assert out == pattern(size).hex().upper() + "\n"
        assert receiver.returncode == 0
    finally:
        receiver.kill()


@needs_vcan
def test_python_can_socketcan_bus_reaches_cantp_recv_byte_exact():
    import can
    receiver = cantp_recv()
    try:
        with can.Bus(interface="socketcan", channel=VCAN) as bus, \
                qbcantp.Endpoint(bus, 0x7E0, [0x7E8]) as ep:
            ep.send(pattern(4095), timeout=10)
        out, _ = receiver.communicate(timeout=10)
        assert out == pattern(4095).hex().upper() + "\n"
    finally:
        receiver.kill()


@needs_vcan
@pytest.mark.skipif(shutil.which("candump") is None, reason="needs can-utils' candump")
def test_candump_sees_the_exact_frames_of_a_14_byte_payload():
    dump = subprocess.Popen(["candump", "-L", VCAN], stdout=subprocess.PIPE, text=True)
    receiver = cantp_recv()
    try:
        time.sleep(0.3)  # candump and cantp recv bind their sockets (nothing to observe)
        with qbcantp.Endpoint.socketcan(VCAN, 0x7E0, [0x7E8]) as ep:
            ep.send(bytes(range(14)), timeout=10)
        assert receiver.wait(10) == 0
        time.sleep(0.2)
        dump.terminate()
        out, _ = dump.communicate(timeout=5)
        frames = [line.split()[2] for line in out.splitlines()]
        assert frames == ["7E0#100E000102030405", "7E8#3100000000000000",
                          "7E0#20060708090A0B0C", "7E0#210D000000000000",
                          "7E8#3300000000000000"]
    finally:
        dump.kill()
        receiver.kill()


@needs_vcan
def test_socketcan_endpoints_talk_to_each_other():
    with qbcantp.Endpoint.socketcan(VCAN, 0x7E0, [0x7E8]) as a, \
            qbcantp.Endpoint.socketcan(VCAN, 0x7E8, [0x7E0]) as b:
        a.send(pattern(300), timeout=5)
        assert b.recv(timeout=5) == (0x7E0, pattern(300))
