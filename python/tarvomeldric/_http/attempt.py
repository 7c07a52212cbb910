"""What is known about one exchange with a provider, wherever in the HTTP library it has got to."""

from __future__ import annotations

import contextlib
import email.utils
import math
import socket
import threading
import time
from collections.abc import Iterator
from contextvars import ContextVar, Token
from datetime import timezone
from time import monotonic
from typing import Any

_LONGEST_S = 1e8  # for longer no socket can be told to wait

_running: ContextVar[AttemptContext | None] = ContextVar("attempt", default=None)


class Abort:
    """Ends a blocking exchange from another thread: what it waits for on its socket is over at once.

    Between two such waits only `asked` tells; the socket may serve somebody else by then.
    """

    def __init__(self) -> None:
        self.asked = False
        self._lock = threading.Lock()
        self._socket: socket.socket | None = None

    def ask(self) -> None:
        with self._lock:
            self.asked = True
            if self._socket is not None:
                with contextlib.suppress(OSError):
                    # Not the TLS layer's own, which another thread is in.
                    socket.socket.shutdown(self._socket, socket.SHUT_RDWR)

    @contextlib.contextmanager
    def watching(self, waited_for: socket.socket) -> Iterator[bool]:
        """While a step waits for this socket; whether it should not begin."""
        with self._lock:
            self._socket = waited_for
        try:
            yield self.asked
        finally:
            with self._lock:
                self._socket = None


class AttemptContext:
    """One exchange. Inside its `with` block it is the running attempt of its thread or task.

    Attributes:
        end: When the whole exchange must be over, on the monotonic clock; infinity for no bound.
        status: The status of the answer, None before there is one.
        headers: The headers of the answer.
        body: The decoded JSON of an answer with status 200, else the text of the refusal.
        content: Its bytes, where those of the request were given.
        stream: The rest of an answer that is streamed.
        abort: What another thread may end it by, if anything.
    """

    __slots__ = (
        "_before",
        "_report",
        "abort",
        "body",
        "content",
        "end",
        "headers",
        "status",
        "stream",
    )

    def __init__(
        self,
        timeout: Any,
        limit: float | None = None,
        report: dict[str, Any] | None = None,
        abort: Abort | None = None,
    ) -> None:
        """Bound it by `timeout` and `limit` seconds from now; by nothing that is no number.

        What it receives is told in `report`, too, where there is one.
        """
        now = monotonic()
        self.end = now + timeout if isinstance(timeout, int | float) else math.inf
        if limit is not None:
            self.end = min(self.end, now + limit)
        self.status: int | None = None
        self.headers: Any = None
        self.body: Any = None
        self.content = b""
        self.stream: Any = None
        self._before: Token[AttemptContext | None] | None = None
        self._report = report
        self.abort = abort
        if self.end - now > _LONGEST_S:
            self.end = math.inf

    def __enter__(self) -> AttemptContext:
        self._before = _running.set(self)
        return self

    def __exit__(self, *_: object) -> None:
        assert self._before is not None
        with contextlib.suppress(ValueError):  # a coroutine may be closed in another context
            _running.reset(self._before)
        if self._report is None or self.status is None:
            return
        if self.status == 200 or self._report.get("status") != 200:  # an answer stands
            self._report.update(status=self.status, headers=self.headers, body=self.body)


def left(timeout: float | None) -> float | None:
    """The seconds that one step of the running attempt may take: `timeout`, or less near its end."""
    attempt = _running.get()
    if attempt is None or attempt.end == math.inf:
        return timeout
    rest = attempt.end - monotonic()
    return rest if timeout is None else min(timeout, rest)


def abort_of_running() -> Abort | None:
    """What the running attempt may be ended by."""
    attempt = _running.get()
    return None if attempt is None else attempt.abort


def retry_after(headers: Any) -> float | None:
    """The seconds after which a provider wants to be asked again; None when it says nothing usable.

    Reads `retry-after-ms`, else `Retry-After` as seconds or as a date.
    """
    get = getattr(headers, "get", None)
    if get is None:
        return None
    for name, unit in (("retry-after-ms", 1e-3), ("retry-after", 1.0)):
        told = get(name)
        seconds = _seconds(told) if isinstance(told, str) else None
        if seconds is not None and math.isfinite(seconds) and seconds > 0:
            return seconds * unit
    return None


def _seconds(told: str) -> float | None:
    with contextlib.suppress(ValueError):
        return float(told)
    try:
        date = email.utils.parsedate_to_datetime(told)
        if date.tzinfo is None:  # of HTTP's own, which are all GMT
            date = date.replace(tzinfo=timezone.utc)
        return date.timestamp() - time.time()
    except (TypeError, ValueError, IndexError, OverflowError, OSError):
        return None
