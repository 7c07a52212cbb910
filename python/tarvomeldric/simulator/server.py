"""The simulator's HTTP server: a desk where requests arrive, and one object per connection."""

from __future__ import annotations

import asyncio
import socket
import struct
import threading
from collections import deque
from collections.abc import Iterator, Mapping, Sequence
from typing import Any, cast

from .answers import prompt_of, request_kind
from .received import Exchange, ReceivedRequest
from .replies import Fault, Reply
from .script import Script, Settings
from .streams import Piece, stream_of
from .wire import (
    CONTINUE,
    LAST_CHUNK,
    STREAM_DONE,
    awaits_permission,
    chunk,
    refusal,
    response,
    stream_head,
    take_request,
)

_RESET_ON_CLOSE = struct.pack("ii", 1, 0)


class Desk:
    """Notes every request and looks up its reply. Safe to share between threads.

    ``rescript``, ``requests``, ``count`` and ``clear`` are what a simulator can be asked to do
    while it serves.
    """

    def __init__(self, settings: Settings) -> None:
        self._script = Script(settings)
        self._lock = threading.Lock()
        self._exchanges: deque[Exchange] = deque(maxlen=settings.keep)
        self._count = 0

    def receive(self, exchange: Exchange, request: Mapping[str, Any]) -> Reply:
        """Note a request and return the reply to it."""
        with self._lock:
            self._exchanges.append(exchange)
            self._count += 1
        return self._script.next_reply(str(request.get("model")), prompt_of(request))

    def rescript(
        self, replies: Sequence[Reply], default: Reply | None, rules: Mapping[str, Reply] | None
    ) -> None:
        """Replace the replies still to come; None leaves the default or the rules alone."""
        self._script.replace(replies, default, rules)

    def requests(self) -> list[ReceivedRequest]:
        """Return the requests that are kept, oldest first."""
        with self._lock:
            exchanges = list(self._exchanges)
        return [exchange.received() for exchange in exchanges]

    def count(self) -> int:
        """Return how many requests arrived, those no longer kept included."""
        with self._lock:
            return self._count

    def clear(self) -> None:
        """Forget all requests."""
        with self._lock:
            self._exchanges.clear()
            self._count = 0


class Connection(asyncio.Protocol):
    """One client's connection: its requests are answered one after the other.

    A reply that is ready goes out in one write, without a task: this is what makes the
    simulator fast enough to measure other programs with. (The event loop has set TCP_NODELAY.)
    """

    def __init__(self, desk: Desk, connections: set[Connection]) -> None:
        self._desk = desk
        self._connections = connections
        self._buffer = bytearray()
        self._exchange: Exchange | None = None
        self._work: asyncio.Task[None] | None = None

    def connection_made(self, transport: asyncio.BaseTransport) -> None:
        self._transport = cast(asyncio.Transport, transport)
        self._connections.add(self)

    def connection_lost(self, exc: Exception | None) -> None:
        self._connections.discard(self)
        if self._work is not None and self._exchange is not None:
            self._exchange.disconnected = True
            self._work.cancel()

    def data_received(self, data: bytes) -> None:
        self._buffer += data
        self._advance()

    def hang_up(self) -> None:
        """Drop the connection at once."""
        self._transport.abort()

    def _advance(self) -> None:
        while self._work is None and self._buffer and not self._transport.is_closing():
            try:
                exchange = take_request(self._buffer)
            except ValueError as error:
                self._transport.write(refusal(str(error)))
                self._transport.close()
                return
            if exchange is None:
                if awaits_permission(self._buffer):
                    self._transport.write(CONTINUE)
                return
            self._answer(exchange)

    def _answer(self, exchange: Exchange) -> None:
        self._exchange = exchange
        request = exchange.members()
        reply = self._desk.receive(exchange, request)
        stream = stream_of(request_kind(exchange.path, request), reply, request)
        if reply.delay or stream is not None or reply.fault is Fault.STALL:
            work = self._take_time(exchange, request, reply, stream)
            self._work = asyncio.get_running_loop().create_task(work)
        else:
            self._send(exchange, request, reply)

    def _send(self, exchange: Exchange, request: Mapping[str, Any], reply: Reply) -> None:
        if reply.fault is Fault.RESET:
            self._reset()
            return
        self._transport.write(response(reply, exchange, request))
        self._close_unless_kept(exchange, reply)

    async def _take_time(
        self,
        exchange: Exchange,
        request: Mapping[str, Any],
        reply: Reply,
        stream: Iterator[Piece] | None,
    ) -> None:
        await asyncio.sleep(reply.delay)
        if reply.fault is Fault.STALL:
            await _for_ever()
        if stream is None:
            self._send(exchange, request, reply)
        else:
            await self._send_stream(reply, stream)
            self._close_unless_kept(exchange, reply)
        self._work = None
        self._advance()

    async def _send_stream(self, reply: Reply, pieces: Iterator[Piece]) -> None:
        self._transport.write(stream_head(reply))
        for piece in pieces:
            if self._transport.is_closing():  # the client is gone
                return
            if isinstance(piece, Fault):
                await self._break_off(piece)
                return
            if isinstance(piece, bytes):
                self._transport.write(chunk(piece))
            else:
                await asyncio.sleep(piece)
        ending = chunk(STREAM_DONE) if reply.done else b""
        self._transport.write(ending + LAST_CHUNK)

    async def _break_off(self, fault: Fault) -> None:
        if fault is Fault.STALL:
            await _for_ever()
        elif fault is Fault.RESET:
            self._reset()
        else:
            self._transport.close()

    def _reset(self) -> None:
        connection = self._transport.get_extra_info("socket")
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, _RESET_ON_CLOSE)
        self._transport.abort()

    def _close_unless_kept(self, exchange: Exchange, reply: Reply) -> None:
        closing = reply.fault is Fault.TRUNCATED or reply.headers.get("Connection") == "close"
        if closing or not exchange.keep_alive:
            self._transport.close()


async def _for_ever() -> None:
    await asyncio.get_running_loop().create_future()
