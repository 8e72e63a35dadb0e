#!/usr/bin/python3
"""How long a segmented payload takes on a SocketCAN interface when the module sends it,
against `cantp send`: the time from its first frame to its last consecutive frame, from
candump's time stamps of the sender's frames.

Three senders take turns, each sending one payload of SIZE bytes per round to one `cantp recv`
that runs throughout:
  cantp-send   the cantp tool (`cantp send FILE`), a new process per payload;
  socketcan    the module's Endpoint.socketcan() (the C++ SocketCAN proxy), a new endpoint per
               payload;
  python-can   the module's Endpoint() on python-can's socketcan bus (the Python bridge), a new
               bus (socketcan_tools.python_can_bus) and endpoint per payload.
Every payload is random, must reach the receiver byte-exact, and its last attempt must be on
the bus exactly as the protocol cuts it; a payload the sender had to send again (a refused or
timed-out attempt) is counted and measured on its last attempt.

Whatever queue discipline the interface has stays as it is (the kernel VM's check 60-python puts
the 500 kbit/s token bucket of check 31 on vcan0 first). The script measures; it does not judge
the times. It prints a table and then lines the check turns into metrics,
  metric KEY VALUE
and, for every payload that did not arrive or whose frames were not the protocol's,
  problem TEXT
and exits 1 if there was any problem (0 otherwise).

Usage: socketcan_timing.py --channel vcan0 --cantp PATH [--rounds 5] [--size 4095]
(with the module on PYTHONPATH, can-utils' candump and cansend on PATH)
"""

import argparse
import importlib
import os
import signal
import statistics
import subprocess
import sys
import tempfile
import time

import qbcantp
from socketcan_tools import Candump, can_filters, protocol_frames, python_can_bus, wait_for

SENDER_ID = 0x7E0
RECEIVER_ID = 0x7E8
SENDERS = ["cantp-send", "socketcan", "python-can"]


def send_with_cantp(args, payload, work):
    path = os.path.join(work, "payload.bin")
    with open(path, "wb") as f:
        f.write(payload)
    done = subprocess.run([args.cantp, "send", "--can", "socketcan:" + args.channel, "--id",
                           hex(SENDER_ID), "--peer-id", hex(RECEIVER_ID), "--stats", path],
                          stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
                          timeout=60)
    stats = [line for line in done.stderr.splitlines() if line.startswith("stats ")]
    note = stats[-1] if stats else ""
    if done.returncode != 0:
        return "cantp send exit %d: %s" % (done.returncode, done.stderr.strip()[-300:]), note
    return None, note


def send_with_module(args, payload, bridge):
    try:
        if bridge:
            with python_can_bus(args.channel) as bus, \
                    qbcantp.Endpoint(bus, SENDER_ID, [RECEIVER_ID]) as ep:
                ep.send(payload, timeout=60)
            # Read once the endpoint is closed: its bridge thread has counted every frame.
            return None, "bus.send() errors %d, frames %d" % (ep.bus_send_errors,
                                                               ep.frames_sent)
        with qbcantp.Endpoint.socketcan(args.channel, SENDER_ID, [RECEIVER_ID]) as ep:
            ep.send(payload, timeout=60)
            return None, ""
    except (qbcantp.TransportError, TimeoutError) as exc:
        return "%s: %s" % (type(exc).__name__, exc), ""


def cpu_seconds():
    """User + system CPU time of this process (all its threads: the endpoints' C++ threads
    and the bridge's) and of its children that have ended (each cantp send)."""
    t = os.times()
    return t.user + t.system + t.children_user + t.children_system


def first_to_last(frames, payload):
    """The time from the first frame of the last attempt at `payload` to its last consecutive
    frame, from the sender's frames among `frames` ((time, "ID#DATA") in the order candump
    recorded them); and how many attempts there were. (None, attempts, why) if the last attempt
    is not the payload's frames, in full and in order."""
    expected = protocol_frames(SENDER_ID, payload)
    prefix = "%03X#" % SENDER_ID
    sent = [(t, f) for t, f in frames if f.startswith(prefix)]
    starts = [i for i, (_, f) in enumerate(sent) if f == expected[0]]
    if not starts:
        return None, 0, "its first frame is not on the bus"
    attempt = sent[starts[-1]:starts[-1] + len(expected)]
    if [f for _, f in attempt] != expected:
        return None, len(starts), "its last attempt is not the protocol's %d frames" % len(
            expected)
    return attempt[-1][0] - attempt[0][0], len(starts), None


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--channel", required=True)
    parser.add_argument("--cantp", required=True)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--size", type=int, default=4095)
    args = parser.parse_args()
    if args.size < 8:
        parser.error("--size must be at least 8: a single frame has no first-to-last time")

    # python-can is imported before the first round, so that its import is not timed.
    importlib.import_module("can")
    work = tempfile.mkdtemp(prefix="qbcantp-timing-")
    dump = Candump(os.path.join(work, "dump.log"), args.channel, [SENDER_ID, RECEIVER_ID])
    before = can_filters(args.channel, SENDER_ID)
    receiver_out = open(os.path.join(work, "recv.out"), "w+")
    receiver_err = open(os.path.join(work, "recv.err"), "w+")
    receiver = subprocess.Popen([args.cantp, "recv", "--can", "socketcan:" + args.channel,
                                 "--id", hex(RECEIVER_ID), "--peer-id", hex(SENDER_ID),
                                 "--stats"], stdout=receiver_out, stderr=receiver_err)
    wait_for(lambda: can_filters(args.channel, SENDER_ID) > before, 30,
             "cantp recv did not bind its socket")

    problems = []
    sent = []  # (sender, payload, wall-clock seconds, CPU seconds, note)
    for round_ in range(args.rounds):
        for sender in SENDERS:
            payload = os.urandom(args.size)
            # The token bucket of a rate-limiting queue refills between payloads: every
            # payload starts with the same bucket.
            time.sleep(0.2)
            start, cpu = time.monotonic(), cpu_seconds()
            if sender == "cantp-send":
                error, note = send_with_cantp(args, payload, work)
            else:
                error, note = send_with_module(args, payload, sender == "python-can")
            seconds, cpu = time.monotonic() - start, cpu_seconds() - cpu
            if error:
                problems.append("round %d, %s: %s" % (round_ + 1, sender, error))
            sent.append((sender, payload, seconds, cpu, note))

    # Every payload is out; the receiver writes each one as a line before it acknowledges it.
    receiver.send_signal(signal.SIGTERM)
    try:
        receiver.wait(30)
    except subprocess.TimeoutExpired:
        receiver.kill()
        receiver.wait()
        problems.append("cantp recv did not stop on SIGTERM")
    frames = dump.stop()
    receiver_out.seek(0)
    lines = receiver_out.read().splitlines()
    receiver_err.seek(0)
    receiver_stats = [line for line in receiver_err.read().splitlines()
                      if line.startswith("stats ")]

    times = {s: [] for s in SENDERS}
    cpus = {s: [] for s in SENDERS}
    attempts = {s: 0 for s in SENDERS}
    # whole: from starting the sender (the cantp process, or the endpoint) until it has ended;
    # CPU: the sender's user + system time over the same span (setup included).
    print("%-11s %5s %14s %10s %10s %9s  %s" % ("sender", "round", "first-to-last", "whole",
                                                "CPU", "attempts", "note"))
    for i, (sender, payload, seconds, cpu, note) in enumerate(sent):
        round_ = i // len(SENDERS) + 1
        if payload.hex().upper() not in lines:
            problems.append("round %d, %s: the payload did not reach cantp recv byte-exact" %
                            (round_, sender))
        elapsed, tries, why = first_to_last(frames, payload)
        attempts[sender] += tries
        if why:
            problems.append("round %d, %s: %s" % (round_, sender, why))
            continue
        times[sender].append(elapsed)
        cpus[sender].append(cpu)
        print("%-11s %5d %11.1f ms %7.1f ms %7.1f ms %9d  %s" % (
            sender, round_, 1e3 * elapsed, 1e3 * seconds, 1e3 * cpu, tries, note))
    if len(lines) != len(sent):
        problems.append("cantp recv wrote %d payloads, %d were sent" % (len(lines), len(sent)))
    print("receiver: %s" % (receiver_stats[-1] if receiver_stats else "no stats line"))

    frames_per_payload = len(protocol_frames(SENDER_ID, bytes(args.size)))
    print("\n%d-byte payloads (%d frames), first frame to last consecutive frame:" %
          (args.size, frames_per_payload))
    print("%-11s %3s %10s %10s %10s %12s %9s" % ("sender", "n", "median", "min", "max",
                                                 "frames/s", "vs cantp"))
    medians = {s: statistics.median(t) for s, t in times.items() if t}
    for sender in SENDERS:
        t = times[sender]
        key = "first-to-last.%s" % sender
        if not t:
            print("%-11s %3d %10s" % (sender, 0, "-"))
            continue
        ratio = medians[sender] / medians["cantp-send"] if "cantp-send" in medians else None
        print("%-11s %3d %7.1f ms %7.1f ms %7.1f ms %12.0f %9s" % (
            sender, len(t), 1e3 * medians[sender], 1e3 * min(t), 1e3 * max(t),
            (frames_per_payload - 1) / medians[sender],
            "%.3f" % ratio if ratio is not None else "-"))
        print("metric %s.median-ms %.1f" % (key, 1e3 * medians[sender]))
        print("metric %s.min-ms %.1f" % (key, 1e3 * min(t)))
        print("metric %s.max-ms %.1f" % (key, 1e3 * max(t)))
        print("metric %s.attempts %d" % (key, attempts[sender]))
        print("metric cpu-per-payload.%s.median-ms %.1f" % (sender,
                                                           1e3 * statistics.median(cpus[sender])))
        if ratio is not None and sender != "cantp-send":
            print("metric ratio.%s-to-cantp-send %.3f" % (sender, ratio))
    for p in problems:
        print("problem %s" % p)
    sys.stdout.flush()
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
