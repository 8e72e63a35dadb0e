"""qbcantp: the segmented CAN transport endpoint for Python test scripts.

One ``Endpoint`` is one endpoint of the CAN transport protocol (payloads of 1 to 4095 bytes cut
into 8-byte CAN frames, sent under the peer's flow control, reassembled on the way in). The
protocol runs in the compiled C++ endpoint; Python only moves frames and payloads in and out.

Typical use with python-can::

    import can, qbcantp

    with can.Bus(interface="socketcan", channel="can0") as bus, \\
            qbcantp.Endpoint(bus, tx_id=0x7E0, rx_ids=[0x7E8]) as ep:
        ep.send(bytes.fromhex("0322F190"))          # waits for the acknowledgement
        can_id, data = ep.recv(timeout=2.0)          # the peer's response

See docs/python.md for the whole interface, the threads and the choices it makes.
"""

from __future__ import annotations

import enum
import logging
import threading
import time
import weakref
from typing import Callable, Iterable, Iterator, NamedTuple, Optional, Union

from . import _qbcantp

__all__ = [
    "Endpoint",
    "Payload",
    "Status",
    "StatusEvent",
    "TransportError",
    "SendTimeout",
    "Disconnected",
    "Cleared",
    "EndpointClosed",
    "MAX_PAYLOAD",
]

#: Largest payload the transport carries, in bytes (the length field of a first frame has 12
#: bits). The smallest is 1.
MAX_PAYLOAD: int = _qbcantp.MAX_PAYLOAD

_log = logging.getLogger("qbcantp")


class Status(enum.IntEnum):
    """A status report of the endpoint (the values are the endpoint's own codes)."""

    #: The first frame from the peer arrived (after start, or after a loss was reported).
    CONNECTED = 0
    #: Sending failed five times in a row while the peer counted as connected: every queued
    #: payload was dropped.
    DISCONNECTED = 1
    #: Sending failed five times in a row while the peer was not connected: every queued
    #: payload was dropped.
    SEND_TIMEOUT = 2
    #: A segmented payload being received stalled for 1 s and was dropped.
    RECEIVE_TIMEOUT = 3
    #: The peer acknowledged a payload; ``ack_id`` is its identifier.
    ACKNOWLEDGED = 4


class StatusEvent(NamedTuple):
    """One status report: what happened, the acknowledged identifier and when."""

    #: The report.
    status: Status
    #: For ``Status.ACKNOWLEDGED`` the identifier the endpoint reports for the acknowledged
    #: payload: DATA[1] of its first frame (the first payload byte of a payload of up to 7
    #: bytes, the low byte of the length of a longer one). 0 for every other status.
    ack_id: int
    #: Wall-clock time of the report (``time.time()`` scale), taken on the transport thread.
    time: float


class Payload(NamedTuple):
    """One payload delivered by the endpoint."""

    #: Identifier of the CAN frame that completed the payload.
    can_id: int
    #: The payload bytes.
    data: bytes


class TransportError(Exception):
    """Base of the exceptions of this module; ``status`` is the endpoint's report, if any."""

    def __init__(self, message: str, status: Optional[Status] = None) -> None:
        super().__init__(message)
        #: The status the endpoint reported for the failure (None where it reported none).
        self.status = status


class SendTimeout(TransportError):
    """The endpoint gave a payload up: no acknowledgement after five attempts, and the peer was
    not connected (``status`` is ``Status.SEND_TIMEOUT``). Also raised when the endpoint gave
    it up without a report because a loss of the peer had already been reported."""


class Disconnected(TransportError):
    """The endpoint gave a payload up after five failed attempts while the peer counted as
    connected, and declared the peer lost (``status`` is ``Status.DISCONNECTED``)."""


class Cleared(TransportError):
    """``clear()`` dropped the payload before it was acknowledged (``status`` is None)."""


class EndpointClosed(TransportError):
    """The endpoint is closed (or was closed while the call waited)."""


_OUTCOMES = {
    _qbcantp.OUTCOME_SEND_TIMEOUT: (SendTimeout, Status.SEND_TIMEOUT,
                                    "the endpoint gave the payload up: no acknowledgement "
                                    "after 5 attempts (send time-out)"),
    _qbcantp.OUTCOME_DISCONNECTED: (Disconnected, Status.DISCONNECTED,
                                    "the endpoint gave the payload up after 5 failed attempts "
                                    "and declared the peer lost (disconnected)"),
    _qbcantp.OUTCOME_CLEARED: (Cleared, None, "clear() dropped the payload before it was "
                                              "acknowledged"),
    _qbcantp.OUTCOME_CLOSED: (EndpointClosed, None, "the endpoint was closed before the payload "
                                                    "was acknowledged"),
}

#: How often the bus reader looks whether it should stop (seconds): bus.recv() waits at most
#: this long.
_BUS_POLL = 0.05


#: The receive buffer asked for on a python-can SocketCAN bus (the C++ proxy asks the same).
_RECEIVE_BUFFER_BYTES = 1 << 20
#: SO_RCVBUFFORCE of Linux (not named by every Python's socket module): exceeds rmem_max, as root.
_SO_RCVBUFFORCE = 33


def _enlarge_receive_buffer(bus) -> None:
    """Gives the CAN socket of a python-can ``socketcan`` bus a receive buffer of 1 MiB.

    python-can keeps the kernel's default (rmem_default, 212,992 bytes on Debian: about 300 CAN
    frames), while one 4095-byte payload is 586 frames that a sender writes in one burst: when
    the reader thread gets the processor late, the kernel drops the frames beyond the buffer
    and the endpoint refuses the payload. Buses without a CAN socket are left alone; a buffer
    already larger is kept; a refusal (no privilege, no room) leaves the bus as it was.
    """
    import socket

    sock = getattr(bus, "socket", None)
    if not isinstance(sock, socket.socket) or sock.family != getattr(socket, "AF_CAN", -1):
        return
    try:
        # The kernel reports twice the size asked for (its bookkeeping share included).
        if sock.getsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF) >= 2 * _RECEIVE_BUFFER_BYTES:
            return
        try:
            sock.setsockopt(socket.SOL_SOCKET, _SO_RCVBUFFORCE, _RECEIVE_BUFFER_BYTES)
        except OSError:
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, _RECEIVE_BUFFER_BYTES)
    except OSError as exc:
        _log.warning("could not enlarge the receive buffer of the bus's CAN socket: %s", exc)


def _ids(rx_ids: Union[int, Iterable[int]]) -> frozenset:
    if isinstance(rx_ids, int):
        rx_ids = [rx_ids]
    ids = frozenset(int(i) for i in rx_ids)
    if not ids:
        raise ValueError("rx_ids must name at least one CAN identifier (the peer's)")
    for i in ids:
        if not 0 <= i <= 0x7FF:
            raise ValueError(f"rx_ids: {i:#x} is not a standard CAN identifier (0 to 0x7FF)")
    return ids


class _BusReader:
    """The one thread that reads a python-can bus for every endpoint attached to it.

    python-can hands each received frame to one ``recv()`` call, so two endpoints reading the
    same bus object would steal each other's frames: one reader per bus object dispatches every
    frame to each attached endpoint whose ``rx_ids`` hold its identifier. It runs while at least
    one endpoint is attached.
    """

    _readers: "weakref.WeakKeyDictionary" = weakref.WeakKeyDictionary()
    _lock = threading.Lock()

    def __init__(self, bus) -> None:
        self.bus = bus
        _enlarge_receive_buffer(bus)
        self.routes: dict = {}  # Endpoint -> (rx_ids, core)
        self.thread: Optional[threading.Thread] = None
        self.stop = False
        self.frames = 0

    @classmethod
    def attach(cls, bus, endpoint: "Endpoint", rx_ids: frozenset, core) -> None:
        with cls._lock:
            reader = cls._readers.get(bus)
            if reader is None or reader.stop:
                reader = _BusReader(bus)
                cls._readers[bus] = reader
            routes = dict(reader.routes)
            routes[endpoint] = (rx_ids, core)
            reader.routes = routes  # replaced whole: the thread reads it without the lock
            if reader.thread is None:
                reader.thread = threading.Thread(target=reader._run, name="qbcantp-bus-reader",
                                                 daemon=True)
                reader.thread.start()

    @classmethod
    def detach(cls, bus, endpoint: "Endpoint") -> None:
        join = None
        with cls._lock:
            reader = cls._readers.get(bus)
            if reader is None or endpoint not in reader.routes:
                return
            routes = dict(reader.routes)
            del routes[endpoint]
            reader.routes = routes
            if not routes:
                reader.stop = True
                del cls._readers[bus]
                join = reader.thread
        if join is not None and join is not threading.current_thread():
            join.join()

    def _run(self) -> None:
        bus = self.bus
        failing = False
        while not self.stop:
            try:
                msg = bus.recv(timeout=_BUS_POLL)
            except Exception as exc:
                # A bus that fails (shut down, adapter gone) keeps failing: logged once until it
                # works again, and retried at the polling pace instead of spinning.
                if not failing:
                    _log.error("bus.recv() failed: %s", exc)
                    failing = True
                time.sleep(_BUS_POLL)
                continue
            failing = False
            if msg is None or msg.is_error_frame or msg.is_remote_frame or msg.is_fd \
                    or msg.is_extended_id or msg.dlc > 8:
                continue
            can_id = msg.arbitration_id
            data = bytes(msg.data)
            stamp = int(msg.timestamp * 1e6) if msg.timestamp and msg.timestamp > 0 else 0
            for rx_ids, core in self.routes.values():
                if can_id in rx_ids:
                    self.frames += 1
                    core.feed_frame(can_id, False, data, stamp)


class Endpoint:
    """One endpoint of the CAN transport protocol on a python-can bus.

    ``Endpoint(bus, tx_id, rx_ids, debug=0)`` starts the endpoint at once. Its frames go out on
    ``bus`` (any ``can.BusABC``: virtual, socketcan, vendor interfaces) with the standard
    identifier ``tx_id``; standard data frames received on ``bus`` whose identifier is in
    ``rx_ids`` go into the endpoint with the frame's time stamp. Other frames (other
    identifiers, extended, remote, error and CAN FD frames) are left alone. ``debug`` is the
    level of the endpoint's log lines on standard output and error (0: none but the
    "[INFO] " lines of start, connection and losses).

    The endpoint owns a reader thread for ``bus`` (shared by every endpoint on the same bus
    object): do not call ``bus.recv()`` yourself while an endpoint runs on it. The bus stays
    yours: ``close()`` does not shut it down.

    Keyword-only options:

    - ``on_status``: a callable taking one ``StatusEvent``, called on a Python thread of the
      endpoint for every status report (never on the transport thread). An exception it raises
      is reported through ``threading.excepthook`` (printed with its traceback by default),
      counted in ``callback_errors``, and the endpoint goes on.
    - ``status_queue_size``: how many status events ``next_status()`` (and the callback
      thread) keep at most; when full, the oldest is dropped and counted
      (``dropped_status_events``). Default 1000.

    Use it as a context manager: ``with Endpoint(...) as ep:`` closes it on exit, also when an
    exception leaves the block. Every method may be called from any thread.
    """

    def __init__(self, bus, tx_id: int, rx_ids: Union[int, Iterable[int]], debug: int = 0, *,
                 on_status: Optional[Callable[[StatusEvent], object]] = None,
                 status_queue_size: int = 1000) -> None:
        if bus is None or not hasattr(bus, "send") or not hasattr(bus, "recv"):
            raise TypeError("bus must be a python-can bus (can.BusABC)")
        ids = _ids(rx_ids)
        self._init(tx_id, debug, on_status, status_queue_size, None, ids)
        self._bus = bus
        self.rx_ids = ids
        self._tx_thread = threading.Thread(target=self._forward_frames, name="qbcantp-bus-writer",
                                           daemon=True)
        self._tx_thread.start()
        _BusReader.attach(bus, self, ids, self._core)

    @classmethod
    def socketcan(cls, channel: str, tx_id: int, rx_ids: Union[int, Iterable[int]],
                  debug: int = 0, *, on_status: Optional[Callable[[StatusEvent], object]] = None,
                  status_queue_size: int = 1000) -> "Endpoint":
        """An endpoint on the Linux SocketCAN interface ``channel`` (``"can0"``, ``"vcan0"``)
        through the C++ SocketCAN proxy: no Python on the frame path, and python-can is not
        needed. The raw socket receives only standard data frames of ``rx_ids`` (a kernel
        filter), with the kernel's receive time stamps. The other arguments are those of
        ``Endpoint()``. Raises ``OSError`` if the interface cannot be opened (no such
        interface, no permission); the failed call is also logged on standard error."""
        ids = _ids(rx_ids)
        self = cls.__new__(cls)
        self._init(tx_id, debug, on_status, status_queue_size, str(channel), ids)
        self.rx_ids = ids
        return self

    def _init(self, tx_id, debug, on_status, status_queue_size, interface, ids) -> None:
        if not isinstance(tx_id, int) or not 0 <= tx_id <= 0x7FF:
            raise ValueError("tx_id must be a standard CAN identifier, 0 to 0x7FF")
        self._closed = False
        self._close_lock = threading.Lock()
        self._bus = None
        self._tx_thread: Optional[threading.Thread] = None
        self._callback_thread: Optional[threading.Thread] = None
        #: Exceptions raised by the status callback so far.
        self.callback_errors = 0
        #: Frames ``bus.send()`` refused so far (each is lost, as on a bus that drops it; the
        #: protocol's time-out and retries follow).
        self.bus_send_errors = 0
        #: Frames put on the bus so far.
        self.frames_sent = 0
        self.tx_id = tx_id
        self.rx_ids = frozenset()
        #: The SocketCAN interface of an endpoint made by ``Endpoint.socketcan()``, else None.
        self.interface = interface
        if interface is None:
            self._core = _qbcantp._Core(tx_id, int(debug), int(status_queue_size))
        else:
            self._core = _qbcantp._Core(tx_id, int(debug), int(status_queue_size), interface,
                                        sorted(ids))
        self._on_status = on_status
        if on_status is not None:
            self._core.enable_callback_queue()
            self._callback_thread = threading.Thread(target=self._dispatch_status,
                                                     name="qbcantp-status-callback", daemon=True)
            self._callback_thread.start()

    # -- the threads ------------------------------------------------------------------------

    def _forward_frames(self) -> None:
        import can  # python-can is needed only for endpoints on a python-can bus

        core = self._core
        bus = self._bus
        while True:
            frames = core.take_frames(None)
            if frames is None:
                return
            for can_id, data in frames:
                try:
                    bus.send(can.Message(arbitration_id=can_id, data=data, is_extended_id=False))
                    self.frames_sent += 1
                except Exception as exc:
                    self.bus_send_errors += 1
                    _log.error("bus.send() failed, frame %03X#%s lost: %s", can_id, data.hex(),
                               exc)

    def _dispatch_status(self) -> None:
        core = self._core
        while True:
            code, status, ack_id, when = core.next_status(True, None)
            if code == 2:
                return
            event = StatusEvent(Status(status), ack_id, when)
            try:
                self._on_status(event)
            except BaseException as exc:  # reported, never swallowed, never fatal to the endpoint
                self.callback_errors += 1
                threading.excepthook(threading.ExceptHookArgs(
                    (type(exc), exc, exc.__traceback__, threading.current_thread())))

    # -- sending ----------------------------------------------------------------------------

    def send(self, data, wait: bool = True, timeout: Optional[float] = None) -> None:
        """Hands one payload (bytes-like, 1 to 4095 bytes) to the endpoint.

        With ``wait`` (the default) it returns once the peer has acknowledged the payload, and
        raises ``SendTimeout`` or ``Disconnected`` (with the endpoint's status) when the endpoint
        gives it up, ``Cleared`` when ``clear()`` drops it, ``EndpointClosed`` when the endpoint
        is closed meanwhile, and ``TimeoutError`` when ``timeout`` seconds pass first (the
        payload then stays queued). Without ``wait`` it returns at once; the outcome shows in
        the status events. Payloads are sent one after the other in the order they were handed
        over, the next 10 ms after the previous one's acknowledgement.

        Raises ``ValueError`` for 0 bytes or for 4096 bytes and more (with the reason).
        """
        core = self._live_core()
        try:
            ticket = core.submit(data)
        except _qbcantp.CoreError as exc:
            if core.closed:
                raise EndpointClosed("the endpoint is closed") from None
            raise TransportError(str(exc)) from None
        if not wait:
            core.forget(ticket)
            return
        outcome = core.wait_sent(ticket, timeout)
        if outcome == _qbcantp.OUTCOME_ACKNOWLEDGED:
            return
        if outcome == _qbcantp.OUTCOME_PENDING:
            core.forget(ticket)
            raise TimeoutError(f"payload not acknowledged within {timeout} s; it stays queued "
                               "(clear() drops it)")
        cls, status, text = _OUTCOMES[outcome]
        raise cls(text, status)

    def clear(self, all: bool = False) -> None:
        """Drops queued payloads: all but the one being sent, or with ``all`` every one.

        A waiting ``send()`` of a dropped payload raises ``Cleared``.
        """
        self._live_core().clear(bool(all))

    @property
    def send_queue_empty(self) -> bool:
        """True when every payload handed over has been acknowledged or dropped and none is on
        its way into the endpoint. It may read True for an instant before a payload just handed
        over is queued: ask again a few milliseconds later to be sure (True once closed)."""
        return self._core.send_queue_empty()

    # -- receiving --------------------------------------------------------------------------

    def recv(self, timeout: Optional[float] = None) -> Optional[Payload]:
        """The next delivered payload as ``Payload(can_id, data)`` (a tuple), or None when
        ``timeout`` seconds pass first (None: wait without limit). Raises ``EndpointClosed``
        once the endpoint is closed. Payloads wait in the endpoint's pipe until read; an
        endpoint whose payloads are never read stops receiving once 64 KiB wait there."""
        code, can_id, data = self._live_core().recv(timeout)
        if code == 0:
            return Payload(can_id, data)
        if code == 2:
            raise EndpointClosed("the endpoint is closed")
        return None

    def __iter__(self) -> Iterator[Payload]:
        """Yields every delivered payload as ``Payload(can_id, data)``, waiting for each;
        ends when the endpoint is closed."""
        while True:
            try:
                payload = self.recv()
            except EndpointClosed:
                return
            if payload is not None:
                yield payload

    # -- status -----------------------------------------------------------------------------

    def next_status(self, timeout: Optional[float] = 0) -> Optional[StatusEvent]:
        """The oldest status event not yet taken, or None when none comes within ``timeout``
        seconds (default 0: do not wait; None: wait without limit). None once closed."""
        code, status, ack_id, when = self._core.next_status(False, timeout)
        if code == 0:
            return StatusEvent(Status(status), ack_id, when)
        return None

    @property
    def dropped_status_events(self) -> int:
        """Status events dropped because the queue of ``next_status()`` was full."""
        return self._core.dropped_status_events(False)

    # -- the endpoint -----------------------------------------------------------------------

    def set_debug(self, level: int) -> None:
        """Sets the debug level of the endpoint's log lines (from its next line on)."""
        self._live_core().set_debug(int(level))

    @property
    def running(self) -> bool:
        """True while the transport thread runs (False once closed)."""
        return self._core.running

    @property
    def exit_reason(self) -> str:
        """Why the transport thread ended by itself (empty while it runs or after close())."""
        return self._core.exit_reason

    @property
    def closed(self) -> bool:
        return self._closed

    def close(self) -> None:
        """Stops the endpoint and releases every descriptor and thread it holds. Waiting calls
        on other threads return (``send`` and ``recv`` raise ``EndpointClosed``). Payloads not
        yet acknowledged are dropped. Idempotent; the bus is not shut down."""
        with self._close_lock:
            if self._closed:
                return
            self._closed = True
        if self._bus is not None:
            _BusReader.detach(self._bus, self)
        self._core.close()
        me = threading.current_thread()
        for t in (self._tx_thread, self._callback_thread):
            if t is not None and t is not me:
                t.join()

    def _live_core(self):
        if self._closed:
            raise EndpointClosed("the endpoint is closed")
        return self._core

    def __enter__(self) -> "Endpoint":
        return self

    def __exit__(self, exc_type, exc, tb) -> None:
        self.close()

    def __del__(self) -> None:
        try:
            self.close()
        except Exception:
            pass

    def __repr__(self) -> str:
        state = "closed" if self._closed else "running"
        ids = ",".join(f"{i:#05x}" for i in sorted(self.rx_ids))
        return f"<qbcantp.Endpoint tx_id={self.tx_id:#05x} rx_ids={{{ids}}} {state}>"
