"""The object that `call` returns, beside a native coroutine, and the slot that it gives back."""

from __future__ import annotations

import asyncio
import contextlib
import gc
import random
from collections.abc import Callable, Generator
from typing import Any

import pytest
import uvloop

from support import Slots, engine_on, engine_with, provider, slots_of
from tarvomeldric import SelfHealingEngine
from tarvomeldric.simulator import Fault, ProviderSimulator

LOOPS = pytest.mark.parametrize("run", [asyncio.run, uvloop.run], ids=["asyncio", "uvloop"])
USED_UP = "cannot reuse already awaited coroutine"


def engine_that(execute: Callable[[], Any], slots: int = 10) -> SelfHealingEngine:
    engine = engine_with(provider(slots=slots))
    engine._execute = lambda *_, **__: execute()  # type: ignore[method-assign]
    return engine


def idle(engine: SelfHealingEngine) -> bool:
    return slots_of(engine._providers["mine"]) == Slots(free=10)


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


async def answer() -> str:
    await asyncio.sleep(0.02)
    return "answer"


@LOOPS
def test_what_a_task_runs_cannot_be_awaited_beside_it(run: Callable[..., Any]) -> None:
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
    with pytest.warns(RuntimeWarning, match=r"'SelfHealingEngine\.call' was never awaited"):
        engine.call("Hi")
    assert engine.get_stats()["call_count"] == 0
    assert engine.get_metrics().get_all()["counters"] == {}


@LOOPS
def test_one_cancelled_in_the_turn_it_was_woken_leaves_the_slot_to_the_next(run: Any) -> None:
    async def both_in_line() -> None:
        while record.bulkhead._semaphore._waiting < 2:
            await asyncio.sleep(0)

    async def main() -> None:
        assert record.can_accept()
        calls = [engine.call("Hi", bulkhead_timeout=5) for _ in range(2)]
        first, second = map(asyncio.create_task, calls)
        await asyncio.wait_for(both_in_line(), 10)
        record.release_slot()
        first.cancel()
        assert (await asyncio.wait_for(second, 2)).text == "answer"
        with pytest.raises(asyncio.CancelledError):
            await first

    engine = engine_that(answer, slots=1)
    record: Any = engine._providers["mine"]
    run(main())
    assert slots_of(record) == Slots(free=1)


def test_an_exhausted_iterator_is_an_error_not_an_answer() -> None:
    engine = engine_that(iter(()).__next__)
    with pytest.raises(RuntimeError, match="StopIteration"):
        engine.call("Hi").send(None)  # a task would take it for a result, or wait for ever
    assert idle(engine)


def test_a_call_closed_by_hand_does_not_hold_up_those_after_it() -> None:
    async def main() -> None:
        await engine.call("Hi")  # its connection stays open, and is taken by the next one
        call: Any = engine.call("Hi")
        call.send(None)
        call.close()
        assert (await asyncio.wait_for(engine.call("Hi"), 10)).text == "answer"

    with ProviderSimulator(default="answer") as simulator, engine_on(simulator) as engine:
        asyncio.run(main())
        assert slots_of(engine._providers["mine"]) == Slots(free=10)


@pytest.mark.filterwarnings("ignore::pytest.PytestUnraisableExceptionWarning")  # of its transport
def test_a_call_whose_loop_is_gone_ends_when_it_is_closed_and_blames_nobody() -> None:
    async def ask(engine: SelfHealingEngine) -> None:
        while True:
            with contextlib.suppress(Exception):
                await engine.call("Hi")

    def close_by_hand(engine: SelfHealingEngine) -> None:
        loop = asyncio.new_event_loop()
        asking: Any = ask(engine)
        task: Any = loop.create_task(asking)
        loop.run_until_complete(asyncio.sleep(0.2))
        task._log_destroy_pending = False
        loop.close()
        asking.close()
        assert engine._providers["mine"].fail_count == 0
        assert idle(engine)

    with ProviderSimulator(default=Fault.STALL) as simulator:
        close_by_hand(engine_on(simulator))
        gc.collect()
