"""How a program ends, and what it leaves behind on the way."""

from __future__ import annotations

import asyncio
import gc
import weakref
from typing import Any

import pytest

from support import engine_with, provider, run_child, state_of
from support.exits import end_under_daemon_threads, interrupt


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


def suspended() -> Any:
    """In its attempt, and referred to by everything that the host may put into it."""

    class Pending:
        def __await__(self) -> Any:
            return (yield engine)

    engine: Any = engine_with()
    engine._execute = lambda *_, **__: Pending()
    engine._telemetry = engine.bound = [engine, engine.call]
    engine._last_raw_response = engine._http_pool["mine"] = engine
    engine.coroutine = engine.call("Hi", holder=engine)
    assert engine.coroutine.send(None) is engine
    assert state_of(engine._providers["mine"]) == (9, 0, 1)
    return engine


def in_line() -> Any:
    async def stand() -> None:
        engine.task = asyncio.ensure_future(engine.call("Hi"))
        await asyncio.sleep(0.01)
        engine.task._log_destroy_pending = False

    engine: Any = engine_with(provider(slots=1))
    assert engine._providers["mine"].can_accept()
    loop = asyncio.new_event_loop()
    loop.run_until_complete(stand())
    loop.close()
    assert state_of(engine._providers["mine"]) == (0, 1, 1)
    return engine


@pytest.mark.parametrize(("make", "freed"), [(suspended, 10), (in_line, 0)])
def test_cycles_through_an_engine_are_collected(make: Any, freed: int) -> None:
    engine = make()
    record, gone = engine._providers["mine"], weakref.ref(engine)
    del engine
    gc.collect()
    assert gone() is None
    assert state_of(record)[0] == freed
