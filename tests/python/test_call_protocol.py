"""The object that `call` returns, beside a native coroutine that does the same."""

from __future__ import annotations

import asyncio
import contextlib
import gc
import random
import sys
from collections.abc import Callable, Coroutine, Generator
from typing import Any

import pytest
import uvloop
from helpers import engine_with, state_of

from tarvomeldric import SelfHealingEngine

Runner = Callable[[Coroutine[Any, Any, Any]], Any]
BOTH_LOOPS = pytest.mark.parametrize("run", [asyncio.run, uvloop.run], ids=["asyncio", "uvloop"])
USED_UP = "cannot reuse already awaited coroutine"


def engine_that(execute: Callable[[], Any]) -> SelfHealingEngine:
    engine = engine_with()
    engine._execute = lambda *_, **__: execute()  # type: ignore[method-assign]
    return engine


async def answer() -> str:
    await asyncio.sleep(0.02)
    return "answer"


def idle(engine: SelfHealingEngine) -> bool:
    return state_of(engine._providers["mine"]) == (10, 0, 0)


class Steps:
    """Yields twice; answers some of what is thrown at it, and swallows one kind of exit."""

    def __await__(self) -> Generator[Any, Any, str]:
        heard = []
        for name in ("first", "second"):
            try:
                heard.append((yield name))
            except KeyError:
                heard.append("KeyError")
            except GeneratorExit:
                if heard == ["stay"]:
                    yield "stubborn"
                raise
        if "boom" in heard:
            raise ValueError("boom")
        return repr(heard)


THROWN = (KeyError("k"), KeyError, ValueError("v"), StopIteration(7), GeneratorExit())
MOVES = [("send", None)] * 6 + [("send", "stay"), ("send", "boom"), ("close",)]
MOVES += [("throw", thrown) for thrown in THROWN]


def play(coroutine: Any, moves: list[tuple[Any, ...]]) -> list[Any]:
    seen: list[Any] = []
    for name, *arguments in moves:
        try:
            seen.append(getattr(coroutine, name)(*arguments))
        except StopIteration as stop:
            seen.append(("returned", getattr(stop.value, "text", stop.value)))
        except BaseException as error:
            cause = error.__cause__
            seen.append((type(error), str(error), type(cause), str(cause)))
    with contextlib.suppress(RuntimeError):
        coroutine.close()
    return seen


def test_any_sequence_of_moves_ends_as_with_a_native_coroutine() -> None:
    async def native() -> str:
        return await Steps()

    engine = engine_that(Steps)
    chance = random.Random(4)
    for _ in range(1000):
        moves = chance.choices(MOVES, k=chance.randint(1, 6))
        # Pythons disagree about a StopIteration that is thrown before the coroutine has started.
        unstarted = moves[: moves.index(("send", None))] if ("send", None) in moves else moves
        if ("throw", THROWN[3]) not in unstarted:
            assert play(engine.call("Hi"), moves) == play(native(), moves), moves
    gc.collect()
    assert idle(engine)


@BOTH_LOOPS
def test_every_way_to_await(run: Runner) -> None:
    async def main() -> None:
        call = engine.call
        results = [await call("Hi"), *await asyncio.gather(call("Hi"), call("Hi"))]
        results += [await asyncio.wait_for(call("Hi"), 10), await asyncio.shield(call("Hi"))]
        results += [await done for done in asyncio.as_completed([call("Hi")])]
        if sys.version_info >= (3, 11):
            async with asyncio.TaskGroup() as group:
                results.append(await group.create_task(call("Hi")))
        assert {result.text for result in results} == {"answer"}

    engine = engine_that(answer)
    run(main())
    for _ in range(3):
        assert run(engine.call("Hi")).text == "answer"
    assert idle(engine)


@BOTH_LOOPS
def test_what_a_task_runs_cannot_be_awaited_beside_it(run: Runner) -> None:
    async def main() -> None:
        coroutine = engine.call("Hi")
        task = asyncio.create_task(coroutine)
        await asyncio.sleep(0)
        assert "coro=<SelfHealingEngine.call()" in repr(task)
        with pytest.raises(RuntimeError, match="awaited already"):
            await coroutine
        assert (await task).text == "answer"
        with pytest.raises(RuntimeError, match=USED_UP):
            await coroutine

    engine = engine_that(answer)
    run(main())
    assert idle(engine)


def test_nothing_happens_before_the_first_await() -> None:
    engine = engine_that(lambda: pytest.fail("executed"))
    coroutine = engine.call("Hi")
    assert asyncio.iscoroutine(coroutine)
    coroutine.close()
    coroutine.close()
    with pytest.raises(RuntimeError, match=USED_UP):
        asyncio.run(coroutine)
    with pytest.warns(RuntimeWarning, match=r"'SelfHealingEngine\.call' was never awaited"):
        engine.call("Hi")
    assert engine.get_stats()["call_count"] == 0
    assert engine.get_metrics().get_all()["counters"] == {}


def test_tracing_changes_nothing() -> None:
    def trace(frame: Any, event: str, argument: Any) -> Any:
        events.append(event)
        return trace

    async def main() -> None:
        assert (await engine.call("Hi")).text == "answer"
        with pytest.raises(asyncio.TimeoutError):
            await asyncio.wait_for(engine.call("Hi"), 0.001)

    engine, before, events = engine_that(answer), sys.gettrace(), []
    sys.settrace(trace)
    try:
        asyncio.run(main())
    finally:
        sys.settrace(before)
    assert len(events) > 100
    assert idle(engine)
