"""Ctrl-C in blocking calls, closing, the context manager, the status callback, bad payloads,
and the resources of many endpoints and many payloads."""

import os
import signal
import subprocess
import sys
import threading
import time

import pytest

import qbcantp
from conftest import A_ID, B_ID, open_fds, rss_bytes, wait_until

HERE = os.path.dirname(os.path.abspath(__file__))


def next_line(report):
    """The child's next line on its report pipe (its standard output carries the endpoint's log
    lines, which another thread of the child may write at the same moment)."""
    return report.readline().strip()


def main_thread_state(pid):
    with open(f"/proc/{pid}/task/{pid}/stat") as f:
        return f.read().rsplit(")", 1)[1].split()[0]


@pytest.mark.parametrize("mode", ["recv", "send"])
def test_sigint_in_a_blocking_call_raises_keyboard_interrupt_within_100_ms(mode, channel):
    read_end, write_end = os.pipe()
    child = subprocess.Popen([sys.executable, os.path.join(HERE, "sigint_child.py"), mode,
                              channel, str(write_end)], pass_fds=(write_end,),
                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    os.close(write_end)
    report = os.fdopen(read_end, "r")
    try:
        assert next_line(report) == "ready"
        # The child's main thread sleeps once it waits in the blocking call.
        assert wait_until(lambda: main_thread_state(child.pid) == "S")
        sent = time.clock_gettime(time.CLOCK_MONOTONIC)
        child.send_signal(signal.SIGINT)
        words = next_line(report).split()
        assert words[0] == "interrupted"
        latency = float(words[1]) - sent
        assert 0 <= latency < 0.1, latency
        assert child.wait(10) == 0
    finally:
        child.kill()
        child.wait()
        report.close()


def test_close_while_a_payload_is_in_flight_ends_the_waiting_send(make_bus):
    a = qbcantp.Endpoint(make_bus(), A_ID, [B_ID])
    result = {}

    def sender():
        try:
            a.send(b"\x01" * 100)
        except Exception as exc:
            result["error"] = exc

    t = threading.Thread(target=sender)
    t.start()
    assert wait_until(lambda: a.frames_sent >= 1)  # the first frame is out, no answer comes
    t0 = time.monotonic()
    a.close()
    t.join(2)
    assert not t.is_alive()
    assert time.monotonic() - t0 < 1.0
    assert isinstance(result["error"], qbcantp.EndpointClosed)
    with pytest.raises(qbcantp.EndpointClosed):
        a.send(b"\x01")
    with pytest.raises(qbcantp.EndpointClosed):
        a.recv(timeout=0)
    assert not a.running


def test_close_ends_a_waiting_recv_on_another_thread(make_bus):
    a = qbcantp.Endpoint(make_bus(), A_ID, [B_ID])
    result = {}

    def receiver():
        try:
            result["value"] = a.recv()
        except Exception as exc:
            result["error"] = exc

    t = threading.Thread(target=receiver)
    t.start()
    a.close()
    t.join(2)
    assert not t.is_alive()
    assert isinstance(result.get("error"), qbcantp.EndpointClosed)


def test_context_manager_closes_on_an_exception_and_releases_every_descriptor(make_bus):
    bus = make_bus()
    before = open_fds()
    threads_before = threading.active_count()
    with pytest.raises(RuntimeError):
        with qbcantp.Endpoint(bus, A_ID, [B_ID]) as ep:
            assert open_fds() > before
            raise RuntimeError("test")
    assert ep.closed
    assert open_fds() == before
    assert threading.active_count() == threads_before
    ep.close()  # idempotent


def test_status_callback_runs_on_a_python_thread_and_its_exception_is_reported(make_bus,
                                                                              monkeypatch):
    reported = []
    monkeypatch.setattr(threading, "excepthook", lambda args: reported.append(args))
    seen = []

    def on_status(event):
        seen.append((event.status, threading.current_thread().name))
        if len(seen) == 1:
            raise ValueError("from the callback")

    a = qbcantp.Endpoint(make_bus(), A_ID, [B_ID], on_status=on_status)
    b = qbcantp.Endpoint(make_bus(), B_ID, [A_ID])
    try:
        a.send(b"\x01", timeout=5)  # CONNECTED (raises in the callback), then ACKNOWLEDGED
        a.send(b"\x02", timeout=5)  # the endpoint goes on
        assert wait_until(lambda: len(seen) == 3)
        assert [s for s, _ in seen] == [qbcantp.Status.CONNECTED, qbcantp.Status.ACKNOWLEDGED,
                                        qbcantp.Status.ACKNOWLEDGED]
        assert all(name == "qbcantp-status-callback" for _, name in seen)
        assert len(reported) == 1
        assert reported[0].exc_type is ValueError
        assert str(reported[0].exc_value) == "from the callback"
        assert a.callback_errors == 1
        assert a.running
        # The queue of next_status() holds the same events.
        assert [e.status for e in iter(lambda: a.next_status(0.2), None)] == [s for s, _ in seen]
    finally:
        a.close()
        b.close()


@pytest.mark.parametrize("size,reason", [
    (0, "payload of 0 bytes: the transport carries 1 to 4095 bytes"),
    (4096, "payload of 4096 bytes: the transport carries 1 to 4095 bytes"),
    (70000, "payload of 70000 bytes: the transport carries 1 to 4095 bytes"),
])
def test_payload_of_bad_length_raises_value_error_with_the_reason(pair, size, reason):
    a, b = pair
    with pytest.raises(ValueError) as info:
        a.send(bytes(size))
    assert str(info.value).startswith(reason)
    assert a.send_queue_empty
    assert b.recv(timeout=0.2) is None


def test_bad_arguments_are_refused(make_bus):
    bus = make_bus()
    with pytest.raises(ValueError, match="tx_id"):
        qbcantp.Endpoint(bus, 0x800, [B_ID])
    with pytest.raises(ValueError, match="rx_ids"):
        qbcantp.Endpoint(bus, A_ID, [])
    with pytest.raises(ValueError, match="rx_ids"):
        qbcantp.Endpoint(bus, A_ID, [0x1000])
    with pytest.raises(TypeError):
        qbcantp.Endpoint(None, A_ID, [B_ID])
    with qbcantp.Endpoint(bus, A_ID, B_ID) as ep:  # one identifier may be given alone
        assert ep.rx_ids == {B_ID}
        with pytest.raises(ValueError, match="timeout"):
            ep.recv(timeout=-1)


def test_ten_thousand_endpoints_created_and_closed_leave_nothing_behind(make_bus):
    bus = make_bus()
    keeper = qbcantp.Endpoint(bus, 0x100, [0x101])  # keeps the bus reader running
    try:
        def cycle(n):
            for i in range(n):
                with qbcantp.Endpoint(bus, A_ID, [B_ID]):
                    pass

        cycle(500)  # warm-up: allocator pools, thread stacks
        fds, threads, rss = open_fds(), threading.active_count(), rss_bytes()
        cycle(10000)
        assert open_fds() == fds
        assert threading.active_count() == threads
        growth = rss_bytes() - rss
        assert growth < 2 * 1024 * 1024, growth
    finally:
        keeper.close()


def test_ten_thousand_payloads_through_one_endpoint_keep_memory_flat(pair):
    a, b = pair
    data = bytes(range(20))

    def run(n):
        for _ in range(n):
            a.send(data, timeout=5)
            assert b.recv(timeout=5) == (A_ID, data)

    run(1000)  # warm-up
    rss = rss_bytes()
    run(10000)
    growth = rss_bytes() - rss
    assert growth < 1024 * 1024, growth
