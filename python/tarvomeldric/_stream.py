"""A provider's streamed answer, handed on event by event."""

from __future__ import annotations

import asyncio
import json
from collections.abc import AsyncGenerator, Iterable, Iterator
from contextlib import aclosing
from typing import Any

from tarvomeldric._engine import APIError, _EventStream
from tarvomeldric._http import address


async def execute_stream(
    engine: Any, provider: str, url: str, body: Any, headers: Any, timeout: Any
) -> AsyncGenerator[Any, None]:
    """The events of one exchange. Its failure is told in a last item and raised to nobody.

    What the consumer throws in, a cancellation among it, is no failure of the exchange and goes through.
    """
    async with aclosing(_events(engine, provider, url, body, headers, timeout)) as events:
        while True:
            try:
                event = await events.__anext__()
            except StopAsyncIteration:
                return
            except Exception as error:
                failure = _last_item(error)
                break
            yield event
    yield failure


async def _events(
    engine: Any, provider: str, url: str, body: Any, headers: Any, timeout: Any
) -> AsyncGenerator[Any, None]:
    client = await engine._get_session(provider)
    async with client.stream(
        "POST", address(client, url), json=body, headers=headers, timeout=timeout
    ) as response:
        if response.status_code != 200:
            text = (await response.aread()).decode("utf-8")
            raise APIError(f"HTTP {response.status_code}: {text[:200]}", response.status_code)
        stream = _EventStream()
        async with aclosing(response.aiter_text()) as pieces:
            async for piece in pieces:
                for event in _decoded(stream.feed(piece)):
                    yield event
                if stream.done:
                    return
        for event in _decoded(stream.feed("\n")):  # the end of a reply ends its last line
            yield event


def _decoded(payloads: Iterable[str]) -> Iterator[Any]:
    for payload in payloads:
        try:
            event = json.loads(payload)
        except ValueError:
            continue
        yield event


def _last_item(error: Exception) -> dict[str, Any]:
    import httpx

    interrupted = isinstance(error, httpx.HTTPError | asyncio.TimeoutError | TimeoutError)
    kind = "stream_interrupted" if interrupted else "stream_error"
    return {"error": f"{kind}: {type(error).__name__}", "recoverable": interrupted}
