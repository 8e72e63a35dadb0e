#!/usr/bin/python3
"""Throughput of the Python module on python-can's virtual bus, and the CPU the process spends
per CAN frame carried.

Two endpoints, A (0x7E0) and B (0x7E8), each on its own virtual bus of one channel.
- one way: A sends payloads with send(wait=True) one after the other (each delivered and
  acknowledged before the next), B takes them with recv() on a thread of its own;
- request/response: A sends a request and waits for its acknowledgement, B answers with a
  response of the same size, A receives it: one round is two payloads.
For each it prints payloads (or rounds) per second, payload bytes per second, the frames the two
bridges carried, and the process CPU time (user + system, all threads: the endpoints' C++
threads, the bridges and the benchmark itself) divided by those frames, then the user and the
system part of it. The load average before and after is printed too: the figures mean little on
a machine busy with other work.

Usage: PYTHONPATH=<build>/python /usr/bin/python3 bench/python/bench_endpoint.py [SECONDS]
"""

import os
import sys
import threading
import time

import can

import qbcantp

SECONDS = float(sys.argv[1]) if len(sys.argv) > 1 else 3.0


def pattern(n):
    return bytes((i * 7 + 3) & 0xFF for i in range(n))


def cpu():
    """(user, system) CPU seconds of this process, all threads."""
    t = os.times()
    return t.user, t.system


def one_way(a, b, size):
    data = pattern(size)
    stop = threading.Event()
    received = [0]

    def receiver():
        while not stop.is_set() or received[0] < sent:
            if b.recv(timeout=0.2) is not None:
                received[0] += 1

    sent = 0
    t = threading.Thread(target=receiver)
    t.start()
    t0, c0 = time.monotonic(), cpu()
    while time.monotonic() - t0 < SECONDS:
        a.send(data)
        sent += 1
    stop.set()
    t.join()
    return sent, time.monotonic() - t0, used_since(c0)


def used_since(c0):
    c1 = cpu()
    return c1[0] - c0[0], c1[1] - c0[1]


def request_response(a, b, size):
    request, response = pattern(size), pattern(size)[::-1]
    stop = threading.Event()

    def server():
        while not stop.is_set():
            p = b.recv(timeout=0.2)
            if p is not None:
                b.send(response)

    t = threading.Thread(target=server)
    t.start()
    rounds = 0
    t0, c0 = time.monotonic(), cpu()
    while time.monotonic() - t0 < SECONDS:
        a.send(request)
        assert a.recv(timeout=5).data == response
        rounds += 1
    elapsed, used = time.monotonic() - t0, used_since(c0)
    stop.set()
    t.join()
    return rounds, elapsed, used




def main():
    channel = "qbcantp-bench-%d" % os.getpid()
    bus_a = can.Bus(interface="virtual", channel=channel)
    bus_b = can.Bus(interface="virtual", channel=channel)
    print("load average before: %.2f %.2f %.2f" % os.getloadavg())
    print("%-18s %6s %12s %14s %10s %12s %12s %12s" % ("exchange", "bytes", "per second",
                                                       "payload B/s", "frames", "CPU/frame",
                                                       "user/frame", "sys/frame"))
    with qbcantp.Endpoint(bus_a, 0x7E0, [0x7E8]) as a, \
            qbcantp.Endpoint(bus_b, 0x7E8, [0x7E0]) as b:
        a.send(b"\x01")  # connect both sides before measuring
        b.recv(timeout=2)
        for name, fn, payloads_per_item in (("one way", one_way, 1),
                                            ("request/response", request_response, 2)):
            for size in (7, 100, 4095):
                f0 = a.frames_sent + b.frames_sent
                items, elapsed, (user, system) = fn(a, b, size)
                frames = a.frames_sent + b.frames_sent - f0
                print("%-18s %6d %12.1f %14.0f %10d %9.1f us %9.1f us %9.1f us" % (
                    name, size, items / elapsed, items * payloads_per_item * size / elapsed,
                    frames, 1e6 * (user + system) / frames, 1e6 * user / frames,
                    1e6 * system / frames))
    bus_a.shutdown()
    bus_b.shutdown()
    print("load average after: %.2f %.2f %.2f" % os.getloadavg())


if __name__ == "__main__":
    main()
