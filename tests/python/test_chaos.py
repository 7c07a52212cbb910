"""Threads and coroutines call one engine while its providers misbehave at random: every call ends
in one of the known ways, and the engine counts what its callers saw."""

from __future__ import annotations

import asyncio
import contextvars
import random
import threading
import time
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from contextlib import ExitStack
from typing import Any

import pytest
from helpers import engine_with, provider, state_of

from tarvomeldric import APIError, CircuitBreaker, Contract
from tarvomeldric.simulator import Fault, ProviderSimulator, ReplyLike

SEED, THREADS, COROUTINES, SLOTS, HANDFUL = 3, 16, 200, 64, 5
ENOUGH, MOST, SECONDS = 1000, 8000, 18  # calls, and the time they may take
FAULTS: list[ReplyLike] = [429, 500, 503, 401, 401, 404, 404, 404, 400, 400, *Fault]
FAULTS += ["nonsense"] * 10
NO_PROVIDER, NO_FALLBACK, NO_ROOM, NO_CANDIDATE = REFUSALS = (
    "No healthy providers available.",
    "Primary rate-limited, no fallback available.",
    "All providers rate-limited or at capacity.",
    "All providers failed",
)
HEALED = ("l1_retry", "l2_downgrade", "l3_failover")
BROKEN = tuple(f"Contract validation failed after L{n}" for n in (1, 2, 3))
LOUD = ("Cannot self-heal in OUT_OF_BOUNDS domain", "Response drift detected", "APIError")
ENDINGS = {*REFUSALS, *HEALED, *BROKEN, *LOUD, "", "l4_learned", "cancelled"}
MODELS = ("gpt-4o", "gpt-4o", "claude-sonnet-4-20250514", "gemini-1.5-pro", None)
CONTRACT = Contract(output_schema={"required": ["x"]})
EXACT, TOLERANT = ({"task_type": task, "contract": CONTRACT} for task in ("ner", "rewriting"))
TASKS: list[Any] = [{}, {"task_type": "storytelling"}, EXACT, EXACT, TOLERANT, TOLERANT]
# Whether the running call is in the pause that comes before it is counted.
pausing: contextvars.ContextVar[list[bool]] = contextvars.ContextVar("pausing")
sleep, asleep = time.sleep, asyncio.sleep


async def briefly(seconds: float) -> None:
    pause = pausing.get([False])
    pause[0] = seconds == 0.5  # no other delay has this length
    await asleep(min(seconds, 0.001))
    pause[0] = False


class Chaos:
    """The callers of one engine, the weather they have, and a tally of how their calls ended."""

    def __init__(self, engine: Any) -> None:
        self.engine, self.records = engine, list(engine._providers.values())
        self.tally: Counter[str] = Counter()
        self.lock, self.deadline = threading.Lock(), time.monotonic() + SECONDS

    def note(self, ending: Any) -> None:
        name = "APIError" if isinstance(ending, APIError) else str(ending)
        with self.lock:
            self.tally[next((end for end in ENDINGS if end and name.startswith(end)), name)] += 1

    def goes_on(self) -> bool:
        with self.lock:
            calls = sum(self.tally.values())
            missing = any(self.tally[end] < HANDFUL for end in ENDINGS)
        return (missing or calls < ENOUGH) and calls < MOST and time.monotonic() < self.deadline

    def asked(self, chance: random.Random) -> dict[str, Any]:
        waits = {"timeout": 0.2, "bulkhead_timeout": chance.choice((0, 0.01, 0.05))}
        return {"prompt": "Hi", "model": chance.choice(MODELS), **chance.choice(TASKS), **waits}

    def blocking(self, seed: int) -> None:
        chance = random.Random(seed)
        while self.goes_on():
            try:
                self.note(self.engine.call_sync(**self.asked(chance)).heal_level)
            except Exception as error:
                self.note(error)
            sleep(0.002)

    async def one(self, chance: random.Random) -> None:
        pausing.set(pause := [False])
        try:
            self.note((await self.engine.call(**self.asked(chance))).heal_level)
        except asyncio.CancelledError:
            self.note("not counted" if pause[0] else "cancelled")
        except Exception as error:
            self.note(error)

    async def awaiting(self, seed: int) -> None:
        chance = random.Random(seed)
        while self.goes_on():
            task = asyncio.ensure_future(self.one(chance))
            await asleep(chance.uniform(0, 0.1))
            if chance.random() < 0.2:
                task.cancel()
            await asyncio.wait([task])

    async def all_awaiting(self) -> None:
        await asyncio.gather(*(self.awaiting(SEED + THREADS + n) for n in range(COROUTINES)))
        await self.engine.close()

    def weather(self) -> None:
        """Revives barred providers all the time, and brings about what seldom comes by itself."""
        first, *others = everyone = self.records
        while self.goes_on():
            self.spell(NO_PROVIDER, out=everyone)
            self.spell(NO_FALLBACK, out=others, full=[first])
            self.spell(NO_ROOM, full=everyone)
            self.spell(NO_CANDIDATE, barred=everyone)

    def spell(self, ending: str, out: Any = (), full: Any = (), barred: Any = ()) -> None:
        for _ in range(20):
            for record in self.records:
                record.circuit_breaker = CircuitBreaker()
                for category in list(record._category_circuit_breakers):
                    record._category_circuit_breakers[category] = CircuitBreaker()
            sleep(0.005)
        patience = time.monotonic() + 0.5
        held = [record for record in full for _ in range(SLOTS) if record.bulkhead.acquire(0)]
        while self.tally[ending] < HANDFUL and time.monotonic() < patience:
            for record in out:
                record.circuit_breaker._trip()
            for record in barred:
                for category in ("auth_error", "unknown", "model_not_found", "validation_error"):
                    record.get_category_circuit_breaker(category)._trip()
            sleep(0.005)
        for record in held:
            record.release_slot()


def test_every_ending_occurs_and_the_counts_agree(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(time, "sleep", lambda seconds: sleep(min(seconds, 0.001)))
    monkeypatch.setattr(asyncio, "sleep", briefly)
    unruly = {"default": '{"x": 1}', "fault_rate": 0.7, "faults": FAULTS, "process": True}
    with ExitStack() as stack:
        records = []
        for seed, name in enumerate(("openai", "anthropic", "google"), SEED):
            simulator = stack.enter_context(ProviderSimulator(seed=seed, **unruly))  # type: ignore[arg-type]
            records.append(provider(simulator.base_url, name, slots=SLOTS))
        engine = stack.enter_context(engine_with(*records))
        engine._learner.record("model_request:google", "failover:anthropic", True)
        chaos = Chaos(engine)
        threads = stack.enter_context(ThreadPoolExecutor(THREADS + 2))
        work = [threads.submit(chaos.blocking, SEED + n) for n in range(THREADS)]
        work += [threads.submit(chaos.weather), threads.submit(asyncio.run, chaos.all_awaiting())]
        for done in work:
            done.result()

    tally, counts = chaos.tally, engine._read_counters()
    tally.pop("not counted", None)
    assert {end: tally[end] for end in ENDINGS if tally[end] < HANDFUL} == {}
    assert [state_of(record) for record in records] == [(SLOTS, 0, 0)] * 3
    calls = sum(tally[end] for end in ENDINGS)
    assert set(tally) == ENDINGS
    assert (counts["call_count"], engine.get_metrics().get_counter("calls_total")) == (calls, calls)
    assert counts["heal_count"] == sum(tally[end] for end in HEALED) + tally[BROKEN[2]]
