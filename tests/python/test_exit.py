"""How a program ends, and what it leaves behind on the way."""

from __future__ import annotations

import asyncio
import gc
import signal
import time
import weakref
from typing import Any

import pytest
from helpers import provider, run_child, start_child, state_of, until

from tarvomeldric import SelfHealingEngine
from tarvomeldric.simulator import Fault, ProviderSimulator, Reply

DAEMONS = """
import sys, threading, time
from tarvomeldric import Bulkhead, ProviderConfig, SelfHealingEngine
engine = SelfHealingEngine({})
engine.add_provider(ProviderConfig("mine", sys.argv[1], "any-key", bulkhead=Bulkhead(4)))
def use():
    while True:
        try:
            engine.call_sync("Hi", bulkhead_timeout=5)
        except Exception:
            pass
# Some are in the exchange when the program ends, some in the line, some in between.
for _ in range(12):
    threading.Thread(target=use, daemon=True).start()
time.sleep(float(sys.argv[2]))
"""


@pytest.mark.once
def test_a_program_ends_quietly_under_its_daemon_threads() -> None:
    with ProviderSimulator(default=Reply(delay=0.01), process=True) as simulator:
        for number in range(10):
            run_child(DAEMONS, simulator.base_url, str(0.3 + number * 0.003), strict=False)


WAITING = """
import asyncio, sys
from tarvomeldric import Bulkhead, ProviderConfig, RateLimiter, SelfHealingEngine
guards = {"bulkhead": Bulkhead(1), "rate_limiter": RateLimiter(60, 0.0)}
record = ProviderConfig("mine", sys.argv[1], "any-key", **guards)
engine = SelfHealingEngine({"mine": record})
if sys.argv[2] == "slot":
    assert record.can_accept()
tokens = record.rate_limiter._tokens
print("ready", flush=True)
try:
    if sys.argv[3] == "call":
        asyncio.run(engine.call("Hi", bulkhead_timeout=60, timeout=60))
    else:
        engine.call_sync("Hi", bulkhead_timeout=60, timeout=60)
except KeyboardInterrupt:
    print("interrupted")
if sys.argv[2] == "slot":
    assert record.rate_limiter._tokens == tokens  # it was never used
    record.release_slot()
state = record.bulkhead._semaphore._permits, record.bulkhead._semaphore._waiting
print(*state, record.bulkhead.to_dict()["active"], record.fail_count)
print(engine.call_sync("Hi").text)
"""


@pytest.mark.parametrize("form", ["call_sync", "call"])
@pytest.mark.parametrize("stage", ["slot", "answer"])
def test_ctrl_c_ends_the_wait_and_gives_everything_back(stage: str, form: str) -> None:
    with ProviderSimulator(default="answer") as simulator:
        if stage == "answer":
            simulator.script(Fault.STALL)
        child = start_child(WAITING, simulator.base_url, stage, form, strict=False)
        assert child.stdout is not None
        assert child.stdout.readline() == "ready\n"
        if stage == "answer":
            until(lambda: simulator.request_count == 1)
        # At rest: before Python 3.11 an interrupt that strikes in the loop's own bookkeeping is lost.
        time.sleep(0.3)
        child.send_signal(signal.SIGINT)
        out, err = child.communicate(timeout=20)
    assert err == ""
    assert out.split("\n") == ["interrupted", "1 0 0 0", "answer", ""]


def test_importing_loads_nothing_that_is_not_needed_yet() -> None:
    program = """
import sys
import tarvomeldric
engine = tarvomeldric.SelfHealingEngine({})
engine.get_stats(), engine.health_check()
ours = {"tarvomeldric.simulator", "tarvomeldric.telemetry", "tarvomeldric._cli"}
lazy = {"httpx", "redis", "http.server", "ssl", "argparse", *ours}
print(sorted(lazy & set(sys.modules)))
"""
    assert run_child(program) == "[]"


class Mine(SelfHealingEngine):
    """Has a place for cycles, and can be asked whether it is gone."""


def replaced() -> Any:
    engine: Any = Mine({"mine": provider()})
    engine._execute = lambda *_, **__: engine
    engine._telemetry = engine.bound = [engine, engine.call]
    engine._last_raw_response = engine._http_pool["mine"] = engine
    return engine


def suspended() -> Any:
    class Pending:
        def __await__(self) -> Any:
            return (yield engine)

    engine: Any = Mine({"mine": provider()})
    engine._execute = lambda *_, **__: Pending()
    engine.coroutine = engine.call("Hi", holder=engine)
    assert engine.coroutine.send(None) is engine
    assert state_of(engine._providers["mine"]) == (9, 0, 1)
    return engine


def in_line() -> Any:
    async def stand() -> None:
        engine.task = asyncio.ensure_future(engine.call("Hi"))
        await asyncio.sleep(0.01)
        engine.task._log_destroy_pending = False

    record = provider(slots=1)
    engine: Any = Mine({"mine": record})
    assert record.can_accept()
    loop = asyncio.new_event_loop()
    loop.run_until_complete(stand())
    loop.close()
    assert state_of(record) == (0, 1, 1)
    return engine


@pytest.mark.parametrize("make", [replaced, suspended, in_line])
def test_cycles_through_an_engine_are_collected(make: Any) -> None:
    engine = make()
    record, gone = engine._providers["mine"], weakref.ref(engine)
    before = state_of(record)[0]
    del engine
    gc.collect()
    assert gone() is None
    assert state_of(record)[0] == before + (make is suspended)
