"""Two endpoints on python-can's virtual bus: payloads byte-exact and acknowledged, a
request/response exchange, and 1,000 random payloads each way."""

import random
import threading

import pytest

import qbcantp
from conftest import A_ID, B_ID


def pattern(n):
    return bytes((i * 7 + 3) & 0xFF for i in range(n))


@pytest.mark.parametrize("size", [1, 6, 7, 8, 13, 14, 100, 4095])
def test_payload_is_delivered_byte_exact_and_acknowledged(pair, size):
    a, b = pair
    data = pattern(size)
    a.send(data, timeout=5)  # returns only once acknowledged
    assert b.recv(timeout=5) == (A_ID, data)
    acks = [e for e in iter(lambda: a.next_status(timeout=1), None)
            if e.status == qbcantp.Status.ACKNOWLEDGED]
    # The identifier the endpoint reports: DATA[1] of the first frame.
    expected_ack_id = data[0] if size <= 7 else size & 0xFF
    assert [e.ack_id for e in acks] == [expected_ack_id]


def test_received_payload_carries_the_sender_identifier(pair):
    a, b = pair
    b.send(b"\x50\x01")
    payload = a.recv(timeout=5)
    assert payload.can_id == B_ID
    assert payload.data == b"\x50\x01"
    assert isinstance(payload.data, bytes)


def test_request_and_response(pair):
    a, b = pair

    def server():
        for can_id, request in b:
            b.send(b"\x62" + request[1:])
            if request == b"\x22\xff\xff":
                return

    t = threading.Thread(target=server)
    t.start()
    for did in range(0xF180, 0xF190):
        request = b"\x22" + did.to_bytes(2, "big")
        a.send(request, timeout=5)
        assert a.recv(timeout=5) == (B_ID, b"\x62" + did.to_bytes(2, "big"))
    a.send(b"\x22\xff\xff", timeout=5)
    assert a.recv(timeout=5) == (B_ID, b"\x62\xff\xff")
    t.join(5)
    assert not t.is_alive()


def test_thousand_random_payloads_each_way_at_once(pair):
    a, b = pair
    rng = random.Random(13)
    to_b = [rng.randbytes(rng.randint(1, 300)) for _ in range(1000)]
    to_a = [rng.randbytes(rng.randint(1, 300)) for _ in range(1000)]
    received = {"a": [], "b": []}
    errors = []

    def sender(ep, payloads):
        try:
            for p in payloads:
                ep.send(p, timeout=10)
        except Exception as exc:  # reported by the assertion below
            errors.append(exc)

    def receiver(ep, name, count):
        try:
            for _ in range(count):
                received[name].append(ep.recv(timeout=10))
        except Exception as exc:
            errors.append(exc)

    threads = [threading.Thread(target=sender, args=(a, to_b)),
               threading.Thread(target=sender, args=(b, to_a)),
               threading.Thread(target=receiver, args=(b, "b", len(to_b))),
               threading.Thread(target=receiver, args=(a, "a", len(to_a)))]
    for t in threads:
        t.start()
    for t in threads:
        t.join(120)
    assert errors == []
    assert [p.data for p in received["b"]] == to_b
    assert [p.data for p in received["a"]] == to_a
    assert all(p.can_id == A_ID for p in received["b"])
    assert all(p.can_id == B_ID for p in received["a"])


def test_payloads_queued_without_waiting_arrive_in_order(pair):
    a, b = pair
    payloads = [bytes([i]) * (i + 1) for i in range(1, 11)]
    for p in payloads:
        a.send(p, wait=False)
    assert [b.recv(timeout=5).data for _ in payloads] == payloads
    # The last acknowledgement empties the queue.
    from conftest import wait_until
    assert wait_until(lambda: a.send_queue_empty, 5)


def test_iteration_ends_when_the_endpoint_is_closed(pair):
    a, b = pair
    a.send(b"\x01")
    got = []

    def reader():
        for payload in b:
            got.append(payload)

    t = threading.Thread(target=reader)
    t.start()
    from conftest import wait_until
    assert wait_until(lambda: len(got) == 1)
    b.close()
    t.join(2)
    assert not t.is_alive()
    assert got == [(A_ID, b"\x01")]
