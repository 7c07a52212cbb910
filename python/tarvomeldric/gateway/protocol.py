"""How long a connection may take to say what it wants, and to take its answer."""

from __future__ import annotations

import asyncio
import contextlib
import fcntl
import re
import sys
import termios
from collections import deque
from typing import Any

from uvicorn.protocols.http.httptools_impl import HttpToolsProtocol

_HEAD_S = 10.0
_LONGEST_HEAD = 64 * 1024  # bytes
_OFFER = re.compile(rb"\r\nupgrade:[^\r\n]*", re.IGNORECASE)
_READER_S = 60.0  # in which a client takes at least something of its answer
_SLACK_S = 10.0  # what the application says to a slow client comes first


class PatientProtocol(HttpToolsProtocol):
    """The server's own, which waits for ever for what never ends or is never read.

    Attributes:
        body_timeout: Seconds that the body of a request may take.
    """

    body_timeout: float
    _timer: asyncio.TimerHandle | None = None
    _reader: asyncio.TimerHandle | None = None
    _part = ""  # of a request, that is arriving
    _head = 0  # bytes of a head so far
    _ahead: deque[Any]  # unanswered requests before the newest one

    def connection_made(self, transport: Any) -> None:
        super().connection_made(transport)
        self._ahead = deque()
        self._wait(_HEAD_S)

    def connection_lost(self, exc: Exception | None) -> None:
        self._stop_waiting()
        self.resume_writing()
        for cycle in self._ahead:  # the newest one is told by the server itself
            cycle.disconnected = True
            cycle.message_event.set()
        super().connection_lost(exc)

    def pause_writing(self) -> None:
        super().pause_writing()
        self._watch_reader()

    def resume_writing(self) -> None:
        super().resume_writing()
        if self._reader is not None:
            self._reader.cancel()
            self._reader = None

    def data_received(self, data: bytes) -> None:
        if not self._part and not data.strip(b"\r\n"):
            return  # blank lines between requests, by which a connection would never be idle
        super().data_received(data if self._part == "body" else _without_offer(data))
        if self._part == "head":
            self._head += len(data)
            if self._head > _LONGEST_HEAD:
                self.transport.abort()

    def on_message_begin(self) -> None:
        super().on_message_begin()
        self._part, self._head = "head", 0
        self._wait(_HEAD_S)

    def on_headers_complete(self) -> None:
        self._part = "body"
        self._wait(self.body_timeout + _SLACK_S)
        if self.cycle:
            self._ahead.append(self.cycle)
        while self._ahead and self._ahead[0].response_complete:
            self._ahead.popleft()
        super().on_headers_complete()

    def on_message_complete(self) -> None:
        self._part = ""
        self._stop_waiting()
        super().on_message_complete()

    def _wait(self, seconds: float) -> None:
        self._stop_waiting()
        self._timer = self.loop.call_later(seconds, self._give_up)

    def _stop_waiting(self) -> None:
        if self._timer is not None:
            self._timer.cancel()
            self._timer = None

    def _give_up(self) -> None:
        self.transport.abort()

    def timeout_keep_alive_handler(self) -> None:
        super().timeout_keep_alive_handler()
        if self.transport.is_closing() and self._reader is None:
            self._watch_reader()  # it closes when the last bytes are read, which may be never

    def _unread(self) -> int:
        """Bytes that the client has not acknowledged; those of the system are most of them."""
        unread: int = self.transport.get_write_buffer_size()
        with contextlib.suppress(OSError, ValueError, AttributeError):
            connection = self.transport.get_extra_info("socket")
            told = fcntl.ioctl(connection.fileno(), termios.TIOCOUTQ, bytes(4))
            unread += int.from_bytes(told, sys.byteorder)
        return unread

    def _watch_reader(self) -> None:
        self._reader = self.loop.call_later(_READER_S, self._look_at_reader, self._unread())

    def _look_at_reader(self, unread: int) -> None:
        if self._unread() < unread:
            self._watch_reader()
        else:
            self._give_up()


def _without_offer(data: bytes) -> bytes:
    """A head without the offer of another protocol, such as clients make with every request.

    The offer may be passed over; the parser would pass over the body that comes with it.
    """
    head, end, rest = data.partition(b"\r\n\r\n")
    return _OFFER.sub(b"", head) + end + rest
