"""How a program ends, and what it leaves behind on the way."""

from __future__ import annotations

import asyncio
import gc
import weakref
from typing import Any

import pytest

from support import KEY, NOWHERE, Slots, engine_with, provider, run_child, slots_of, until
from support.exits import end_under_daemon_threads, interrupt
from tarvomeldric import APIError, CircuitBreaker, FlywheelLearner, LearnedRule, ProviderConfig


@pytest.mark.once
def test_a_program_ends_quietly_under_its_daemon_threads() -> None:
    end_under_daemon_threads(10)


@pytest.mark.parametrize("form", ["call_sync", "call"])
@pytest.mark.parametrize("stage", ["slot", "answer"])
def test_ctrl_c_ends_the_wait_and_gives_everything_back(stage: str, form: str) -> None:
    interrupt(stage, form)


NOT_YET = """
import sys
import tarvomeldric
engine = tarvomeldric.SelfHealingEngine({})
engine.get_stats(), engine.health_check()
ours = {"tarvomeldric.simulator", "tarvomeldric.telemetry", "tarvomeldric._cli"}
lazy = {"httpx", "redis", "http.server", "ssl", "argparse", *ours}
print(sorted(lazy & set(sys.modules)))
"""


def test_importing_loads_nothing_that_is_not_needed_yet() -> None:
    assert run_child(NOT_YET) == "[]"


def own(cls: Any, engine: Any, *arguments: Any) -> Any:
    """A part of a class of the application's own, whose instances take attributes."""
    part = type(cls.__name__, (cls,), {})(*arguments)
    part.engine = engine
    return part


def made_of_parts() -> Any:
    """Referred to by parts that its program made."""
    engine: Any = engine_with()
    record = engine._providers["mine"]
    engine._providers["own"] = own(ProviderConfig, engine, "own", NOWHERE, KEY)
    record.circuit_breaker = own(CircuitBreaker, engine)
    record._category_circuit_breakers["timeout"] = own(CircuitBreaker, engine)
    engine._learner = own(FlywheelLearner, engine)
    engine._learner._rules["own"] = own(LearnedRule, engine, "own", "act")
    engine.get_stats()
    return engine


def suspended() -> Any:
    """In its second attempt, and referred to by everything that its program may put into it."""

    class Pending:
        def __await__(self) -> Any:
            return (yield engine)

    def execute(*_: Any, **__: Any) -> Any:
        if failures:
            raise failures.pop()
        return Pending()

    engine: Any = engine_with(provider(name="other"), provider())
    engine._execute, failures = execute, [APIError("HTTP 401", 401)]
    failures[0].engine = engine  # type: ignore[attr-defined]
    engine._telemetry = engine.bound = [engine, engine.call]
    engine._last_raw_response = engine._http_pool["mine"] = engine
    engine.coroutine = engine.call("Hi", holder=engine)
    assert engine.coroutine.send(None) is engine
    assert slots_of(engine._providers["mine"]) == Slots(free=9, taken=1)
    return engine


def in_line() -> Any:
    """Waiting for a slot on a loop that is gone."""

    async def stand() -> None:
        engine.task = asyncio.ensure_future(engine.call("Hi"))
        await asyncio.sleep(0.01)
        engine.task._log_destroy_pending = False

    engine: Any = engine_with(provider(slots=1))
    assert engine._providers["mine"].can_accept()
    loop = asyncio.new_event_loop()
    loop.run_until_complete(stand())
    loop.close()
    assert slots_of(engine._providers["mine"]) == Slots(free=0, waiting=1, taken=1)
    return engine


@pytest.mark.parametrize(("make", "freed"), [(made_of_parts, 10), (suspended, 10), (in_line, 0)])
def test_cycles_through_an_engine_are_collected(make: Any, freed: int) -> None:
    engine = make()
    semaphore, gone = engine._providers["mine"].bulkhead._semaphore, weakref.ref(engine)
    del engine
    until(lambda: (gc.collect(), gone())[1] is None)  # one collection at a time, of all threads
    assert semaphore._permits == freed
