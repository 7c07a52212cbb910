"""The sockets below our clients: the library's own, bounded by the running attempt as a whole.

The library bounds each step of an exchange anew, so an answer that drips would never end. Here no
step gets more time than the attempt has left. The awaited sockets name a failure as the blocking
ones do: by what the operating system said.
"""

from __future__ import annotations

import asyncio
import os
import socket
import ssl
from collections.abc import Callable, Iterable
from typing import Any

import httpcore

from tarvomeldric._http.attempt import abort_of_running, left
from tarvomeldric._http.sockets import connect

# A blocking write is renewed by every byte that the peer takes; one of this size goes out at once.
_SLICE = 16 * 1024


def _left(timeout: float | None, error: type[Exception]) -> float | None:
    seconds = left(timeout)
    if seconds is not None and seconds <= 0:
        raise error("timed out")
    return seconds


def _step(waited_for: socket.socket, step: Callable[..., Any], *arguments: Any) -> Any:
    """One wait on a socket, over as soon as the running attempt is to end."""
    abort = abort_of_running()
    if abort is None:
        return step(*arguments)
    with abort.watching(waited_for) as asked:
        if asked:
            raise httpcore.ReadError("the attempt was ended")
        return step(*arguments)


class _Joined:
    """Lets the head of a request go out together with its body.

    The library writes them one after the other, and an empty piece at the end.
    """

    def __init__(self, inner: Any) -> None:
        self.inner = inner
        self._head: bytes | None = b""  # that is waiting; None once the request is being sent

    def _outgoing(self, buffer: bytes) -> bytes:
        """What is to be sent now, when this is written."""
        if self._head == b"":
            self._head = buffer
            return b""
        head, self._head = self._head or b"", None
        return head + buffer


class Stream(_Joined, httpcore.NetworkStream):
    """A blocking connection."""

    def __init__(self, inner: Any) -> None:
        super().__init__(inner)
        self._socket: socket.socket = inner.get_extra_info("socket")

    def read(self, max_bytes: int, timeout: float | None = None) -> bytes:
        if self._head:  # it had no body
            self.write(b"", timeout)
        self._head = b""
        seconds = _left(timeout, httpcore.ReadTimeout)
        received: bytes = _step(self._socket, self.inner.read, max_bytes, seconds)
        return received

    def write(self, buffer: bytes, timeout: float | None = None) -> None:
        buffer = self._outgoing(buffer)
        for at in range(0, len(buffer), _SLICE):
            part = buffer[at : at + _SLICE]
            seconds = _left(timeout, httpcore.WriteTimeout)
            _step(self._socket, self.inner.write, part, seconds)

    def start_tls(
        self,
        ssl_context: ssl.SSLContext,
        server_hostname: str | None = None,
        timeout: float | None = None,
    ) -> httpcore.NetworkStream:
        seconds = _left(timeout, httpcore.ConnectTimeout)
        if abort_of_running() is None:
            return Stream(self.inner.start_tls(ssl_context, server_hostname, seconds))
        # The TLS layer takes the socket itself over.
        try:
            same = socket.socket(fileno=os.dup(self._socket.fileno()))
        except OSError as error:
            raise httpcore.ConnectError(str(error)) from error
        with same:
            secured = _step(same, self.inner.start_tls, ssl_context, server_hostname, seconds)
        return Stream(secured)

    def close(self) -> None:
        self.inner.close()

    def get_extra_info(self, info: str) -> Any:
        return self.inner.get_extra_info(info)


class Backend(httpcore.NetworkBackend):
    """Makes blocking connections."""

    def __init__(self, stream_on: Callable[[socket.socket], httpcore.NetworkStream]) -> None:
        self._stream_on = stream_on

    def connect_tcp(
        self,
        host: str,
        port: int,
        timeout: float | None = None,
        local_address: str | None = None,
        socket_options: Iterable[Any] | None = None,
    ) -> httpcore.NetworkStream:
        """Tries one address after the other; each has its share of the time that is left."""
        try:
            found = socket.getaddrinfo(host, port, type=socket.SOCK_STREAM)
        except OSError as error:
            raise httpcore.ConnectError(str(error)) from error
        for untried in range(len(found), 0, -1):
            seconds = _left(timeout, httpcore.ConnectTimeout)
            share = seconds if seconds is None else seconds / untried
            try:
                connected = _connected(found[-untried], share, local_address, socket_options or ())
            except (httpcore.ConnectError, httpcore.ConnectTimeout):
                if untried == 1:
                    raise
            else:
                return Stream(self._stream_on(connected))
        raise httpcore.ConnectError(f"{host} has no address")


def _connected(
    found: Any, seconds: float | None, local_address: str | None, options: Iterable[Any]
) -> socket.socket:
    family, _, _, _, address = found
    try:
        connecting = socket.socket(family, socket.SOCK_STREAM)
        try:
            for option in (*options, (socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)):
                connecting.setsockopt(*option)
            if local_address is not None:
                connecting.bind((local_address, 0))
            connecting.settimeout(seconds)
            _step(connecting, connecting.connect, address)
        except BaseException:
            connecting.close()
            raise
    except TimeoutError as error:
        raise httpcore.ConnectTimeout(str(error)) from error
    except OSError as error:
        raise httpcore.ConnectError(str(error)) from error
    return connecting


class AsyncStream(_Joined, httpcore.AsyncNetworkStream):
    """An awaited connection."""

    async def read(self, max_bytes: int, timeout: float | None = None) -> bytes:
        if self._head:
            await self.write(b"", timeout)
        self._head = b""
        seconds = _left(timeout, httpcore.ReadTimeout)
        try:
            received: bytes = await self.inner.read(max_bytes, seconds)
        except httpcore.ReadError as error:
            raise _told(error) from error
        return received

    async def write(self, buffer: bytes, timeout: float | None = None) -> None:
        buffer = self._outgoing(buffer)
        if not buffer:
            return
        seconds = _left(timeout, httpcore.WriteTimeout)
        try:
            await self.inner.write(buffer, seconds)
        except httpcore.WriteError as error:
            raise _told(error) from error

    async def start_tls(
        self,
        ssl_context: ssl.SSLContext,
        server_hostname: str | None = None,
        timeout: float | None = None,
    ) -> httpcore.AsyncNetworkStream:
        seconds = _left(timeout, httpcore.ConnectTimeout)
        try:
            return AsyncStream(await self.inner.start_tls(ssl_context, server_hostname, seconds))
        except httpcore.ConnectError as error:
            raise _told(error, "EOF occurred in violation of protocol") from error

    async def aclose(self) -> None:
        await self.inner.aclose()

    def get_extra_info(self, info: str) -> Any:
        return self.inner.get_extra_info(info)


class AsyncBackend(httpcore.AsyncNetworkBackend):
    """Makes awaited connections."""

    async def connect_tcp(
        self, host: str, port: int, timeout: float | None = None, *more: Any, **options: Any
    ) -> httpcore.AsyncNetworkStream:
        seconds = _left(timeout, httpcore.ConnectTimeout)
        try:
            return AsyncStream(await connect(host, port, seconds, *more, **options))
        except httpcore.ConnectError as error:
            raise _told(error) from error

    async def sleep(self, seconds: float) -> None:
        await asyncio.sleep(seconds)


def _told(error: Exception, told: str = "") -> Exception:
    """The same failure, said as the blocking sockets say it: by the error of the operating system."""
    told = str(error) or told
    following: BaseException | None = error
    while following is not None:
        if isinstance(following, ssl.SSLError | socket.gaierror):
            told = str(following)
        elif isinstance(following, OSError) and following.errno:
            told = f"[Errno {following.errno}] {os.strerror(following.errno)}"
        following = following.__cause__
    return type(error)(told)
