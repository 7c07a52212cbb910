"""What goes below an HTTP client of httpx or httpx2, in the place of its network."""

from __future__ import annotations

import contextlib
import functools
import sys
from collections.abc import Iterable
from types import ModuleType
from typing import Any

import httpx

from tarvomeldric import EngineView, SelfHealingEngine
from tarvomeldric.clients.passing import Passing
from tarvomeldric.clients.relay import Relay
from tarvomeldric.clients.replies import Reply, pairs_of, raw_of, refusal
from tarvomeldric.clients.requests import Incoming
from tarvomeldric.clients.routes import Route

_SETTINGS = """

    Args:
        engine: Whose providers answer, or a view of it, whose policy then goes for every request.
        routes: Who serves the models that the client names. A model without one goes to the providers
            whose `models` list it.
        passthrough: The provider that gets requests for anything but chat completions, completions,
            embeddings and models: unhealed and untouched. They are answered 404 without it.
        first_token_timeout: Seconds that an attempt may take to the first output of a stream. A whole
            answer has the policy's `attempt_timeout`, 8.0 without one.
        idle_timeout: Seconds between two events of a stream. A shorter time-out of the client for reading
            counts instead of any of the three.

    Returns:
        A transport for the clients of httpx and httpx2. The engine is not closed with it.

    Raises:
        TypeError: An argument of the wrong type, or an engine whose `_execute` forms are replaced.
        ValueError: A route that is there twice, or a provider that the engine does not have.
"""


def transport(
    engine: SelfHealingEngine | EngineView,
    routes: Iterable[Route] = (),
    *,
    passthrough: str | None = None,
    first_token_timeout: float = 8.0,
    idle_timeout: float = 30.0,
) -> Any:
    relay = Relay(engine, routes, first_token_timeout, idle_timeout)
    return _Transport(relay, passthrough)


def async_transport(
    engine: SelfHealingEngine | EngineView,
    routes: Iterable[Route] = (),
    *,
    passthrough: str | None = None,
    first_token_timeout: float = 8.0,
    idle_timeout: float = 30.0,
) -> Any:
    relay = Relay(engine, routes, first_token_timeout, idle_timeout)
    return _AsyncTransport(relay, passthrough)


transport.__doc__ = "A transport that heals, for blocking clients." + _SETTINGS
async_transport.__doc__ = "The same for asyncio's clients." + _SETTINGS


class _Base:
    """What both ways of waiting share: telling the library's objects from each other."""

    def __init__(self, relay: Relay, passthrough: str | None) -> None:
        self._relay = relay
        self._passing = None if passthrough is None else Passing(relay.engine, passthrough)

    def _take(self, request: Any, content: bytes) -> tuple[Incoming, Any]:
        path, _, query = request.url.raw_path.partition(b"?")
        headers = dict(pairs_of(request.headers))
        incoming = Incoming(request.method, path.decode(), query, headers, content)
        return incoming, self._relay.take(incoming, _patience(request))


class _Transport(_Base):
    def __enter__(self) -> _Transport:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Nothing is to be closed: the connections are the engine's."""

    def handle_request(self, request: Any) -> Any:
        incoming, asked = self._take(request, request.read())
        if asked is None:
            passing = self._passing
            patience = _patience(request)
            asked = passing.answer(incoming, patience) if passing else _unknown(incoming)
        elif not isinstance(asked, Reply):
            asked = asked.answer()
        library = _library(request)
        if isinstance(asked, Reply):
            return _whole(library, asked)
        stream = _stream_class(library)(asked, library)
        return library.Response(asked.status, headers=raw_of(asked.headers), stream=stream)


class _AsyncTransport(_Base):
    async def __aenter__(self) -> _AsyncTransport:
        return self

    async def __aexit__(self, *_: object) -> None:
        await self.aclose()

    async def aclose(self) -> None:
        """Nothing is to be closed: the connections are the engine's."""

    async def handle_async_request(self, request: Any) -> Any:
        incoming, asked = self._take(request, await request.aread())
        if asked is None:
            passing = self._passing
            patience = _patience(request)
            asked = (
                await passing.answer_awaited(incoming, patience) if passing else _unknown(incoming)
            )
        elif not isinstance(asked, Reply):
            asked = await asked.answer_awaited()
        library = _library(request)
        if isinstance(asked, Reply):
            return _whole(library, asked)
        stream = _async_stream_class(library)(asked, library)
        return library.Response(asked.status, headers=raw_of(asked.headers), stream=stream)


def _unknown(incoming: Incoming) -> Reply:
    return refusal(404, f"not served here: {incoming.method} {incoming.path}", "not_found")


def _whole(library: ModuleType, reply: Reply) -> Any:
    # As a stream: who asks for the pieces of an answer wants it open, short as it may be.
    headers = raw_of({**reply.headers, "content-length": str(len(reply.content))})
    return library.Response(reply.status, headers=headers, stream=library.ByteStream(reply.content))


def _patience(request: Any) -> float | None:
    """The seconds for which the client waits for anything."""
    seconds: float | None = request.extensions.get("timeout", {}).get("read")
    return seconds


def _library(request: Any) -> ModuleType:
    """The library whose request it is; the class of the request itself may be anybody's."""
    return sys.modules[type(request.url).__module__.partition(".")[0]]


def _as_of(library: Any, error: Exception) -> Exception:
    """A failure of our own client as one of the library that asks."""
    kind = getattr(library, type(error).__name__, library.ReadError)
    same: Exception = kind(str(error))
    return same


class _Pieces:
    def __init__(self, answer: Any, library: Any) -> None:
        self._answer = answer
        self._library = library

    def __iter__(self) -> Any:
        try:
            yield from self._answer.pieces()
        except httpx.HTTPError as error:
            raise _as_of(self._library, error) from error

    def close(self) -> None:
        self._answer.close()


class _AwaitedPieces:
    def __init__(self, answer: Any, library: Any) -> None:
        self._answer = answer
        self._library = library

    async def __aiter__(self) -> Any:
        async with contextlib.aclosing(self._answer.apieces()) as pieces:
            try:
                async for piece in pieces:
                    yield piece
            except httpx.HTTPError as error:
                raise _as_of(self._library, error) from error

    async def aclose(self) -> None:
        await self._answer.aclose()


@functools.lru_cache(maxsize=4)
def _stream_class(library: Any) -> type:
    return type("Pieces", (_Pieces, library.SyncByteStream), {})


@functools.lru_cache(maxsize=4)
def _async_stream_class(library: Any) -> type:
    return type("Pieces", (_AwaitedPieces, library.AsyncByteStream), {})
