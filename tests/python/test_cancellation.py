"""A slot comes back exactly once however a call ends, and nobody is left standing in line."""

from __future__ import annotations

import asyncio
import contextlib
import gc
import random
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from typing import Any

import pytest
import uvloop

from support import engine_on, engine_with, provider, state_of, until, worst_pause
from tarvomeldric import SelfHealingEngine
from tarvomeldric.simulator import ProviderSimulator, Reply

LOOPS = pytest.mark.parametrize("run", [asyncio.run, uvloop.run], ids=["asyncio", "uvloop"])


class Stubbed(SelfHealingEngine):
    """Takes two milliseconds to answer, and no network."""

    def _execute_sync(self, *_: Any, **__: Any) -> str:
        time.sleep(0.002)
        return "answer"

    async def _execute(self, *_: Any, **__: Any) -> str:  # type: ignore[override]
        await asyncio.sleep(0.002)
        return "answer"


def stubbed(slots: int) -> tuple[Stubbed, Any]:
    record = provider(slots=slots)
    return Stubbed({"mine": record}), record


async def waiting(record: Any, count: int) -> None:
    async def stand_in_line() -> None:
        while record.bulkhead._semaphore._waiting < count:
            await asyncio.sleep(0)

    await asyncio.wait_for(stand_in_line(), 10)


@pytest.mark.uninstrumented
@LOOPS
def test_a_hundred_coroutines_share_ten_slots_without_holding_up_the_loop(run: Any) -> None:
    async def main() -> None:
        await engine.call("Warm up")
        bare = await worst_pause(asyncio.sleep(0.5))
        answers = asyncio.gather(*(engine.call("Hi", bulkhead_timeout=30) for _ in range(100)))
        # A wait for a permit on the loop's thread would last: who holds them is on that loop, too.
        assert await worst_pause(answers) < bare + 1
        assert {result.text for result in answers.result()} == {"answer"}
        await engine.close()

    with ProviderSimulator(default=Reply("answer", delay=0.05), process=True) as simulator:
        engine = engine_on(simulator)
        run(main())
        assert simulator.request_count == 101
    assert state_of(engine._providers["mine"]) == (10, 0, 0)


def test_random_waits_time_outs_and_cancellations_lose_no_slot() -> None:
    engine, record = stubbed(slots=3)
    outcomes: set[str] = set()

    async def one(chance: random.Random) -> None:
        # Time-outs fall together with releases, which come every 2 ms.
        call = engine.call("Hi", bulkhead_timeout=chance.choice([0, 0.002, 0.004, 0.02, 5]))
        task = asyncio.create_task(call)
        if chance.random() < 0.5:
            await asyncio.sleep(chance.choice([0, 0.002, 0.004, 0.006]))
            task.cancel()
        try:
            outcomes.add((await task).text)
        except (asyncio.CancelledError, RuntimeError) as error:
            outcomes.add(type(error).__name__)

    async def many(seed: int) -> None:
        chance = random.Random(seed)
        for _ in range(4):
            await asyncio.gather(*(one(chance) for _ in range(40)))

    def blocking(seed: int) -> None:
        for _ in range(15):
            with contextlib.suppress(RuntimeError):
                engine.call_sync("Hi", bulkhead_timeout=random.Random(seed).uniform(0, 0.02))

    with ThreadPoolExecutor(8) as threads:
        work = [threads.submit(asyncio.run, many(seed)) for seed in range(3)]
        work += [threads.submit(blocking, seed) for seed in range(5)]
        assert [done.result() for done in work] == [None] * 8
    assert outcomes == {"answer", "CancelledError", "RuntimeError"}
    assert state_of(record) == (3, 0, 0)
    assert record.rate_limiter._tokens > 0


@LOOPS
def test_one_cancelled_in_the_turn_it_was_woken_leaves_the_slot_to_the_next(run: Any) -> None:
    engine, record = stubbed(slots=1)

    async def main() -> None:
        assert record.can_accept()
        calls = [engine.call("Hi", bulkhead_timeout=5) for _ in range(2)]
        first, second = map(asyncio.create_task, calls)
        await waiting(record, 2)
        record.release_slot()
        first.cancel()
        assert (await asyncio.wait_for(second, 2)).text == "answer"
        with pytest.raises(asyncio.CancelledError):
            await first

    run(main())
    assert state_of(record) == (1, 0, 0)


def test_an_exhausted_iterator_is_an_error_not_an_answer() -> None:
    engine = engine_with()
    replies: Any = iter(())
    engine._execute = lambda *_, **__: next(replies)  # type: ignore[method-assign]
    with pytest.raises(RuntimeError, match="StopIteration"):
        engine.call("Hi").send(None)  # a task would take it for a result, or wait for ever
    assert state_of(engine._providers["mine"]) == (10, 0, 0)


@pytest.mark.parametrize("fate", ["stopped", "closed", "busy"])
def test_a_waiter_whose_loop_does_not_run_keeps_nobody_else_waiting(fate: str) -> None:
    engine, record = stubbed(slots=1)
    assert record.can_accept()
    loop, done, busy = asyncio.new_event_loop(), threading.Event(), threading.Thread()
    task: Any = loop.create_task(engine.call("Hi", bulkhead_timeout=60))
    loop.run_until_complete(waiting(record, 1))
    if fate == "closed":
        loop.close()
    elif fate == "busy":
        loop.call_soon(done.wait)
        busy = threading.Thread(target=loop.run_until_complete, args=[task])
        busy.start()
        until(loop.is_running)
    with ThreadPoolExecutor(1) as thread:
        other = thread.submit(engine.call_sync, "Hi", bulkhead_timeout=20)
        until(lambda: record.bulkhead._semaphore._waiting == 2)
        record.release_slot()
        assert other.result(10).text == "answer"
    done.set()
    if fate == "busy":
        busy.join()
    elif fate == "stopped":  # it was only resting
        loop.run_until_complete(task)
    if fate != "closed":
        assert task.result().text == "answer"
    task._log_destroy_pending = False
    del task
    gc.collect()
    loop.close()
    assert state_of(record) == (1, 0, 0)


def test_a_call_closed_by_hand_does_not_hold_up_those_after_it() -> None:
    async def main() -> None:
        await engine.call("Hi")  # its connection stays open, and is taken by the next one
        call: Any = engine.call("Hi")
        call.send(None)
        call.close()
        assert (await asyncio.wait_for(engine.call("Hi"), 10)).text == "answer"

    with ProviderSimulator(default="answer") as simulator, engine_on(simulator) as engine:
        asyncio.run(main())
        assert state_of(engine._providers["mine"]) == (10, 0, 0)
