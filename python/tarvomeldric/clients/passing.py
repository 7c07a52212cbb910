"""Requests that nobody here knows, handed to one provider: unhealed, uncounted, untouched."""

from __future__ import annotations

import contextlib
from collections.abc import AsyncGenerator, Generator, Mapping
from typing import Any

from tarvomeldric._http import own_of
from tarvomeldric.clients.replies import Reply, error_body
from tarvomeldric.clients.requests import Incoming

_TIMEOUT = 600.0  # seconds of silence
_CONNECT_TIMEOUT = 10.0  # seconds

# What belongs to one connection, to who is asked, or to how a body was packed for the way.
_LEFT_OUT = {
    *("connection", "keep-alive", "proxy-connection", "te", "trailer", "transfer-encoding"),
    *("upgrade", "host", "content-length", "content-encoding", "accept-encoding", "expect"),
    *("authorization", "proxy-authorization", "cookie", "x-api-key", "api-key"),
}


class Passed:
    """An answer on its way through; close it after the last piece, or before."""

    def __init__(self, response: Any, ended: contextlib.ExitStack) -> None:
        self.status: int = response.status_code
        self.headers = _kept(response.headers)
        self._response = response
        self._ended = ended

    def pieces(self) -> Generator[bytes, None, None]:
        try:
            yield from self._response.iter_bytes()
        finally:
            self.close()

    async def apieces(self) -> AsyncGenerator[bytes, None]:
        try:
            async for piece in self._response.aiter_bytes():
                yield piece
        finally:
            await self.aclose()

    def close(self) -> None:
        with self._ended:
            self._response.close()

    async def aclose(self) -> None:
        with self._ended:
            await self._response.aclose()


class Passing:
    """Hands on to one provider of an engine."""

    def __init__(self, engine: Any, name: str) -> None:
        if not isinstance(name, str):
            raise TypeError(f"passthrough must be str or None, not {type(name).__name__}")
        if name not in engine._providers:
            raise ValueError(f"passthrough: the engine has no provider {name!r}")
        self._engine = engine
        self._name = name

    def answer(self, incoming: Incoming) -> Passed | Reply:
        import httpx

        client = self._engine._get_sync_client(self._name)
        with contextlib.ExitStack() as serving:
            serve(client, serving)
            try:
                response = client.send(self._request(client, incoming), stream=True)
            except httpx.HTTPError as error:
                return _unreachable(error)
            return Passed(response, serving.pop_all())

    async def answer_awaited(self, incoming: Incoming) -> Passed | Reply:
        import httpx

        client = await self._engine._get_session(self._name)
        with contextlib.ExitStack() as serving:
            serve(client, serving)
            try:
                response = await client.send(self._request(client, incoming), stream=True)
            except httpx.HTTPError as error:
                return _unreachable(error)
            return Passed(response, serving.pop_all())

    def _request(self, client: Any, incoming: Incoming) -> Any:
        import httpx

        record = self._engine._providers[self._name]
        url = httpx.URL(f"{record.base_url}/{incoming.operation}")
        query: list[tuple[str, Any]] = [
            *httpx.QueryParams(incoming.query.decode()).multi_items(),
            *record.extra_query.items(),
        ]
        headers = httpx.Headers(_kept(incoming.headers))
        own = httpx.Headers(record._request_headers())
        if incoming.headers.get("content-type"):
            del own["content-type"]
        headers.update(own)
        return client.build_request(
            incoming.method,
            url.copy_merge_params(query) if query else url,
            headers=headers,
            content=incoming.content,
            timeout=httpx.Timeout(_TIMEOUT, connect=_CONNECT_TIMEOUT),
        )


def serve(client: Any, serving: contextlib.ExitStack) -> None:
    """Has a client of ours know that it is in use, until the end."""
    own = own_of(client)
    if own is not None:
        serving.enter_context(own.serving())


def _kept(headers: Mapping[str, str]) -> dict[str, str]:
    return {
        name: value
        for name, value in headers.items()
        if name not in _LEFT_OUT and not name.startswith("x-tarvomeldric-")
    }


def _unreachable(error: Exception) -> Reply:
    told = f"{type(error).__name__}: the provider could not be reached"
    return Reply(502, {"content-type": "application/json"}, error_body(told, "provider_error"))
