"""Requests that nobody here knows, handed to one provider: unhealed, uncounted, untouched."""

from __future__ import annotations

import contextlib
from collections.abc import AsyncGenerator, Generator, Sequence
from typing import Any
from urllib.parse import unquote, urlencode

import httpx

from tarvomeldric._http import own_of
from tarvomeldric.clients.replies import Reply, error_body, pairs_of, raw_of, refusal
from tarvomeldric.clients.requests import Incoming

_PATIENCE_S = 600.0  # seconds of silence, where the client sets no time-out
_CONNECT_TIMEOUT_S = 10.0

# What belongs to one connection, and who a client says that it is.
_OF_A_CONNECTION = {
    *("connection", "keep-alive", "proxy-connection", "te", "trailer", "transfer-encoding"),
    *("upgrade", "host", "content-length", "expect"),
}
_IDENTITY = {
    *("authorization", "proxy-authorization", "cookie"),
    *("x-api-key", "api-key", "x-goog-api-key"),
}
_NOT_SENT = {*_OF_A_CONNECTION, *_IDENTITY, "accept-encoding"}
_NOT_HANDED_BACK = {*_OF_A_CONNECTION, "content-encoding"}  # which is undone


class Passed:
    """An answer on its way through; close it after the last piece, or before."""

    def __init__(self, response: httpx.Response, serving: contextlib.ExitStack) -> None:
        self.status = response.status_code
        pairs = pairs_of(response.headers)
        left_out = _NOT_HANDED_BACK | _listed(response.headers.get("connection", ""))
        self.headers = [(name, value) for name, value in pairs if name not in left_out]
        if place := response.extensions.get("location"):
            self.headers.append(("location", place))
        self._response = response
        self._serving = serving
        # One that has begun is closed when it is dropped.
        self._pieces: Any = None

    def begin(self) -> Passed:
        self._pieces = self._read()
        next(self._pieces)
        return self

    async def begin_awaited(self) -> Passed:
        self._pieces = self._read_awaited()
        await anext(self._pieces)
        return self

    def pieces(self) -> Generator[bytes, None, None]:
        pieces: Generator[bytes, None, None] = self._pieces
        return pieces

    def apieces(self) -> AsyncGenerator[bytes, None]:
        pieces: AsyncGenerator[bytes, None] = self._pieces
        return pieces

    def _read(self) -> Generator[bytes, None, None]:
        with self._serving, contextlib.closing(self._response):
            try:
                yield b""
                yield from self._response.iter_bytes()
            except GeneratorExit:  # nobody wants the rest
                return

    async def _read_awaited(self) -> AsyncGenerator[bytes, None]:
        with self._serving:
            try:
                yield b""
                async for piece in self._response.aiter_bytes():
                    yield piece
            except GeneratorExit:
                return
            finally:
                await self._response.aclose()

    def close(self) -> None:
        self._pieces.close()

    async def aclose(self) -> None:
        await self._pieces.aclose()


class Passing:
    """Hands on to one provider of an engine."""

    def __init__(self, engine: Any, name: str) -> None:
        if not isinstance(name, str):
            raise TypeError(f"passthrough must be str or None, not {type(name).__name__}")
        if name not in engine._providers:
            raise ValueError(f"passthrough: the engine has no provider {name!r}")
        self._engine = engine
        self._name = name

    def answer(self, incoming: Incoming, patience: float | None = None) -> Passed | Reply:
        """Waits for the beginning of the answer; `patience` is the client's, in seconds."""
        refused = self._refused(incoming)
        if refused is not None:
            return refused
        client = self._engine._get_sync_client(self._name)
        with contextlib.ExitStack() as serving:
            serve(client, serving)
            try:
                request = self._request(client, incoming, patience)
                response = client.send(request, stream=True)
            except (httpx.HTTPError, httpx.InvalidURL) as error:
                return _failed(error)
            return Passed(response, serving.pop_all()).begin()

    async def answer_awaited(
        self, incoming: Incoming, patience: float | None = None
    ) -> Passed | Reply:
        """The same, awaited."""
        refused = self._refused(incoming)
        if refused is not None:
            return refused
        client = await self._engine._get_session(self._name)
        with contextlib.ExitStack() as serving:
            serve(client, serving)
            try:
                request = self._request(client, incoming, patience)
                response = await client.send(request, stream=True)
            except (httpx.HTTPError, httpx.InvalidURL) as error:
                return _failed(error)
            return await Passed(response, serving.pop_all()).begin_awaited()

    def _refused(self, incoming: Incoming) -> Reply | None:
        """Nothing outside the provider's base is asked for with the provider's key."""
        steps = unquote(unquote(incoming.rest)).replace("\\", "/").split("/")
        if {".", ".."} & set(steps):
            return refusal(404, "a path must not have dot segments", "not_found")
        if self._name not in self._engine._providers:
            return refusal(503, f"the provider {self._name!r} is not registered any more")
        return None

    def _request(self, client: Any, incoming: Incoming, patience: float | None) -> httpx.Request:
        record = self._engine._providers[self._name]
        query = [incoming.query.decode("latin-1"), urlencode(record.extra_query)]
        url = record.base_url + incoming.rest
        asked = "&".join(filter(None, query))
        own = {name.lower(): value for name, value in record._request_headers().items()}
        for name in ("content-type", "user-agent"):  # of ours; a provider's extra header stays
            if name in incoming.headers and name not in map(str.lower, record.extra_headers):
                own.pop(name, None)
        return httpx.Request(
            incoming.method,
            httpx.URL(f"{url}?{asked}" if asked else url),
            headers=raw_of(_sent(incoming, own)),
            content=incoming.content,
            extensions={"timeout": _timeout(patience)},
        )


def serve(client: Any, serving: contextlib.ExitStack) -> None:
    """Has a client of ours know that it is in use, and how that ends."""
    own = own_of(client)
    if own is not None:
        serving.enter_context(own.serving())


def _listed(connection: str) -> set[str]:
    """The headers that a connection names as its own."""
    return {name.strip().lower() for name in connection.split(",")}


def _sent(incoming: Incoming, own: dict[str, str]) -> Sequence[tuple[str, str]]:
    left_out = _NOT_SENT | _listed(incoming.headers.get("connection", "")) | own.keys()
    kept = [
        (name, value)
        for name, value in incoming.headers.items()
        if name not in left_out and not name.startswith("x-tarvomeldric-")
    ]
    return [*kept, ("accept-encoding", "gzip, deflate"), *own.items()]


def _timeout(patience: float | None) -> dict[str, float | None]:
    seconds = _PATIENCE_S if patience is None else patience
    connect = min(seconds, _CONNECT_TIMEOUT_S)
    return httpx.Timeout(seconds, connect=connect).as_dict()


def _failed(error: Exception) -> Reply:
    late = isinstance(error, httpx.TimeoutException)
    status, kind = (504, "timeout") if late else (502, "provider_error")
    told = f"{type(error).__name__}: the provider could not be reached"
    return Reply(status, {"content-type": "application/json"}, error_body(told, kind))
