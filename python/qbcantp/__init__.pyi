"""Type stubs of qbcantp: the CAN transport endpoint for Python test scripts."""

import enum
from typing import Callable, Iterable, Iterator, NamedTuple, Optional, Union

from _typeshed import ReadableBuffer

MAX_PAYLOAD: int

class Status(enum.IntEnum):
    """A status report of the endpoint."""

    CONNECTED = 0
    DISCONNECTED = 1
    SEND_TIMEOUT = 2
    RECEIVE_TIMEOUT = 3
    ACKNOWLEDGED = 4

class StatusEvent(NamedTuple):
    """One status report: what happened, the acknowledged identifier and when."""

    status: Status
    ack_id: int
    time: float

class Payload(NamedTuple):
    """One payload delivered by the endpoint."""

    can_id: int
    data: bytes

class TransportError(Exception):
    """Base of the exceptions of this module."""

    status: Optional[Status]
    def __init__(self, message: str, status: Optional[Status] = ...) -> None: ...

class SendTimeout(TransportError):
    """The endpoint gave a payload up while the peer was not connected."""

class Disconnected(TransportError):
    """The endpoint gave a payload up and declared the peer lost."""

class Cleared(TransportError):
    """clear() dropped the payload before it was acknowledged."""

class EndpointClosed(TransportError):
    """The endpoint is closed."""

class Endpoint:
    """One endpoint of the CAN transport protocol on a python-can bus or a SocketCAN
    interface."""

    tx_id: int
    rx_ids: frozenset[int]
    interface: Optional[str]
    callback_errors: int
    bus_send_errors: int
    frames_sent: int
    def __init__(
        self,
        bus: object,
        tx_id: int,
        rx_ids: Union[int, Iterable[int]],
        debug: int = ...,
        *,
        on_status: Optional[Callable[[StatusEvent], object]] = ...,
        status_queue_size: int = ...,
    ) -> None: ...
    @classmethod
    def socketcan(
        cls,
        channel: str,
        tx_id: int,
        rx_ids: Union[int, Iterable[int]],
        debug: int = ...,
        *,
        on_status: Optional[Callable[[StatusEvent], object]] = ...,
        status_queue_size: int = ...,
    ) -> Endpoint: ...
    def send(self, data: ReadableBuffer, wait: bool = ..., timeout: Optional[float] = ...) -> None: ...
    def clear(self, all: bool = ...) -> None: ...
    @property
    def send_queue_empty(self) -> bool: ...
    def recv(self, timeout: Optional[float] = ...) -> Optional[Payload]: ...
    def __iter__(self) -> Iterator[Payload]: ...
    def next_status(self, timeout: Optional[float] = ...) -> Optional[StatusEvent]: ...
    @property
    def dropped_status_events(self) -> int: ...
    def set_debug(self, level: int) -> None: ...
    @property
    def running(self) -> bool: ...
    @property
    def exit_reason(self) -> str: ...
    @property
    def closed(self) -> bool: ...
    def close(self) -> None: ...
    def __enter__(self) -> Endpoint: ...
    def __exit__(self, exc_type: object, exc: object, tb: object) -> None: ...
