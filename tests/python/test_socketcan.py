"""The module on a SocketCAN interface, against the cantp tool and can-utils' candump.

Every test that needs a CAN interface runs on both frame paths of the module:
- ``socketcan``: ``Endpoint.socketcan(channel, ...)``, the C++ SocketCAN proxy under the endpoint;
- ``python-can``: ``Endpoint(can.Bus(interface="socketcan", channel=...), ...)``, the endpoint's
  frames carried by the Python bridge over python-can's socketcan bus, made with python-can's
  defaults (the module gives its socket a receive buffer of 1 MiB, as the C++ proxy's).
It checks payloads of the module reaching ``cantp recv`` byte-exact, payloads of ``cantp send``
reaching the module byte-exact, and the frames the module puts on the bus, as candump records
them, against the frames the protocol cuts a payload into (docs/protocol.md).

These tests run where QB_VCAN names a vcan interface that is up (as in the kernel VM's check
60-python) and QB_CANTP the cantp program; elsewhere they are skipped, and only the refusal of
a missing interface runs.
"""

import contextlib
import os
import shutil
import subprocess

import pytest

import qbcantp
from socketcan_tools import (RECEIVE_BUFFER_BYTES, Candump, answer_frames, can_filters, frame,
                             protocol_frames, python_can_bus, wait_for)

VCAN = os.environ.get("QB_VCAN")
CANTP = os.environ.get("QB_CANTP")

#: The module's endpoint (its frames go out with this identifier) and the cantp tool's.
MODULE_ID = 0x7E0
TOOL_ID = 0x7E8

SIZES = [1, 7, 8, 100, 4095]
PATHS = ["socketcan", "python-can"]

needs_vcan = pytest.mark.skipif(not VCAN or not CANTP,
                                reason="needs QB_VCAN (a vcan interface) and QB_CANTP")
needs_can_utils = pytest.mark.skipif(
    shutil.which("candump") is None or shutil.which("cansend") is None,
    reason="needs can-utils' candump and cansend")


def pattern(n):
    return bytes((i * 7 + 3) & 0xFF for i in range(n))


def random_payload(n):
    return os.urandom(n)


def module_filters():
    """The sockets on VCAN that receive the module's frames (cantp recv's among them)."""
    return can_filters(VCAN, MODULE_ID)


@contextlib.contextmanager
def module_endpoint(path, tx_id, rx_id):
    """The module's endpoint on VCAN through `path` (one of PATHS)."""
    if path == "socketcan":
        with qbcantp.Endpoint.socketcan(VCAN, tx_id, [rx_id]) as ep:
            yield ep
    else:
        with python_can_bus(VCAN) as bus, qbcantp.Endpoint(bus, tx_id, [rx_id]) as ep:
            yield ep
            assert ep.bus_send_errors == 0


@contextlib.contextmanager
def cantp_recv(count=1):
    """`cantp recv --count COUNT` (identifier TOOL_ID, peer MODULE_ID), once its socket is
    bound; yields the process (standard output: one line of upper-case hex per payload)."""
    before = module_filters()
    receiver = subprocess.Popen([CANTP, "recv", "--can", "socketcan:" + VCAN, "--id",
                                 hex(TOOL_ID), "--peer-id", hex(MODULE_ID), "--count",
                                 str(count)], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                text=True)
    try:
        wait_for(lambda: module_filters() > before or receiver.poll() is not None, 30,
                 "cantp recv did not bind its socket")
        assert receiver.poll() is None, "cantp recv ended: " + receiver.stderr.read()
        yield receiver
    finally:
        receiver.kill()
        receiver.wait()


@needs_vcan
def test_python_can_bus_gets_a_receive_buffer_of_1_mib():
    import socket

    with python_can_bus(VCAN) as bus:
        before = bus.socket.getsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF)
        with qbcantp.Endpoint(bus, 0x7E0, [0x7E8]):
            after = bus.socket.getsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF)
    # The kernel reports twice the size set; python-can's default is rmem_default (212,992).
    assert before < 2 * RECEIVE_BUFFER_BYTES
    assert after >= 2 * RECEIVE_BUFFER_BYTES


def test_socketcan_endpoint_on_a_missing_interface_raises_oserror():
    with pytest.raises(OSError):
        qbcantp.Endpoint.socketcan("nosuchcan9", 0x7E0, [0x7E8])


@needs_vcan
@pytest.mark.parametrize("size", SIZES)
@pytest.mark.parametrize("path", PATHS)
def test_module_payload_reaches_cantp_recv_byte_exact(path, size):
    payload = random_payload(size)
    with cantp_recv() as receiver:
        with module_endpoint(path, MODULE_ID, TOOL_ID) as ep:
            ep.send(payload, timeout=30)
            events = []
            while True:
                event = ep.next_status()
                if event is None:
                    break
                events.append((event.status, event.ack_id))
        # The acknowledgement reports byte 1 of the first frame: the first payload byte of a
        # single frame, the low byte of the length of a segmented payload.
        ack_id = payload[0] if size <= 7 else size & 0xFF
        assert events[-1] == (qbcantp.Status.ACKNOWLEDGED, ack_id)
        out, err = receiver.communicate(timeout=30)
        assert receiver.returncode == 0, err
    assert out == payload.hex().upper() + "\n"


@needs_vcan
@pytest.mark.parametrize("size", SIZES)
@pytest.mark.parametrize("path", PATHS)
def test_cantp_send_payload_reaches_the_module_byte_exact(path, size, tmp_path):
    payload = random_payload(size)
    (tmp_path / "payload.bin").write_bytes(payload)
    with module_endpoint(path, MODULE_ID, TOOL_ID) as ep:
        sender = subprocess.run([CANTP, "send", "--can", "socketcan:" + VCAN, "--id",
                                 hex(TOOL_ID), "--peer-id", hex(MODULE_ID),
                                 str(tmp_path / "payload.bin")],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                timeout=60)
        assert sender.returncode == 0, sender.stderr
        received = ep.recv(timeout=10)
        assert ep.recv(timeout=0) is None
    assert received == (TOOL_ID, payload)


@needs_vcan
@needs_can_utils
@pytest.mark.parametrize("size", [1, 7, 8, 13, 14, 100, 4095])
@pytest.mark.parametrize("path", PATHS)
def test_candump_sees_the_frames_the_protocol_cuts(path, size, tmp_path):
    payload = random_payload(size)
    dump = Candump(tmp_path / "dump.log", VCAN, [MODULE_ID, TOOL_ID])
    try:
        with cantp_recv() as receiver:
            with module_endpoint(path, MODULE_ID, TOOL_ID) as ep:
                ep.send(payload, timeout=30)
            out, err = receiver.communicate(timeout=30)
            assert receiver.returncode == 0, err
        frames = [f for _, f in dump.stop()]
    finally:
        dump.close()
    assert out == payload.hex().upper() + "\n"
    module_prefix, tool_prefix = "%03X#" % MODULE_ID, "%03X#" % TOOL_ID
    assert [f for f in frames if f.startswith(module_prefix)] == protocol_frames(MODULE_ID,
                                                                                 payload)
    assert [f for f in frames if f.startswith(tool_prefix)] == answer_frames(TOOL_ID, payload)
    # The tool answers a first frame before the consecutive frames follow, and acknowledges last.
    if size > 7:
        assert frames[1] == frame(TOOL_ID, b"\x31")
    assert frames[-1] == frame(TOOL_ID, b"\x33")


def test_protocol_frames_cut_payloads_as_the_protocol_document_shows():
    # The examples of docs/protocol.md, which the candump test above compares against.
    assert protocol_frames(0x7E0, b"ABC") == ["7E0#0341424300000000"]
    assert protocol_frames(0x7E0, bytes(range(1, 9))) == ["7E0#1008010203040506",
                                                          "7E0#2007080000000000"]
    assert protocol_frames(0x7E0, bytes(range(14))) == ["7E0#100E000102030405",
                                                        "7E0#20060708090A0B0C",
                                                        "7E0#210D000000000000"]
    frames = protocol_frames(0x7E0, pattern(4095))
    assert len(frames) == 586 and frames[0].startswith("7E0#1FFF")
    assert [f[4:6] for f in frames[1:18]] == ["2%X" % (i % 16) for i in range(17)]


@needs_vcan
@pytest.mark.parametrize("path", PATHS)
def test_module_endpoints_talk_to_each_other(path):
    with module_endpoint(path, MODULE_ID, TOOL_ID) as a, \
            module_endpoint(path, TOOL_ID, MODULE_ID) as b:
        a.send(pattern(300), timeout=10)
        assert b.recv(timeout=10) == (MODULE_ID, pattern(300))
        b.send(pattern(4095), timeout=10)
        assert a.recv(timeout=10) == (TOOL_ID, pattern(4095))
