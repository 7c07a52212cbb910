"""A streamed answer: which events arrive, when, and what closes the exchange."""

from __future__ import annotations

import asyncio
import contextlib
import gc
import inspect
import json
import math
from collections.abc import AsyncGenerator, Awaitable, Callable
from typing import Any

import pytest
from helpers import engine_on, engine_with, provider, until

from tarvomeldric import SelfHealingEngine
from tarvomeldric.simulator import Fault, ProviderSimulator, Raw, Reply

A, B = {"n": "a"}, {"n": "b"}
STUCK = Reply(stream=[A, Fault.STALL])
# fmt: off
LINES = {
    "fields, comments and empty lines": (
        'data: {"n": "a"}\n\n: data: {}\nevent: x\ndata:{}\nDATA: {}\ndata: [DONE]\ndata: {"n": "b"}\n', [A]),
    "line ends of all kinds": ('data: 1\rdata: 2\r\ndata: 3\n\rdata: 4\r\r\ndata: 5', [1, 2, 3, 4, 5]),
    "separators within a text": ('data: "x\u2028y\u0085z"\ndata: "\\u2028"\n', ["x\u2028y\u0085z", "\u2028"]),
    "white space around": ('\u3000\t data: {"n": "a"} \xa0\ndata:  {"n": "b"}\ndata:  [DONE]\ndata: 1\n', [A, B, 1]),
    "junk": ('data: {oops\ndata: \ndata: [DONE\ndata: {"n": "a"}\n', [A]),
    "any value": ('data: null\ndata: [1.5, NaN]\ndata: "[DONE]"\n', [None, [1.5, math.nan], "[DONE]"]),
}
FAILURES = {
    "status": (Reply("no", status=401), [], "stream_error: APIError", False),
    "body": (Reply(status=500, body=b"\xff"), [], "stream_error: UnicodeDecodeError", False),
    "nesting": (Reply(stream=[A, Raw("data: " + "[" * 100_000 + "\n")]), [A], "stream_error: RecursionError", False),
    "reset": (Reply(stream=[A, Fault.RESET]), [A], "stream_interrupted: ReadError", True),
    "cut": (Reply(stream=[A, Fault.TRUNCATED]), [A], "stream_interrupted: RemoteProtocolError", True),
    "time": (Reply(stream=[A, B, Fault.STALL]), [A, B], "stream_interrupted: ReadTimeout", True),
}
# fmt: on


def open_stream(engine: SelfHealingEngine, **options: Any) -> AsyncGenerator[Any, None]:
    return engine._execute_stream(engine._providers["mine"], "Hi", "m", **options)


async def events_of(engine: SelfHealingEngine, **options: Any) -> list[Any]:
    try:
        return [event async for event in open_stream(engine, **options)]
    finally:
        await engine.close()


@pytest.mark.parametrize("size", [1, 2, 3, 1000])
@pytest.mark.parametrize("lines", LINES)
def test_an_event_is_a_line_however_the_reply_is_cut(lines: str, size: int) -> None:
    sent, expected = LINES[lines]
    encoded = sent.encode()
    pieces = [encoded[at : at + size] for at in range(0, len(encoded), size)]
    reply = Reply(stream=[Raw(piece) for piece in pieces], done=False)
    with ProviderSimulator(reply) as simulator:
        events = asyncio.run(events_of(engine_on(simulator)))
    assert json.dumps(events) == json.dumps(expected)  # which also compares what is no number


@pytest.mark.parametrize("failure", FAILURES)
def test_a_failure_is_the_last_item(failure: str) -> None:
    reply, events, error, recoverable = FAILURES[failure]
    with ProviderSimulator(reply) as simulator:
        items = asyncio.run(events_of(engine_on(simulator), timeout=0.3))
    assert items == [*events, {"error": error, "recoverable": recoverable}]


@pytest.mark.parametrize(
    ("raised", "kind"),
    [
        (TimeoutError, "interrupted"),
        (asyncio.TimeoutError, "interrupted"),
        (KeyError, "error"),
    ],
    ids=["time-out", "loop's time-out", "anything"],
)
def test_a_client_of_the_host_may_fail_in_its_own_way(raised: type[Exception], kind: str) -> None:
    class Client:
        def stream(self, *_: Any, **__: Any) -> Any:
            raise raised("x")

        async def aclose(self) -> None: ...

    engine = engine_with(provider())
    engine._http_pool["mine"] = Client()
    [item] = asyncio.run(events_of(engine))
    assert item == {"error": f"stream_{kind}: {raised.__name__}", "recoverable": kind != "error"}


def test_an_unreachable_provider_is_an_interruption() -> None:
    [item] = asyncio.run(events_of(engine_with(provider())))
    assert item == {"error": "stream_interrupted: ConnectError", "recoverable": True}


def test_the_request_is_a_streamed_chat_on_the_path_of_its_kind() -> None:
    with ProviderSimulator(Reply(stream=[A]), Reply(stream=[])) as simulator:
        engine = engine_on(simulator)
        asyncio.run(events_of(engine, api_type="embeddings", seed=7))
        asyncio.run(events_of(engine, stream=False, model2=None, messages=[]))
        first, second = simulator.requests
    chat = {"model": "m", "messages": [{"role": "user", "content": "Hi"}], "stream": True}
    assert (first.path, list(first.body.items())) == (
        "/v1/embeddings",
        [*chat.items(), ("seed", 7)],
    )
    assert second.path == "/v1/chat/completions"
    assert second.body == {"model": "m", "messages": [], "stream": False, "model2": None}


def test_wrong_arguments_are_refused_before_there_is_a_generator() -> None:
    engine, record = engine_with(), provider()
    for wrong, name in (
        (lambda: engine._execute_stream("mine", "Hi", "m"), "cfg"),  # type: ignore[arg-type]
        (lambda: engine._execute_stream(record, 1, "m"), "prompt"),  # type: ignore[arg-type]
        (lambda: engine._execute_stream(record, "Hi", None), "model"),  # type: ignore[arg-type]
        (lambda: engine._execute_stream(record, "Hi", "m", api_type=1), "api_type"),  # type: ignore[arg-type]
    ):
        with pytest.raises(TypeError, match=rf"^{name} must be"):
            wrong()


async def close(stream: AsyncGenerator[Any, None]) -> None:
    await stream.aclose()


async def throw(stream: AsyncGenerator[Any, None]) -> None:
    with pytest.raises(LookupError, match="mine"):
        await stream.athrow(LookupError("mine"))


async def cancel(stream: AsyncGenerator[Any, None]) -> None:
    waiting = asyncio.ensure_future(stream.__anext__())
    await asyncio.sleep(0.05)
    waiting.cancel()
    with pytest.raises(asyncio.CancelledError):
        await waiting


async def time_out(stream: AsyncGenerator[Any, None]) -> None:
    with pytest.raises(asyncio.TimeoutError):
        await asyncio.wait_for(stream.__anext__(), 0.05)


@pytest.mark.parametrize("leave", [close, throw, cancel, time_out, None])
def test_whoever_leaves_early_closes_the_exchange(
    leave: Callable[[AsyncGenerator[Any, None]], Awaitable[None]] | None,
) -> None:
    async def watch(engine: SelfHealingEngine) -> None:
        stream = open_stream(engine)
        assert inspect.isasyncgen(stream)
        async for event in stream:  # the first event is here while the second is never sent
            assert event == A
            break
        if leave:
            await leave(stream)
            with contextlib.suppress(StopAsyncIteration):
                pytest.fail(f"{await stream.__anext__()} came after the end")
        del stream
        gone = asyncio.to_thread(until, lambda: simulator.requests[0].disconnected)
        await asyncio.wait_for(gone, 5)
        assert [event async for event in open_stream(engine)] == [B]  # the pool is whole
        await engine.close()

    with ProviderSimulator(STUCK, Reply(stream=[B])) as simulator:
        asyncio.run(watch(engine_on(simulator)))
        gc.collect()


def test_a_generator_that_nobody_starts_sends_nothing() -> None:
    async def make(engine: SelfHealingEngine) -> None:
        open_stream(engine)
        await open_stream(engine).aclose()
        await engine.close()

    with ProviderSimulator() as simulator:
        engine = engine_on(simulator)
        open_stream(engine)  # nor does it need a loop
        asyncio.run(make(engine))
        assert simulator.request_count == 0


def test_streams_share_a_client_and_a_loop_that_ends_closes_those_left_open() -> None:
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
