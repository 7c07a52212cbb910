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
from typing import Any

import httpcore

from tarvomeldric._http.attempt import left
from tarvomeldric._http.sockets import connect

# A blocking write is renewed by every byte that the peer takes; one of this size goes out at once.
_SLICE = 16 * 1024
_NUMERIC = socket.NI_NUMERICHOST | socket.NI_NUMERICSERV


def _left(timeout: float | None, error: type[Exception]) -> float | None:
    seconds = left(timeout)
    if seconds is not None and seconds <= 0:
        raise error("timed out")
    return seconds


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

    def read(self, max_bytes: int, timeout: float | None = None) -> bytes:
        if self._head:  # it had no body
            self.write(b"", timeout)
        self._head = b""
        received: bytes = self.inner.read(max_bytes, _left(timeout, httpcore.ReadTimeout))
        return received

    def write(self, buffer: bytes, timeout: float | None = None) -> None:
        buffer = self._outgoing(buffer)
        for at in range(0, len(buffer), _SLICE):
            part = buffer[at : at + _SLICE]
            self.inner.write(part, _left(timeout, httpcore.WriteTimeout))

    def start_tls(
        self,
        ssl_context: ssl.SSLContext,
        server_hostname: str | None = None,
        timeout: float | None = None,
    ) -> httpcore.NetworkStream:
        seconds = _left(timeout, httpcore.ConnectTimeout)
        return Stream(self.inner.start_tls(ssl_context, server_hostname, seconds))

    def close(self) -> None:
        self.inner.close()

    def get_extra_info(self, info: str) -> Any:
        return self.inner.get_extra_info(info)


class Backend(httpcore.NetworkBackend):
    """Makes blocking connections."""

    def __init__(self, inner: httpcore.NetworkBackend) -> None:
        self._inner = inner

    def connect_tcp(
        self, host: str, port: int, timeout: float | None = None, *more: Any, **options: Any
    ) -> httpcore.NetworkStream:
        """Tries one address after the other; each has its share of the time that is left."""
        try:
            found = socket.getaddrinfo(host, port, type=socket.SOCK_STREAM)
        except OSError as error:
            raise httpcore.ConnectError(str(error)) from error
        for untried in range(len(found), 0, -1):
            seconds = _left(timeout, httpcore.ConnectTimeout)
            share = seconds if seconds is None else seconds / untried
            address = socket.getnameinfo(found[-untried][4], _NUMERIC)[0]  # with its scope
            try:
                return Stream(self._inner.connect_tcp(address, port, share, *more, **options))
            except (httpcore.ConnectError, httpcore.ConnectTimeout):
                if untried == 1:
                    raise
        raise httpcore.ConnectError(f"{host} has no address")

    def sleep(self, seconds: float) -> None:
        self._inner.sleep(seconds)


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
