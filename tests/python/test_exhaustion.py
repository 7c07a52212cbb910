"""What a call does when the stack or the memory is used up, or a lock is held by its own thread."""

from __future__ import annotations

import sys
from types import SimpleNamespace
from typing import Any

import pytest

from support import engine_with, run_child

NESTED = """
import asyncio, itertools, math, sys, threading
import support
from tarvomeldric import SelfHealingEngine

LINKS = 50_000 if sys.version_info < (3, 12) else 2_000  # which limits the depth by itself

class Nested(SelfHealingEngine):
    depth = math.inf
    async def _execute(self, *_, **__):
        if next(links) < self.depth:
            return (await self.call("deeper")).text
        await asyncio.Event().wait()
    def _execute_sync(self, *_, **__):
        return self.call_sync("deeper").text

def dive():
    for call in lambda: asyncio.run(engine.call("Hi")), lambda: engine.call_sync("Hi"):
        try:
            call()
        except RecursionError:
            print("stopped", flush=True)

def hang():
    asyncio._set_running_loop(loop)
    held.append(engine.call("Hi"))
    held[0].send(None)

def on_a_stack_of(size, target):
    threading.stack_size(size)
    thread = threading.Thread(target=target)
    thread.start()
    thread.join()

held, links, loop = [], itertools.count(), asyncio.new_event_loop()
engine = Nested({"mine": support.tireless(slots=10**6)})
sys.unraisablehook = lambda _: None  # where the stack is low, a call cannot be told that it ends
for limit in 1000, 10**6:
    sys.setrecursionlimit(limit)
    dive()
    on_a_stack_of(256 * 1024, dive)
links, engine.depth = itertools.count(1), LINKS
on_a_stack_of(1 << 30, hang)
assert engine._providers["mine"].bulkhead._active == LINKS
on_a_stack_of(256 * 1024, held.clear)
assert support.slots_of(engine._providers["mine"]) == support.Slots(free=10**6)
loop.close()
"""


def test_calls_within_calls_end_where_the_stack_does_and_a_long_chain_can_be_dropped() -> None:
    assert run_child(NESTED, strict=False).split() == ["stopped"] * 8


STARVED = """
import _testcapi
import support
from tarvomeldric import APIError, Contract, ProviderConfig, SelfHealingEngine
from tarvomeldric._engine import _build_dashboard

engine = support.engine_with()
mine = engine._providers["mine"]
engine._execute_sync = lambda *_, **__: "answer"
async def execute(*_, **__):
    return "answer"
engine._execute = execute
failing = support.engine_with(support.tireless(), support.tireless(name="other"))
def fail_first(record, *_, **__):
    if record.name == "mine":
        raise APIError("HTTP 401", 401)
    return "answer"
failing._execute_sync = fail_first
def check(holds):
    assert holds is True or not holds.passed

def drive():
    try:
        engine.call("Hi").send(None)
    except StopIteration:
        pass

operations = {
    "statistics": lambda: (engine.get_stats(), engine.get_mapek_stats(), engine.health_check()),
    "construction": lambda: SelfHealingEngine({"mine": mine}),
    "record": lambda: engine._learner.record("pattern", "action", True, 5.0),
    "diagnosis": lambda: engine._diagnoser.diagnose("Rate limit exceeded \\u00e9", 429),
    "metrics": lambda: (engine._metrics.prometheus_format(), engine._metrics.get_all()),
    "provider": lambda: (ProviderConfig("p", "http://x", "k", models=["a"]), mine.to_dict()),
    "views": lambda: (list(engine._metrics._counters.items()), mine.models.append("x")),
    "call": lambda: engine.call_sync("Hi"),
    "awaited call": drive,
    "contract": lambda: check(Contract(forbidden_patterns=["secret"]).validate("a secret")),
    "failover": lambda: check(failing.call_sync("Hi").provider == "other"),
    "page": lambda: _build_dashboard(engine),
}
locks = [engine._lock, engine._counter_lock, engine._learner._lock, engine._metrics._lock,
         engine._diagnoser._lock, mine.bulkhead._lock, mine.rate_limiter._lock]
for name, operation in operations.items():
    operation()
    for nth in range(300):
        _testcapi.set_nomemory(nth, nth + 1)
        try:
            operation()
        except MemoryError:
            pass
        finally:
            _testcapi.remove_mem_hooks()
        assert mine.bulkhead._active == 0, (name, nth)
        assert not any(lock.locked() for lock in locks), (name, nth)
print("survived")
"""


@pytest.mark.skipif(sys.version_info >= (3, 13), reason="its own JSON reader does not survive it")
def test_a_failed_allocation_is_a_memory_error_and_leaves_nothing_behind() -> None:
    pytest.importorskip("_testcapi")
    assert run_child(STARVED, strict=False) == "survived"


def test_who_holds_a_lock_is_told_so_instead_of_waiting_for_itself() -> None:
    """As a signal handler or a finalizer would, in the middle of what is told to a fleet."""
    engine: Any = engine_with()
    refused: list[str] = []

    def ask(**_: object) -> None:
        for question in engine.get_stats, engine._learner.get_rules:
            with pytest.raises(RuntimeError, match="held by this thread") as refusal:
                question()
            refused.append(str(refusal.value))

    engine._learner._sync_mode = "redis"
    engine._learner._redis_client = SimpleNamespace(pipeline=ask)
    engine._learner.record("pattern", "action", True)
    assert len(refused) == 2
    assert not engine._learner._lock.locked()
    assert engine.get_stats()["flywheel"]["total_records"] == 1
