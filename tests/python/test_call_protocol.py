"""The object that `call` returns, beside a native coroutine that does the same."""

from __future__ import annotations

import asyncio
import contextlib
import gc
import random
from collections.abc import Callable, Generator
from typing import Any

import pytest
import uvloop

from support import engine_with, state_of
from tarvomeldric import SelfHealingEngine

USED_UP = "cannot reuse already awaited coroutine"


def engine_that(execute: Callable[[], Any]) -> SelfHealingEngine:
    engine = engine_with()
    engine._execute = lambda *_, **__: execute()  # type: ignore[method-assign]
    return engine


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


@pytest.mark.parametrize("run", [asyncio.run, uvloop.run], ids=["asyncio", "uvloop"])
def test_what_a_task_runs_cannot_be_awaited_beside_it(run: Callable[..., Any]) -> None:
    async def answer() -> str:
        await asyncio.sleep(0.02)
        return "answer"

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
