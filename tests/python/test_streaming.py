"""A streamed answer: which events arrive, when, and what closes the exchange."""

from __future__ import annotations

import asyncio
import contextlib
import gc
import inspect
from collections.abc import AsyncGenerator, AsyncIterator
from typing import Any
from unittest.mock import AsyncMock, Mock

import httpx
import pytest

from support import engine_on, engine_with, provider, until
from tarvomeldric import SelfHealingEngine
from tarvomeldric.simulator import Fault, ProviderSimulator, Raw, Reply

A, B = {"n": "a"}, {"n": "b"}
STUCK = Reply(stream=[A, Fault.STALL])
# fmt: off
FAILURES: list[tuple[Reply, list[Any], str]] = [
    (Reply("no", status=401), [], "stream_error: APIError"),
    (Reply(status=500, body=b"\xff"), [], "stream_error: UnicodeDecodeError"),
    (Reply(stream=[A, Raw("data: " + "[" * 100_000 + "\n")]), [A], "stream_error: RecursionError"),
    (Reply(stream=[A, Fault.RESET]), [A], "stream_interrupted: ReadError"),
    (Reply(stream=[A, Fault.TRUNCATED]), [A], "stream_interrupted: RemoteProtocolError"),
    (Reply(stream=[A, B, Fault.STALL]), [A, B], "stream_interrupted: ReadTimeout"),
]
# fmt: on


def open_stream(engine: SelfHealingEngine, **options: Any) -> AsyncGenerator[Any, None]:
    return engine._execute_stream(engine._providers["mine"], "Hi", "m", **options)


async def events_of(engine: SelfHealingEngine, **options: Any) -> list[Any]:
    try:
        return [event async for event in open_stream(engine, **options)]
    finally:
        await engine.close()


def last_item(error: str) -> dict[str, Any]:
    return {"error": error, "recoverable": error.startswith("stream_interrupted")}


def test_events_go_on_to_the_mark_or_to_the_end_of_the_last_line() -> None:
    cut = Raw('data: {oops\ndata: null\ndata: {"n": "b"}')
    with ProviderSimulator(Reply(stream=[A, Raw("data: [DONE]\n"), Fault.STALL])) as simulator:
        engine = engine_on(simulator)
        assert asyncio.run(events_of(engine, timeout=1)) == [A]
        simulator.script(Reply(stream=[A, cut], done=False))
        assert asyncio.run(events_of(engine)) == [A, None, B]


def test_a_failure_is_the_last_item() -> None:
    with ProviderSimulator(*(reply for reply, _, _ in FAILURES)) as simulator:
        engine = engine_on(simulator)
        for _, events, error in FAILURES:
            items = asyncio.run(events_of(engine, timeout=0.3))
            assert items == [*events, last_item(error)]
    assert asyncio.run(events_of(engine)) == [last_item("stream_interrupted: ConnectError")]
    # A client of the application's own may fail in its own way.
    kinds = {TimeoutError: "interrupted", asyncio.TimeoutError: "interrupted", KeyError: "error"}
    for raised, kind in kinds.items():
        client = Mock(stream=Mock(side_effect=raised("x")), aclose=AsyncMock())
        engine._http_pool["mine"] = client
        assert asyncio.run(events_of(engine)) == [last_item(f"stream_{kind}: {raised.__name__}")]


def test_a_connection_that_cannot_be_closed_is_a_failure_like_any_other() -> None:
    class Body(httpx.AsyncByteStream):
        async def __aiter__(self) -> AsyncIterator[bytes]:
            yield b'data: {"n": "a"}\ndata: [DONE]\n'

        async def aclose(self) -> None:
            raise OSError("cannot")

    engine = engine_with()
    reply = httpx.MockTransport(lambda request: httpx.Response(200, stream=Body()))
    engine._http_pool["mine"] = httpx.AsyncClient(transport=reply)
    assert asyncio.run(events_of(engine)) == [A, last_item("stream_error: OSError")]


def test_the_request_is_a_streamed_chat_on_the_path_of_its_kind() -> None:
    with ProviderSimulator(Reply(stream=[A]), Reply(stream=[])) as simulator:
        engine = engine_on(simulator)
        asyncio.run(events_of(engine, api_type="embeddings", seed=7))
        asyncio.run(events_of(engine, stream=False, model2=None, messages=[]))
        first, second = simulator.requests
    chat = {"model": "m", "messages": [{"role": "user", "content": "Hi"}], "stream": True}
    assert first.path == "/v1/embeddings"
    assert list(first.body.items()) == [*chat.items(), ("seed", 7)]
    assert second.path == "/v1/chat/completions"
    assert second.body == {"model": "m", "messages": [], "stream": False, "model2": None}


def test_wrong_arguments_are_refused_before_there_is_a_generator() -> None:
    stream: Any = engine_with()._execute_stream
    right = {"cfg": provider(), "prompt": "Hi", "model": "m", "api_type": "chat"}
    for name, wrong in (("cfg", "mine"), ("prompt", 1), ("model", None), ("api_type", 1)):
        with pytest.raises(TypeError, match=rf"^{name} must be"):
            stream(**{**right, name: wrong})


async def leave(stream: AsyncGenerator[Any, None], how: str) -> None:
    if how == "close":
        await stream.aclose()
    elif how == "throw":
        with pytest.raises(LookupError, match="mine"):
            await stream.athrow(LookupError("mine"))
    else:
        with pytest.raises(asyncio.TimeoutError):
            await asyncio.wait_for(stream.__anext__(), 0.05)
    with contextlib.suppress(StopAsyncIteration):
        pytest.fail(f"{await stream.__anext__()} came after the end")


@pytest.mark.parametrize("how", ["close", "throw", "cancel", "drop"])
def test_whoever_leaves_early_closes_the_exchange(how: str) -> None:
    async def watch(engine: SelfHealingEngine) -> None:
        await open_stream(engine).aclose()  # one that nobody starts sends nothing
        stream = open_stream(engine)
        assert inspect.isasyncgen(stream)
        async for event in stream:  # the first event is here while the second is never sent
            assert event == A
            break
        if how != "drop":
            await leave(stream, how)
        del stream
        gone = asyncio.to_thread(until, lambda: simulator.requests[0].disconnected)
        await asyncio.wait_for(gone, 5)
        assert [event async for event in open_stream(engine)] == [B]  # the pool is whole
        await engine.close()

    with ProviderSimulator(STUCK, Reply(stream=[B])) as simulator:
        engine = engine_on(simulator)
        open_stream(engine)  # needs no loop, and sends nothing either
        asyncio.run(watch(engine))
        gc.collect()
