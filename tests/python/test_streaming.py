"""A streamed answer: which events arrive, when, and what closes the exchange."""

from __future__ import annotations

import asyncio
import contextlib
import gc
import inspect
import json
import math
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
LINES: dict[str, list[Any]] = {
    'data: {"n": "a"}\n\n: data: {}\nevent: x\ndata:{}\nDATA: {}\ndata: [DONE]\ndata: {"n": "b"}\n': [A],
    'data: 1\rdata: 2\r\ndata: 3\n\rdata: 4\r\r\ndata: 5': [1, 2, 3, 4, 5],
    'data: "x\u2028y\u0085z"\ndata: "\\u2028"\n': ["x\u2028y\u0085z", "\u2028"],
    '\u3000\t data: {"n": "a"} \xa0\ndata:  {"n": "b"}\ndata:  [DONE]\ndata: 1\n': [A, B, 1],
    'data: {oops\ndata: \ndata: [DONE\ndata: {"n": "a"}\n': [A],
    'data: null\ndata: [1.5, NaN]\ndata: "[DONE]"\n': [None, [1.5, math.nan], "[DONE]"],
}
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


@pytest.mark.parametrize("size", [1, 3, 1000])
def test_an_event_is_a_line_however_the_reply_is_cut(size: int) -> None:
    with ProviderSimulator() as simulator:
        engine = engine_on(simulator)
        for lines, expected in LINES.items():
            encoded = lines.encode()
            pieces = [Raw(encoded[at : at + size]) for at in range(0, len(encoded), size)]
            simulator.script(Reply(stream=pieces, done=False))
            events = asyncio.run(events_of(engine))
            assert json.dumps(events) == json.dumps(expected)  # which also compares NaN
        simulator.script(Reply(stream=[A, Raw("data: [DONE]\n"), Fault.STALL]))
        assert asyncio.run(events_of(engine, timeout=1)) == [A]


def test_a_failure_is_the_last_item() -> None:
    with ProviderSimulator(*(reply for reply, _, _ in FAILURES)) as simulator:
        engine = engine_on(simulator)
        for _, events, error in FAILURES:
            items = asyncio.run(events_of(engine, timeout=0.3))
            assert items == [*events, last_item(error)]
    assert asyncio.run(events_of(engine)) == [last_item("stream_interrupted: ConnectError")]
    # A client of the host's own may fail in its own way.
    for raised, kind in (
        (TimeoutError, "interrupted"),
        (asyncio.TimeoutError, "interrupted"),
        (KeyError, "error"),
    ):
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


def test_streams_share_a_client_and_a_loop_that_ends_closes_those_left_open(caplog: Any) -> None:
    async def leave_open(engine: SelfHealingEngine) -> list[Any]:
        streams = [open_stream(engine) for _ in range(3)]
        events = await asyncio.gather(*(stream.__anext__() for stream in streams))
        assert len(engine._http_pool) == 1
        kept.extend(streams)
        return events

    kept: list[Any] = []
    with ProviderSimulator(default=STUCK) as simulator:
        assert asyncio.run(leave_open(engine_on(simulator))) == [A, A, A]
        until(lambda: all(request.disconnected for request in simulator.requests))
    assert caplog.text == ""  # where the loop would complain
