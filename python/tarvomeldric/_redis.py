"""A Redis client that no server can hold up or fill up.

redis-py bounds each read, so a server that sends a byte now and then is waited for without end, and
it takes in whatever is sent. Here an exchange has one end in time, and its replies have a size.
"""

from __future__ import annotations

import contextlib
import inspect
import io
import math
import socket
import ssl
import threading
import time
from collections.abc import Callable, Iterator
from typing import Any

_MESSAGE_TIMEOUT_S = 3.0  # seconds from the first byte of a published message to its last
_LARGEST_REPLY = 16 * 1024 * 1024  # bytes
_ELEMENT = 32  # bytes that an element counts for beside its text, so that empty ones count too
_LONGEST_LINE = 64 * 1024  # bytes


_Decode = Callable[[bytes], Any]


class _Bounds(threading.local):
    """What is left of the exchange that this thread has under way: its time, and what it may read."""

    def __init__(self) -> None:
        self.lift()

    def begin(self, seconds: float) -> None:
        self._end: float = time.monotonic() + seconds
        self._room: float = _LARGEST_REPLY

    def lift(self) -> None:
        self._end = self._room = math.inf

    def left(self) -> float | None:
        """Seconds, or None when no exchange is under way."""
        return None if self._end == math.inf else max(self._end - time.monotonic(), 0.0)

    def spend(self, size: int) -> None:
        """Counts a piece of a reply, before it is read."""
        self._room -= size
        if self._room < 0:
            raise OSError("the reply is too large")
        if self.left() == 0:
            raise TimeoutError("the reply takes too long")


_bounds = _Bounds()


@contextlib.contextmanager
def exchange(seconds: float) -> Iterator[None]:
    """Ends what this thread asks of a Redis, connecting included, after so many seconds in all.

    Outside of it a reply may be long in coming, as a published message is, but then has to come
    whole within 3 s.
    """
    _bounds.begin(seconds)
    try:
        yield
    finally:
        _bounds.lift()


def connect(url: str) -> Any:
    """A client for this URL; it connects when it is used."""
    import redis
    import redis.connection
    from redis.backoff import NoBackoff
    from redis.retry import Retry

    library: Any = redis.connection
    options = {**library.parse_url(url), **_without_greetings(redis.Redis)}
    kind = options.pop("connection_class", library.Connection)
    options["retry"] = Retry(NoBackoff(), 0)
    pool = library.ConnectionPool(
        connection_class=type(kind.__name__, (_Bounded, kind), {}),
        decode_responses=True,
        encoding_errors="replace",
        **options,
    )
    client = redis.Redis(connection_pool=pool)
    client.auto_close_connection_pool = True
    return client


def _without_greetings(client: Any) -> dict[str, Any]:
    """Options, where they exist, that save a new connection its round trips of introduction."""
    known = inspect.signature(client).parameters
    names = ["driver_info"] if "driver_info" in known else ["lib_name", "lib_version"]
    options = {"protocol": 2, **dict.fromkeys(names)}
    return {name: value for name, value in options.items() if name in known}


class _Bounded:
    """Makes a connection, of any of redis-py's kinds, one that keeps within the bounds."""

    connect: Any
    _sock: Any

    def __init__(self, **options: Any) -> None:
        connection: Any = super()
        connection.__init__(**{**options, "parser_class": _Parser})

    @property
    def socket_timeout(self) -> float | None:
        left = _bounds.left()
        return None if left is None else max(left, 0.001)  # 0 would mean not to block

    @socket_timeout.setter
    def socket_timeout(self, _: Any) -> None:
        """The bounds count, whatever the URL asks for."""

    socket_connect_timeout = socket_timeout

    def send_packed_command(self, command: Any, check_health: bool = True) -> None:
        self.connect()
        self._sock.settimeout(self.socket_timeout)
        connection: Any = super()
        # In one piece, as the time-out is one for each piece.
        connection.send_packed_command([b"".join(command)], check_health)


class _Parser:
    """Reads replies, in the second version of the protocol, within a connection's bounds."""

    def __init__(self, socket_read_size: int) -> None:
        self._read_size = socket_read_size

    def on_connect(self, connection: Any) -> None:
        self._decode = connection.encoder.decode
        self._bytes = _Bytes(connection._sock)
        self._reader: Any = io.BufferedReader(self._bytes, self._read_size)

    def on_disconnect(self) -> None:
        self._reader = None

    def can_read(self, timeout: float = 0) -> bool:
        self._bytes.patience = timeout
        try:
            return bool(self._reader.peek(1))
        except (TimeoutError, BlockingIOError, ssl.SSLWantReadError):
            return False
        finally:
            self._bytes.patience = None

    def read_response(self, disable_decoding: bool = False, **_: Any) -> Any:
        decode = bytes if disable_decoding else self._decode
        if _bounds.left() is not None:
            return self._reply(decode)
        self._reader.peek(1)
        with exchange(_MESSAGE_TIMEOUT_S):
            return self._reply(decode)

    def _reply(self, decode: _Decode) -> Any:
        kind, text = self._line()
        if kind != b"*":
            return self._element(kind, text, decode)
        size = int(text)
        return None if size < 0 else [self._element(*self._line(), decode) for _ in range(size)]

    def _line(self) -> tuple[bytes, bytes]:
        line = self._reader.readline(_LONGEST_LINE)
        if not line.endswith(b"\r\n"):
            raise ValueError("a line without an end")
        _bounds.spend(len(line) + _ELEMENT)
        return line[:1], line[1:-2]

    def _element(self, kind: bytes, text: bytes, decode: _Decode) -> Any:
        if kind == b"$":
            size = int(text)
            return None if size < 0 else decode(self._bulk(size))
        if kind == b"+":
            return decode(text)
        if kind == b":":
            return int(text)
        if kind == b"-":
            return _error(text.decode(errors="replace"))
        raise ValueError("not a reply to anything that is asked here")

    def _bulk(self, size: int) -> bytes:
        _bounds.spend(size)
        data: bytes = self._reader.read(size + 2)
        return data[:-2]


def _error(text: str) -> Exception:
    """The error that the server tells of; one of the connection itself is raised."""
    import redis.connection

    parser: Any = redis.connection.DefaultParser
    error: Exception = parser(0).parse_error(text)
    if isinstance(error, redis.ResponseError):
        return error
    raise error


class _Bytes(io.RawIOBase):
    """What a socket receives, for as long as the bounds allow."""

    def __init__(self, receiving: socket.socket) -> None:
        self._socket = receiving
        self.patience: float | None = None  # seconds, in place of the bounds

    def readable(self) -> bool:
        return True

    def readinto(self, buffer: Any) -> int:
        left = _bounds.left() if self.patience is None else self.patience
        self._socket.settimeout(left)
        size = self._socket.recv_into(buffer)
        if not size:
            raise ConnectionResetError("the server closed the connection")
        return size
