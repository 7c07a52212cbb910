"""A provider's streamed answer, handed on event by event."""

from __future__ import annotations

import asyncio
import contextlib
import json
from collections.abc import AsyncGenerator, Iterator
from contextlib import aclosing
from typing import Any

from tarvomeldric._engine import APIError, _EventStream
from tarvomeldric._http.clients import spoil
from tarvomeldric._http.exchange import address


async def execute_stream(
    engine: Any, provider: str, url: str, body: Any, headers: Any, timeout: Any
) -> AsyncGenerator[Any, None]:
    """The events of one exchange. Its failure is told in a last item and raised to nobody.

    What the consumer throws in, a cancellation among it, is no failure of the exchange and goes through.
    """
    request = {"json": body, "headers": headers, "timeout": timeout}
    async with aclosing(_Exchange(engine, provider, url, request)) as exchange:
        while True:
            try:
                event = await exchange.next_event()
            except StopAsyncIteration:
                return
            except Exception as error:
                failure = _last_item(error)
                break
            yield event
        with contextlib.suppress(Exception):  # the first failure is the one to tell of
            await exchange.aclose()
    yield failure


class _Exchange:
    """One streamed exchange, opened when its first event is asked for.

    It is no generator: a loop that ends closes all generators at once, and one that is being closed
    cannot be closed by the one that holds it.
    """

    def __init__(self, engine: Any, provider: str, url: str, request: dict[str, Any]) -> None:
        self._engine = engine
        self._provider = provider
        self._url = url
        self._request = request
        self._client: Any = None
        self._opened: Any = None
        self._response: Any = None
        self._pieces: Any = None
        self._stream = _EventStream()
        self._payloads: Iterator[str] = iter(())
        self._closed = False

    async def next_event(self) -> Any:
        """The next event; StopAsyncIteration when there is none."""
        try:
            return await self._find_event()
        except GeneratorExit:  # whoever waited was closed by hand
            spoil(self._client)
            raise

    async def _find_event(self) -> Any:
        if self._response is None:
            await self._open()
        while True:
            for payload in self._payloads:
                try:
                    return json.loads(payload)
                except ValueError:
                    continue
            if self._stream.done or self._pieces is None:
                await self.aclose()
                raise StopAsyncIteration
            self._payloads = iter(self._stream.feed(await self._next_piece()))

    async def _open(self) -> None:
        client = self._client = await self._engine._get_session(self._provider)
        self._opened = client.stream("POST", address(client, self._url), **self._request)
        self._response = await self._opened.__aenter__()
        if (status := self._response.status_code) != 200:
            text = (await self._response.aread()).decode("utf-8")
            raise APIError(f"HTTP {status}: {text[:200]}", status)
        self._pieces = self._response.aiter_text()

    async def _next_piece(self) -> str:
        async for piece in self._pieces:
            return str(piece)
        self._pieces = None
        return "\n"  # the end of a reply ends its last line

    async def aclose(self) -> None:
        if self._response is None or self._closed:
            return
        self._closed = True
        await self._response.aclose()
        with contextlib.suppress(RuntimeError):  # a loop that ends may be closing it, too
            await self._opened.__aexit__(None, None, None)


def _last_item(error: Exception) -> dict[str, Any]:
    import httpx

    interrupted = isinstance(error, httpx.HTTPError | asyncio.TimeoutError | TimeoutError)
    kind = "stream_interrupted" if interrupted else "stream_error"
    return {"error": f"{kind}: {type(error).__name__}", "recoverable": interrupted}
