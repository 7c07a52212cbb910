"""A provider's streamed answer, handed on event by event."""

from __future__ import annotations

import asyncio
import codecs
import contextlib
import json
from collections.abc import AsyncGenerator, Awaitable, Iterator
from contextlib import aclosing
from typing import Any, TypeVar

from tarvomeldric._engine import APIError, _EventStream
from tarvomeldric._http.attempt import AttemptContext
from tarvomeldric._http.clients import Own, own_of
from tarvomeldric._http.exchange import address

T = TypeVar("T")


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
        self._own: Own | None = None
        self._opened: Any = None
        self._response: Any = None
        self._pieces: Any = None
        self._stream = _EventStream()
        self._payloads: Iterator[str] = iter(())
        self._closed = False

    async def next_event(self) -> Any:
        """The next event; StopAsyncIteration when there is none."""
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
        client = await self._engine._get_session(self._provider)
        self._own = own_of(client)
        if self._own:
            self._own.under_way.add(self)
        self._opened = client.stream("POST", address(client, self._url), **self._request)
        self._response = await self._of_library(self._opened.__aenter__())
        if (status := self._response.status_code) != 200:
            raise APIError(f"HTTP {status}: {(await self._refusal())[:200]}", status)
        self._pieces = self._response.aiter_text()

    async def _refusal(self) -> str:
        if not self._own:
            return str((await self._response.aread()).decode("utf-8"))
        from tarvomeldric._http.reading import read_async

        body = await self._of_library(read_async(self._response))
        return codecs.getincrementaldecoder("utf-8")().decode(body.content())

    async def _next_piece(self) -> str:
        try:
            return str(await self._of_library(self._pieces.__anext__()))
        except StopAsyncIteration:
            self._pieces = None
            return "\n"  # the end of a reply ends its last line

    async def _of_library(self, answer: Awaitable[T]) -> T:
        """What the HTTP library gives, bounded for each pause; one left in the middle is used no more."""
        try:
            with AttemptContext(None):
                return await answer
        except StopAsyncIteration:
            raise
        except BaseException as error:
            if self._own:
                self._own.judge(error)
            raise

    async def aclose(self) -> None:
        if self._closed:
            return
        self._closed = True
        try:
            if self._response is not None:
                await self._response.aclose()
                with contextlib.suppress(RuntimeError):  # a loop that ends may be closing it, too
                    await self._opened.__aexit__(None, None, None)
        finally:
            if self._own:
                self._own.under_way.discard(self)
                self._own.end_if_unused()


def _last_item(error: Exception) -> dict[str, Any]:
    import httpx

    interrupted = isinstance(error, httpx.HTTPError | asyncio.TimeoutError | TimeoutError)
    kind = "stream_interrupted" if interrupted else "stream_error"
    return {"error": f"{kind}: {type(error).__name__}", "recoverable": interrupted}
