"""Endpoint A (0x7E0) against a peer scripted frame by frame on the virtual bus (0x7E8).

Expected frames are written by hand: DATA[0] is the frame kind and length or sequence number
(0x0L single, 0x1L LL first, 0x2N consecutive, 0x3C flow control), every frame the endpoint
sends has 8 bytes, padded with 0x00.
"""

import threading
import time

import pytest

import qbcantp
from conftest import A_ID, B_ID, wait_until

PAD = "00" * 7
ACK = "33" + PAD
READY = "31" + PAD
NACK = "32" + PAD
NOT_READY = "30" + PAD


class Sender(threading.Thread):
    """send(data, wait=True) on a thread of its own; `error` is what it raised, `elapsed` how
    long it took."""

    def __init__(self, ep, data):
        super().__init__()
        self.ep, self.data = ep, data
        self.error = None
        self.elapsed = None
        self.start()

    def run(self):
        t0 = time.monotonic()
        try:
            self.ep.send(self.data)
        except Exception as exc:
            self.error = exc
        self.elapsed = time.monotonic() - t0

    def result(self, timeout=10):
        self.join(timeout)
        assert not self.is_alive(), "send() still waiting"
        return self.error


def statuses(ep, timeout=0.5):
    out = []
    while (e := ep.next_status(timeout=timeout)) is not None:
        out.append((e.status, e.ack_id))
    return out


def test_single_frame_goes_out_padded_and_the_acknowledgement_completes_send(peer_and_endpoint):
    peer, a = peer_and_endpoint
    s = Sender(a, b"\x11\x22\x33")
    assert peer.expect() == (A_ID, "0311223300000000")
    peer.send(ACK)
    assert s.result() is None
    assert statuses(a) == [(qbcantp.Status.CONNECTED, 0), (qbcantp.Status.ACKNOWLEDGED, 0x11)]


def test_acknowledgement_is_in_the_status_queue_when_send_returns(peer_and_endpoint):
    peer, a = peer_and_endpoint
    for n in range(20):
        s = Sender(a, bytes([n]))
        peer.expect()
        peer.send(ACK)
        assert s.result() is None
        # No waiting: the report that ended send() must already be queued.
        events = statuses(a, timeout=0)
        assert events[-1] == (qbcantp.Status.ACKNOWLEDGED, n)


def test_segmented_payload_waits_for_ready_then_bursts_its_consecutive_frames(peer_and_endpoint):
    peer, a = peer_and_endpoint
    s = Sender(a, bytes(range(14)))
    assert peer.expect() == (A_ID, "100e000102030405")
    peer.expect_nothing(0.2)  # nothing more before the peer's flow control
    peer.send(READY)
    assert peer.expect() == (A_ID, "20060708090a0b0c")
    assert peer.expect() == (A_ID, "210d000000000000")
    peer.send(ACK)
    assert s.result() is None


def test_refusal_is_retried_from_the_first_frame(peer_and_endpoint):
    peer, a = peer_and_endpoint
    s = Sender(a, b"\xaa\xbb")
    assert peer.expect() == (A_ID, "02aabb0000000000")
    t0 = time.monotonic()
    peer.send(NACK)
    assert peer.expect() == (A_ID, "02aabb0000000000")
    assert time.monotonic() - t0 >= 0.009  # the 10 ms pause before a resend
    peer.send(ACK)
    assert s.result() is None


def test_five_refusals_from_a_connected_peer_raise_disconnected(peer_and_endpoint):
    peer, a = peer_and_endpoint
    s = Sender(a, b"\x01\x02")
    for _ in range(5):
        assert peer.expect() == (A_ID, "0201020000000000")
        peer.send("30" + PAD)  # not ready to receive
    err = s.result()
    assert isinstance(err, qbcantp.Disconnected)
    assert err.status == qbcantp.Status.DISCONNECTED
    peer.expect_nothing(0.3)
    assert statuses(a) == [(qbcantp.Status.CONNECTED, 0), (qbcantp.Status.DISCONNECTED, 0)]


def test_silent_peer_raises_send_timeout_after_five_seconds_and_later_ones_too(peer_and_endpoint):
    peer, a = peer_and_endpoint
    s = Sender(a, b"\x05")
    frames = [peer.expect(timeout=2) for _ in range(5)]  # sent at 0, 1, 2, 3 and 4 s
    assert frames == [(A_ID, "0105000000000000")] * 5
    err = s.result()
    assert isinstance(err, qbcantp.SendTimeout)
    assert err.status == qbcantp.Status.SEND_TIMEOUT
    assert 4.8 <= s.elapsed <= 6.5, s.elapsed
    assert statuses(a) == [(qbcantp.Status.SEND_TIMEOUT, 0)]
    # A second payload fails the same way, but the endpoint reports a loss once per episode:
    # no status event this time, and send() still raises.
    s2 = Sender(a, b"\x06")
    err2 = s2.result(timeout=10)
    assert isinstance(err2, qbcantp.SendTimeout)
    assert 4.8 <= s2.elapsed <= 6.5, s2.elapsed
    assert statuses(a, timeout=0.1) == []


def test_stalled_reception_is_refused_and_reported_after_one_second(peer_and_endpoint):
    peer, a = peer_and_endpoint
    peer.send("1014000102030405")  # first frame announcing 20 bytes
    assert peer.expect() == (A_ID, READY)
    t0 = time.monotonic()
    assert peer.expect(timeout=3) == (A_ID, NACK)
    assert 0.8 <= time.monotonic() - t0 <= 1.6
    assert statuses(a) == [(qbcantp.Status.CONNECTED, 0), (qbcantp.Status.RECEIVE_TIMEOUT, 0)]
    assert a.recv(timeout=0.1) is None


def test_segmented_payload_from_the_peer_is_delivered_and_acknowledged(peer_and_endpoint):
    peer, a = peer_and_endpoint
    peer.send("1014000102030405")
    assert peer.expect() == (A_ID, READY)
    peer.send("20060708090a0b0c")
    peer.send("210d0e0f10111213")
    assert peer.expect() == (A_ID, ACK)
    assert a.recv(timeout=2) == (B_ID, bytes(range(20)))


def test_wrong_sequence_number_is_answered_not_acknowledged(peer_and_endpoint):
    peer, a = peer_and_endpoint
    peer.send("1014000102030405")
    assert peer.expect() == (A_ID, READY)
    peer.send("21060708090a0b0c")  # sequence number 1 where 0 is due
    assert peer.expect() == (A_ID, NACK)
    assert a.recv(timeout=0.2) is None


@pytest.mark.parametrize("garbage", ["4500000000000000", "0000000000000000",
                                     "2011223344556677", "f0"])
def test_invalid_frames_are_refused_not_ready(peer_and_endpoint, garbage):
    peer, a = peer_and_endpoint
    peer.send(garbage)
    assert peer.expect() == (A_ID, NOT_READY)
    assert a.recv(timeout=0.2) is None
    assert a.running


def test_frames_of_foreign_identifiers_and_kinds_are_left_alone(peer_and_endpoint):
    peer, a = peer_and_endpoint
    import can
    peer.send("0311223300000000", can_id=0x123)
    peer.bus.send(can.Message(arbitration_id=B_ID, data=bytes.fromhex("03112233"),
                              is_extended_id=True))
    peer.bus.send(can.Message(arbitration_id=B_ID, is_remote_frame=True, dlc=3,
                              is_extended_id=False))
    peer.expect_nothing(0.3)
    assert a.recv(timeout=0.1) is None
    assert a.next_status() is None  # not even CTT_CONNECTED: the endpoint saw no frame
    # The endpoint still takes its peer's frames.
    peer.send("03aabbcc")
    assert peer.expect() == (A_ID, ACK)
    assert a.recv(timeout=1) == (B_ID, b"\xaa\xbb\xcc")


def test_clear_all_drops_waiting_payloads_and_their_send_raises_cleared(peer_and_endpoint):
    peer, a = peer_and_endpoint
    first = Sender(a, b"\x01")
    assert peer.expect() == (A_ID, "0101000000000000")
    second = Sender(a, b"\x02")
    assert wait_until(lambda: not a.send_queue_empty)
    time.sleep(0.05)  # let the second payload reach the endpoint's queue (no event shows it)
    a.clear(all=True)
    assert isinstance(first.result(), qbcantp.Cleared)
    assert isinstance(second.result(), qbcantp.Cleared)
    peer.expect_nothing(1.5)  # nothing is resent after the clear
    assert a.send_queue_empty


def test_send_timeout_argument_raises_timeout_error_and_leaves_the_payload_queued(
        peer_and_endpoint):
    peer, a = peer_and_endpoint
    t0 = time.monotonic()
    with pytest.raises(TimeoutError):
        a.send(b"\x07", timeout=0.2)
    assert 0.19 <= time.monotonic() - t0 < 1.0
    assert peer.expect() == (A_ID, "0107000000000000")
    assert not a.send_queue_empty  # still waiting for the peer's flow control
    peer.send(ACK)
    assert wait_until(lambda: a.send_queue_empty)
    assert [s for s, _ in statuses(a)] == [qbcantp.Status.CONNECTED,
                                           qbcantp.Status.ACKNOWLEDGED]


def test_full_status_queue_drops_the_oldest_events_and_counts_them(make_bus):
    from conftest import Peer
    a = qbcantp.Endpoint(make_bus(), A_ID, [B_ID], status_queue_size=2)
    peer = Peer(make_bus())
    try:
        for payload in (b"\x01", b"\x02", b"\x03"):
            s = Sender(a, payload)
            peer.expect()
            peer.send(ACK)
            assert s.result() is None
        # CONNECTED and three ACKNOWLEDGED were reported; the two newest are kept.
        assert statuses(a, timeout=0.1) == [(qbcantp.Status.ACKNOWLEDGED, 2),
                                            (qbcantp.Status.ACKNOWLEDGED, 3)]
        assert a.dropped_status_events == 2
    finally:
        a.close()


def test_two_endpoints_on_one_bus_object_each_get_their_peers_frames(make_bus):
    from conftest import Peer
    shared = make_bus()
    a = qbcantp.Endpoint(shared, 0x700, [0x708])
    c = qbcantp.Endpoint(shared, 0x710, [0x718])
    peer = Peer(make_bus())
    try:
        peer.send("0211220000000000", can_id=0x718)
        peer.send("0233440000000000", can_id=0x708)
        answers = sorted([peer.expect(), peer.expect()])
        assert answers == [(0x700, ACK), (0x710, ACK)]
        assert a.recv(timeout=1) == (0x708, b"\x33\x44")
        assert c.recv(timeout=1) == (0x718, b"\x11\x22")
    finally:
        a.close()
        c.close()
