"""Awaited sockets, on the event loop's own transports.

The HTTP library's own serve any kind of loop, and half of an exchange's time on its socket goes into
that.
"""

from __future__ import annotations

import asyncio
import contextlib
import select
import socket
import ssl
from collections.abc import Iterable
from typing import Any

import httpcore

_ENOUGH = 256 * 1024  # bytes that wait to be read; more stay with the peer
_NUMERIC = socket.NI_NUMERICHOST | socket.NI_NUMERICSERV
_NEXT_ADDRESS_S = 0.25  # after which the next address is tried, too


class Socket(asyncio.Protocol, httpcore.AsyncNetworkStream):
    """One connection, read by one task at a time, and written by one.

    Attributes:
        transport: What is read and written; `plain` until it is secured.
        plain: The transport of the connection itself.
    """

    def __init__(self) -> None:
        self.transport: Any = None
        self.plain: Any = None
        self._received = bytearray()
        self._ended = False  # nothing more can be received
        self._error: Exception | None = None  # by which the connection was lost
        self._paused = False
        self._reading: asyncio.Future[None] | None = None
        self._writing: asyncio.Future[None] | None = None  # while nothing more should be written
        self._full = False

    # What the loop tells:

    def connection_made(self, transport: Any) -> None:
        self.transport = self.plain = transport

    def data_received(self, data: bytes) -> None:
        self._received += data
        if len(self._received) > _ENOUGH and not self._paused:
            self._paused = True
            self.transport.pause_reading()
        _wake(self._reading)

    def eof_received(self) -> None:
        self._ended = True
        _wake(self._reading)

    def connection_lost(self, exc: Exception | None) -> None:
        self._ended = True
        self._error = exc
        _wake(self._reading)
        self.resume_writing()

    def pause_writing(self) -> None:
        self._full = True

    def resume_writing(self) -> None:
        self._full = False
        _wake(self._writing)

    # What the HTTP library asks for:

    async def read(self, max_bytes: int, timeout: float | None = None) -> bytes:
        if not self._received and not self._ended:
            self._reading = asyncio.get_running_loop().create_future()
            await _wait(self._reading, timeout, httpcore.ReadTimeout("timed out"))
        if self._received:
            return self._take(max_bytes)
        if self._error is not None:
            raise httpcore.ReadError(str(self._error)) from self._error
        return b""

    def _take(self, most: int) -> bytes:
        taken = bytes(self._received[:most])
        del self._received[:most]
        if self._paused and not self._ended:
            self._paused = False
            self.transport.resume_reading()
        return taken

    async def write(self, buffer: bytes, timeout: float | None = None) -> None:
        if not self.transport.is_closing():
            self.transport.write(buffer)
        if self._full:
            self._writing = asyncio.get_running_loop().create_future()
            await _wait(self._writing, timeout, httpcore.WriteTimeout("timed out"))
        if self.transport.is_closing():
            raise httpcore.WriteError(str(self._error or "closed")) from self._error

    async def start_tls(
        self,
        ssl_context: ssl.SSLContext,
        server_hostname: str | None = None,
        timeout: float | None = None,
    ) -> httpcore.AsyncNetworkStream:
        start_tls = asyncio.get_running_loop().start_tls
        try:
            self.transport = await _finish(
                start_tls(self.plain, self, ssl_context, server_hostname=server_hostname), timeout
            )
        except BaseException:
            self.plain.abort()
            raise
        if self.transport is None:
            raise httpcore.ConnectError("closed while it was secured")
        return self

    async def aclose(self) -> None:
        self.transport.abort()
        await asyncio.sleep(0)  # the loop closes it in its next turn

    def get_extra_info(self, info: str) -> Any:
        if info == "is_readable":
            return self._ended or bool(self._received) or self._has_arrived()
        names = {"client_addr": "sockname", "server_addr": "peername"}
        return self.transport.get_extra_info(names.get(info, info))

    def _has_arrived(self) -> bool:
        """Whether there is something that the loop has not come to."""
        if self.transport.is_closing():
            return True
        poll = select.poll()
        poll.register(self.transport.get_extra_info("socket").fileno(), select.POLLIN)
        return bool(poll.poll(0))


async def connect(
    host: str,
    port: int,
    timeout: float | None,
    local_address: str | None = None,
    socket_options: Iterable[Any] | None = None,
) -> Socket:
    """A connection to the first of the host's addresses that takes one."""
    local = None if local_address is None else (local_address, 0)
    transport = await _finish(_connect(host, port, local), timeout)
    for option in socket_options or ():
        transport.get_extra_info("socket").setsockopt(*option)
    connected: Socket = transport.get_protocol()
    return connected


async def _connect(host: str, port: int, local: Any) -> Any:
    """The transport. An address that is silent does not hold the next ones up."""
    found = await _addresses(host, port)
    untried = [socket.getnameinfo(each[4], _NUMERIC)[0] for each in found]  # with its scope
    trying: set[asyncio.Future[Any]] = set()
    try:
        while True:
            if untried:
                making = _transport(untried.pop(0), port, local)
                trying.add(asyncio.ensure_future(making))
            patience = _NEXT_ADDRESS_S if untried else None
            done, _ = await asyncio.wait(trying, timeout=patience, return_when="FIRST_COMPLETED")
            for task in done:
                if task.exception() is None:
                    trying.remove(task)
                    return task.result()
            trying -= done
            if not (untried or trying):
                return done.pop().result()
    finally:
        for task in trying:
            _drop(task)


async def _addresses(host: str, port: int) -> list[Any]:
    """Those of a host. Only a name needs a thread, which would hang the exit that met its start."""
    try:
        return socket.getaddrinfo(
            host, port, type=socket.SOCK_STREAM, flags=socket.AI_NUMERICHOST | socket.AI_NUMERICSERV
        )
    except socket.gaierror:
        loop = asyncio.get_running_loop()
        return await loop.getaddrinfo(host, port, type=socket.SOCK_STREAM)


async def _transport(address: str, port: int, local: Any) -> Any:
    loop = asyncio.get_running_loop()
    transport, _ = await loop.create_connection(Socket, address, port, local_addr=local)
    return transport


def _wake(waiting: asyncio.Future[None] | None) -> None:
    if waiting is not None and not waiting.done():
        waiting.set_result(None)


def _give_up(waiting: asyncio.Future[None], error: Exception) -> None:
    if not waiting.done():
        waiting.set_exception(error)


async def _wait(waiting: asyncio.Future[None], timeout: float | None, error: Exception) -> None:
    """Waits to be woken. A cancellation is the caller's, whenever it comes."""
    if timeout is None:
        return await waiting
    timer = asyncio.get_running_loop().call_later(timeout, _give_up, waiting, error)
    try:
        return await waiting
    finally:
        timer.cancel()


async def _finish(making: Any, timeout: float | None) -> Any:
    """What makes a transport, if it is done in time; a transport that comes too late is closed."""
    task = asyncio.ensure_future(making)
    try:
        await asyncio.wait({task}, timeout=timeout)
    except BaseException:
        _drop(task)
        raise
    if not task.done():
        _drop(task)
        raise httpcore.ConnectTimeout("timed out")
    try:
        return task.result()
    except (OSError, EOFError) as error:
        raise httpcore.ConnectError(str(error)) from error


def _drop(task: asyncio.Future[Any]) -> None:
    """Nobody wants the transport any more that is being made, or was made in this very moment."""
    if task.done():
        _abort(task)
    else:
        with contextlib.suppress(RuntimeError):  # the loop is closed
            task.cancel()
            task.add_done_callback(_abort)


def _abort(task: asyncio.Future[Any]) -> None:
    if not task.cancelled() and task.exception() is None and task.result():
        task.result().abort()
