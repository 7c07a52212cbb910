"""Streams that heal until their first output, and tell honestly what breaks after it."""

from __future__ import annotations

import asyncio
import gc
import json
import time
from collections.abc import Iterator
from contextlib import contextmanager
from typing import Any

import pytest

from support import Slots, engine_with, provider, run_child, slots_of, tireless, until
from support.raw_server import CLOSE, RawServer, resets
from tarvomeldric import (
    APIError,
    CallPolicy,
    Contract,
    DeadlineExceeded,
    StreamInterrupted,
)
from tarvomeldric.simulator import Fault, ProviderSimulator, Raw, Reply

BUSY = 1.0  # seconds that a busy machine may add; what is to be caught takes far longer
WORDS = ["One ", "two", " three."]
FIRST = CallPolicy(order="failover_first", max_retries=1, initial_backoff=0.01)
CONTRACT = {"contract": Contract(output_schema={"required": ["x"]}), "has_schema": True}


def delta(finish: str | None = None, **said: Any) -> bytes:
    choice = {"index": 0, "delta": said, "finish_reason": finish}
    return b"data: " + json.dumps({"choices": [choice]}).encode() + b"\n\n"


EVENTS = [delta(role="assistant"), *(delta(content=word) for word in WORDS), delta("stop")]
EVENTS += [b'data: {"choices": [], "usage": {"n": 3}}\n\n', b"data: [DONE]\n\n"]
HEAD = b"HTTP/1.1 200 X\r\nConnection: close\r\n"
CLOSED = HEAD + b"\r\n" + b"".join(EVENTS)
CHUNKED = HEAD + b"Transfer-Encoding: chunked\r\n\r\n"
CHUNKED += b"".join(b"%x\r\n%s\r\n" % (len(event), event) for event in EVENTS) + b"0\r\n\r\n"


@pytest.fixture(params=["blocking", "awaited"])
def take(request: pytest.FixtureRequest) -> Iterator[Any]:
    """Takes a stream whole: its words or its error, and the stream."""
    loop = asyncio.new_event_loop()

    def blocking(view: Any, **options: Any) -> Any:
        stream = view.stream_sync("Hi", **options)
        words: list[str] = []
        try:
            with stream:
                words.extend(stream.text)
        except Exception as error:
            return words, error, stream
        return words, None, stream

    async def awaited(view: Any, **options: Any) -> Any:
        stream = view.stream("Hi", **options)
        words: list[str] = []
        try:
            async with stream:
                async for word in stream.text:
                    words.append(word)
        except Exception as error:
            return words, error, stream
        finally:
            await getattr(view, "engine", view).close()
        return words, None, stream

    if request.param == "blocking":
        yield blocking
    else:
        yield lambda view, **options: loop.run_until_complete(awaited(view, **options))
    loop.close()


@contextmanager
def serving(*scripts: Any, **fields: Any) -> Iterator[Any]:
    """An engine on a simulator for each reply, which it repeats for ever."""
    simulators = [ProviderSimulator(default=script) for script in scripts]
    for simulator in simulators:
        simulator.__enter__()
    engine = engine_with(
        *(tireless(base_url=it.base_url, name=f"p{n}", **fields) for n, it in enumerate(simulators))
    )
    yield engine
    assert all(slots_of(record) == Slots(free=10) for record in engine._providers.values())
    asyncio.run(engine.close())
    for simulator in simulators:
        simulator.__exit__(None, None, None)


@pytest.mark.parametrize("reset", [False, True], ids=["FIN", "RST"])
@pytest.mark.parametrize("reply", [CLOSED, CHUNKED], ids=["closed", "chunked"])
def test_a_cut_at_any_byte_heals_or_is_told(reply: bytes, reset: bool, take: Any) -> None:
    def cut(connection: Any) -> Any:
        connection.sendall(reply[: cuts[0]])
        if reset:
            time.sleep(0.001)  # what was sent is to be read first
            resets(connection)
        return CLOSE

    def whole(connection: Any) -> Any:
        connection.sendall(reply)
        return CLOSE

    kinds, cuts = set(), [0]
    with RawServer(cut) as cutting, RawServer(whole) as well:
        engine = engine_with(
            tireless(base_url=cutting.url, name="a"), tireless(base_url=well.url, name="b")
        )
        for cuts[0] in range(len(reply)):
            words, error, stream = take(engine.with_policy(FIRST.replace(providers=["a", "b"])))
            if error is None:
                assert words == WORDS
                assert stream.result.text == "".join(WORDS)
                kinds.add(stream.result.heal_level)
            else:
                assert type(error) is StreamInterrupted
                assert (error.text, error.provider) == ("".join(words), "a")
                assert words == WORDS[: len(words)]
                kinds.add("told")
        assert kinds == {"", "l3_failover", "told"}
        assert all(slots_of(record) == Slots(free=10) for record in engine._providers.values())
        asyncio.run(engine.close())


NOISE = [Raw(": ping\n\n"), {"type": "ping"}] * 200
FAILING: dict[str, Any] = {
    "refused": 503,
    "an error inside a 200": Reply(stream=[{"error": {"message": "overloaded", "code": 503}}]),
    "silence": Reply(stream=[Fault.STALL]),
    "pings alone": Reply(stream=[*NOISE, Fault.STALL]),
    "a role, then nothing": Reply(stream=[Raw(delta(role="assistant")), Fault.STALL]),
    "an early end": Reply(stream=[Raw(delta(content=""))], done=False),
    "no JSON": Reply(stream=[Raw("data: {oops\n\n")]),
    "garbage": Fault.GARBAGE,
}


@pytest.mark.parametrize("trouble", FAILING)
def test_what_fails_before_the_first_output_is_healed(trouble: str, take: Any) -> None:
    with serving(FAILING[trouble], Reply(stream=WORDS)) as engine:
        heard: list[Any] = []
        engine.observe(heard.append)
        start = time.monotonic()
        words, error, stream = take(engine.with_policy(FIRST), first_token_timeout=1.0)
        assert (words, error) == (WORDS, None)
        assert time.monotonic() - start < 1.0 + 0.1 + BUSY
        result = stream.result
        assert (result.heal_level, result.provider) == ("l3_failover", "p1")
        assert [each.provider for each in result.attempts] == ["p0", "p1"]
        assert 0 < result.latency_ms < result.ttft_ms
        assert (engine._providers["p0"].fail_count, engine._providers["p1"].success_count) == (1, 1)
        assert type(heard[-1]).__name__ == "EndEvent"


TOOL = [{"index": 0, "id": "c", "type": "function", "function": {"name": "f", "arguments": '{"a'}}]
MORE = [{"index": 0, "function": {"arguments": '": 1}'}}]
OUTPUTS: dict[str, Any] = {
    "a tool call": [Raw(delta(tool_calls=TOOL)), 0.5, Raw(delta(tool_calls=MORE)), Raw(delta("tool_calls"))],
    "reasoning": [Raw(delta(reasoning_content="Hm.")), 0.5, Raw(delta(content="x")), Raw(delta("stop"))],
    "a finish reason": [Raw(delta("length")), 0.5],
    "a long preamble": [*[Raw(delta(role="assistant"))] * 65, 0.5, Raw(delta(content="x"))],
}  # fmt: skip


@pytest.mark.parametrize("output", OUTPUTS)
def test_these_are_output_and_end_the_wait(output: str, take: Any) -> None:
    with serving(Reply(stream=OUTPUTS[output])) as engine:
        _, error, stream = take(engine, first_token_timeout=0.3, idle_timeout=2.0)
        assert error is None
        if output == "a tool call":
            (call,) = stream.result.tool_calls
            assert call["function"] == {"name": "f", "arguments": '{"a": 1}'}
            assert stream.result.text is None
        if output != "a long preamble":
            assert stream.result.finish_reason in ("tool_calls", "stop", "length")


def test_after_the_first_output_time_is_kept_and_the_prefix_told(take: Any) -> None:
    pinging = Reply(stream=["One ", *(piece for _ in range(99) for piece in (0.1, Raw(": x\n\n")))])
    dripping = Reply(stream=["x", 0.1] * 99)
    limits: Any = [(pinging, {"idle_timeout": 0.4}), (dripping, {"total_timeout": 0.4})]
    for reply, limit in limits:
        with serving(reply) as engine:
            start = time.monotonic()
            words, error, _ = take(engine, **limit)
            assert 0.35 < time.monotonic() - start < 0.4 + 0.1 + BUSY
            assert type(error) is StreamInterrupted
            assert error.text == "".join(words) != ""
            # The total is the caller's own bound, and no fault of the provider.
            assert engine._providers["p0"].fail_count == ("idle_timeout" in limit)
    with serving(Reply(stream=[Fault.STALL])) as engine:
        assert type(take(engine, total_timeout=0.3)[1]) is DeadlineExceeded
    broken = Reply(stream=["One ", Raw("data: {oops\n\n")])
    with serving(broken) as engine:
        heard: list[Any] = []
        engine._providers["p0"].circuit_breaker.failure_threshold = 2
        with engine.observe(heard.append):
            for _ in range(2):  # one that always breaks in the middle opens its breaker
                words, error, _ = take(engine)
                assert (words, error.text) == (["One "], "One ")
        assert engine._providers["p0"].circuit_breaker._state.value == "open"
        broken_off = ["AttemptEvent", "FaultEvent", "EndEvent"]
        opened = ["AttemptEvent", "BreakerEvent", "FaultEvent", "EndEvent"]
        assert [type(event).__name__ for event in heard] == broken_off + opened


def test_an_end_needs_a_reason_or_a_mark(take: Any) -> None:
    bare = Reply(stream=["One "], done=False)
    with serving(bare) as engine:
        words, error, stream = take(engine)
        assert (words, type(error)) == (["One "], StreamInterrupted)
        with pytest.raises(RuntimeError, match="come to its end"):
            _ = stream.result
        words, error, stream = take(engine, require_end=False)
        assert (words, error, stream.result.text) == (["One "], None, "One ")
    with serving(Reply(stream=[])) as engine:  # empty, with its mark
        assert take(engine)[:2] == ([], None)


def test_what_a_reader_does_is_not_the_providers_fault() -> None:
    slow = Reply(stream=["One ", 0.4, "two"])

    async def main(engine: Any) -> None:
        async with engine.stream("Hi") as stream:
            assert "One" in str(await anext(stream))
            with pytest.raises(asyncio.TimeoutError):
                await asyncio.wait_for(anext(stream), 0.1)
            with pytest.raises(StreamInterrupted, match="broken off"):  # and no quiet end
                await anext(stream)
            with pytest.raises(RuntimeError):
                _ = stream.result
        async with engine.stream("Hi") as stream:
            await anext(stream)
            other = asyncio.ensure_future(anext(stream))
            await asyncio.sleep(0.05)
            with pytest.raises(RuntimeError, match="another task"):
                await anext(stream)
            assert "two" in str(await other)
            with pytest.raises(RuntimeError, match="once"):
                await stream.__aenter__()
        await engine.close()

    with serving(slow) as engine:
        asyncio.run(main(engine))
        assert engine._providers["p0"].fail_count == 0


STRANGE: Any = {
    "one of two choices": [b'data: {"choices": [{"index": 1, "delta": {"content": "x"}}]}\n\n', delta(content="a"),
                           b'data: {"choices": [{"index": 1, "delta": {}, "finish_reason": "stop"}]}\n\n'],
    "an empty reason": [delta("", content="a")],
}  # fmt: skip


@pytest.mark.parametrize("strange", STRANGE)
def test_half_an_answer_is_not_a_whole_one(strange: str, take: Any) -> None:
    with serving(Reply(stream=[Raw(piece) for piece in STRANGE[strange]], done=False)) as engine:
        assert type(take(engine)[1]) is StreamInterrupted
    json_error = Reply(body={"error": {"message": "overloaded", "code": 503}})
    for no_stream in (json_error, Reply(body="<html>")):
        with serving(no_stream, Reply(stream=WORDS)) as engine:
            words, error, stream = take(engine.with_policy(FIRST), require_end=False)
            assert (words, error, stream.result.heal_level) == (WORDS, None, "l3_failover")


def test_events_in_every_legal_form_are_taken(take: Any) -> None:
    lines = "\ufeffdata:{0}\r\n\r\ndata: {1}\n\ndata: [DONE]\n\n"
    first, second = (delta(content=word)[6:-2].decode() for word in ("One ", "two"))
    raw = Raw(lines.replace("{0}", first).replace("{1}", second).encode())
    with serving(Reply(stream=[raw], done=False)) as engine:
        for _ in range(3):
            assert take(engine)[0] == ["One ", "two"]


def test_a_held_answer_keeps_every_bound(take: Any) -> None:
    silent = Reply(stream=['{"x"', Fault.STALL])
    for policy, options in (
        (FIRST.replace(deadline=0.8), {}),
        (FIRST.replace(max_attempts=2), {"idle_timeout": 0.3}),
    ):
        with serving(503, silent) as engine:
            start = time.monotonic()
            error = take(engine.with_policy(policy), **CONTRACT, **options)[1]
            assert isinstance(error, APIError)
            assert time.monotonic() - start < 0.8 + 0.1 + BUSY


def test_a_healed_answer_is_held_back_while_its_verdict_can_end_the_call(take: Any) -> None:
    with serving(503, Reply(stream=['{"x"', ": 1}"])) as engine:
        words, _, stream = take(engine.with_policy(FIRST), **CONTRACT)
        assert ("".join(words), stream.result.validation_passed) == ('{"x": 1}', True)
    with serving(503, Reply(stream=WORDS)) as engine:
        words, error, _ = take(engine.with_policy(FIRST), **CONTRACT)
        assert (words, type(error).__name__) == ([], "ContractViolationError")
        assert engine._providers["p1"].success_count == 1
    with serving(Reply(stream=WORDS)) as engine:  # a first answer is handed on as it comes
        assert take(engine, **CONTRACT)[0] == WORDS


def test_whoever_leaves_early_gives_everything_back(take: Any) -> None:
    endless = Reply(stream=["x", 0.01] * 10_000)

    async def left(engine: Any, how: str) -> None:
        async def consume() -> None:
            async with engine.stream("Hi") as stream:
                async for _ in stream:
                    if how == "stops":
                        break
                    begun.set()

        begun = asyncio.Event()
        task = asyncio.ensure_future(consume())
        if how == "cancelled":
            await begun.wait()
            task.cancel()
        elif how == "the loop ends":
            await begun.wait()
            return
        elif how == "dropped":
            task.cancel()
            stream = engine.stream("Hi")
            await stream.__aenter__()
            await anext(stream)
            del stream
            gc.collect()
            await asyncio.sleep(0.05)
        await asyncio.gather(task, return_exceptions=True)

    with serving(endless) as engine:
        record = engine._providers["p0"]
        for how in ("stops", "cancelled", "dropped", "the loop ends"):
            asyncio.run(left(engine, how))
            gc.collect()
            until(lambda: slots_of(record) == Slots(free=10))
        stream = engine.stream_sync("Hi")
        with stream:
            next(iter(stream))
            assert slots_of(record).taken == 1
        stream = engine.stream_sync("Hi").__enter__()
        del stream
        gc.collect()
        assert record.fail_count == 0


def test_a_wrong_argument_is_refused_by_name() -> None:
    engine = engine_with(provider())
    for wrong in (
        {"first_token_timeout": 0},
        {"idle_timeout": float("nan")},
        {"total_timeout": -1},
    ):
        with pytest.raises(ValueError, match=next(iter(wrong))):
            engine.stream("Hi", **wrong)
    for wrong in ({"idle_timeout": "1"}, {"messages": []}, {"prompt": None}):
        with pytest.raises(TypeError, match=r"messages|idle_timeout"):
            engine.stream_sync(**{"prompt": "Hi", **wrong})


INTERRUPTED = """
import signal, threading
from support import Slots, engine_on, slots_of
from tarvomeldric.simulator import ProviderSimulator, Reply, Fault
with ProviderSimulator(default=Reply(stream=["x", 0.2] * 100)) as simulator:
    engine = engine_on(simulator)
    for entered in (False, True):
        threading.Timer(0.1, signal.raise_signal, [signal.SIGINT]).start()
        try:
            with engine.stream_sync("Hi") as stream:
                list(stream)
        except KeyboardInterrupt:
            print(slots_of(engine._providers["mine"]) == Slots(free=10))
    with engine.stream_sync("Hi") as stream:
        print(len(list(zip(range(2), stream))))
    engine.close_sync()
"""


def test_ctrl_c_leaves_a_stream_in_order() -> None:
    assert run_child(INTERRUPTED, strict=False).split("\n") == ["True", "True", "2"]
