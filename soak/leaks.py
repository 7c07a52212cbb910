"""Everything that a program can do, over and over: nothing may be left behind by it, nor at the end.

`run.py` starts this in a process of its own, and reads what it writes to its standard error: nothing.
With `--leak` the end has something to tell, so that one can see that it would.
"""

# mypy: disable-error-code="func-returns-value"
# The operations are expressions, whatever their parts return.

import argparse
import asyncio
import contextlib
import copy
import ctypes
import gc
import itertools
import json
import pickle
import sys
import warnings
from collections import Counter
from collections.abc import Callable, Iterator
from typing import Any
from unittest import mock

import httpx

import tarvomeldric as tm
from support import allocated, engine_with, tireless
from tarvomeldric import (
    APIError,
    Diagnosis,
    FaultCategory,
    LearnedRule,
    MapeKPhase,
)
from tarvomeldric.simulator import Fault, ProviderSimulator, Reply, ReplyLike, rehearsal

_MANY = 1_000_000
_PRIMING = 200  # times, in which caches fill
_ROUNDS = 6  # caches of the interpreter may still be filling: a leak goes on growing
_SPARE_OBJECTS = 50  # of a type, and references to one
_SPARE_BLOCKS = 600
_SPARE_BYTES = 30_000

SCHEMA = tm.Contract({"required": ["a"]}, similarity_threshold=0.1, reference_text="a")
STRICT = tm.Contract(forbidden_patterns=["a"])
KEPT = (None, True, False, "", "mine", FaultCategory.TIMEOUT, APIError, tm.CallResult, SCHEMA)


def drive(coroutine: Any) -> Any:
    """Runs a coroutine whose every wait is over at once, without an event loop around it."""
    try:
        while True:
            coroutine.send(None)
    except StopIteration as done:
        return done.value


class Pending:
    def __await__(self) -> Iterator[None]:
        yield


def engine_on(*statuses: int) -> Any:
    """Its provider's answers have these statuses in turns."""

    def answer(request: httpx.Request) -> httpx.Response:
        said = {"content": '{"a": 1}'}
        if b'"stream"' in request.content:
            event = json.dumps({"choices": [{"delta": said}]})
            return httpx.Response(next(turns), text=f"data: {event}\n\ndata: [DONE]\n\n")
        return httpx.Response(next(turns), json={"choices": [{"message": said}]})

    turns = itertools.cycle(statuses)
    engine: Any = engine_with(tireless())
    engine._sync_client_pool["mine"] = httpx.Client(transport=httpx.MockTransport(answer))
    engine._http_pool["mine"] = httpx.AsyncClient(transport=httpx.MockTransport(answer))
    return engine


def refused(error: Any, act: Callable[[], Any]) -> None:
    try:
        act()
    except error:
        return
    raise AssertionError("nothing was raised")


def use_record(record: Any) -> None:
    assert copy.copy(record) == record
    assert pickle.loads(pickle.dumps(record)) == record
    assert repr(record)
    for name in record.__match_args__:
        value = getattr(record, name)
        with contextlib.suppress(AttributeError):  # locks are only looked at
            setattr(record, name, value)


def use_sequence(view: Any, value: Any) -> None:
    view.append(value)
    assert value in view
    last = list(view)[-1]
    assert last == view[-1]
    assert last == view.pop()


def use_mapping(view: Any, value: Any) -> None:
    view["k"] = value
    assert view["k"] == value
    assert dict(view)["k"] == value
    refused(KeyError, lambda: view["none"])
    del view["k"]


class World:
    """What the operations work with; over a real connection where they are wired."""

    def __init__(self, base_url: str) -> None:
        self.wired = engine_with(tireless(base_url=base_url))
        self.loop = asyncio.new_event_loop()
        self.good, self.bad, self.healing = engine_on(200), engine_on(401), engine_on(429, 200)
        self.careful = self.good.with_policy(tm.CallPolicy.interactive())
        self.bounded = self.wired.with_policy(tm.CallPolicy.interactive())
        self.raced = engine_with(
            *(tireless(name=name, base_url=base_url) for name in ("openai", "groq"))
        ).with_policy(tm.CallPolicy(hedge_after=1e-4, hedge_burst=_MANY))
        self.nobody = self.good.with_policy(tm.CallPolicy(providers=["nobody"]))
        self.pending = engine_on()
        self.pending._execute = lambda *_, **__: Pending()
        self.learner, self.record = self.good._learner, self.good._providers["mine"]
        self.diagnosis = Diagnosis(FaultCategory.TIMEOUT, 0.5, True, False)
        exact = tm.SemanticTopology().classify_request("", True)
        self.failing = "Hi", None, "other", self.diagnosis, exact, "other", "m", "r"

    def close(self) -> None:
        for engine in (self.wired, self.raced.engine):
            self.loop.run_until_complete(engine.close())
        self.loop.run_until_complete(self.loop.shutdown_asyncgens())
        self.loop.close()

    def awaited(self, prompt: str) -> Any:
        return self.loop.run_until_complete(self.wired.call(prompt))

    def stream(self, prompt: str = "Hi", left: bool = False) -> None:
        with self.bounded.stream_sync(prompt) as stream:
            list(itertools.islice(stream, 1 if left else None))

    def awaited_stream(self, left: bool = False) -> None:
        async def read() -> None:
            async with self.bounded.stream("Hi") as stream:
                async for _ in stream:
                    if left:
                        break

        self.loop.run_until_complete(read())

    def cancelled_stream(self) -> None:
        async def read() -> None:
            async with self.bounded.stream("slow") as stream:
                async for _ in stream:
                    reading.cancel()

        reading = self.loop.create_task(read())
        refused(asyncio.CancelledError, lambda: self.loop.run_until_complete(reading))

    def races(self) -> None:
        """The second request is under way when the first one is answered, or the other way round."""

        async def both() -> None:
            await self.raced.call("Hi")
            async with self.raced.stream("Hi") as stream:
                assert [text async for text in stream.text]
            given_up = self.loop.create_task(self.raced.call("Hi"))
            await asyncio.wait({given_up}, timeout=0.001)
            given_up.cancel()
            await asyncio.wait({given_up})

        self.raced.call_sync("Hi")
        with self.raced.stream_sync("Hi") as stream:
            assert list(stream.text)
        self.loop.run_until_complete(both())

    def rescued_streams(self) -> None:
        """Their first attempt fails."""

        async def read() -> None:
            async with self.healing.stream("Hi") as stream:
                assert [text async for text in stream.text]

        with self.healing.stream_sync("Hi") as stream:
            assert list(stream.text)
        self.loop.run_until_complete(read())

    def suspended(self) -> Any:
        coroutine = self.pending.call("Hi")
        coroutine.send(None)
        return coroutine

    def forget(self) -> None:
        """Drops the samples that the metrics may keep thousands of."""
        raced = self.raced.engine
        for engine in (self.good, self.bad, self.healing, self.pending, self.wired, raced):
            engine._metrics, engine._diagnoser = tm.MetricsCollector(), tm.Diagnoser()


def use_records(world: World) -> None:
    verdict = SCHEMA.validate("{}")
    for record in (
        world.diagnosis,
        world.good._diagnoser.suggest_recovery(world.diagnosis),
        tm.CircuitBreaker(),
        tm.RateLimiter(),
        tm.Bulkhead(),
        tm.SemanticTopology().classify_request("translation"),
        verdict,
        verdict.checks[0],
        SCHEMA,
        LearnedRule("p", "a"),
        tireless(),
        tm.MapeKTrace("r"),
        tm.CallResult("text", "p", "m", raw_response={}),
    ):
        use_record(record)


async def events(world: World) -> list[Any]:
    return [event async for event in world.good._execute_stream(world.record, "Hi", "m")]


FAILURES = (APIError, RuntimeError)
OPERATIONS: dict[str, Callable[[World], Any]] = {
    "call_sync": lambda w: w.good.call_sync("Hi", "m", temperature=0.5, request_id="r"),
    "call": lambda w: drive(w.good.call("Hi", "m", temperature=0.5, request_id="r")),
    "healed call_sync": lambda w: w.healing.call_sync("Hi", contract=SCHEMA),
    "healed call": lambda w: drive(w.healing.call("Hi", contract=SCHEMA)),
    "failing call_sync": lambda w: refused(FAILURES, lambda: w.bad.call_sync("Hi")),
    "failing call": lambda w: refused(FAILURES, lambda: drive(w.bad.call("Hi"))),
    "exchange": lambda w: w.wired.call_sync("Hi"),
    "awaited exchange": lambda w: w.awaited("Hi"),
    "refused exchange": lambda w: refused(FAILURES, lambda: w.wired.call_sync("refuse")),
    "refused awaited exchange": lambda w: refused(FAILURES, lambda: w.awaited("refuse")),
    "view": lambda w: w.good.with_policy(tm.CallPolicy(max_attempts=2)).call_sync("Hi", "m"),
    "awaited view": lambda w: drive(w.careful.call("Hi", "m", contract=SCHEMA)),
    "refused by a view": lambda w: (
        refused(tm.NoProviderAvailable, lambda: w.nobody.call_sync("Hi")),
        refused(tm.NoProviderAvailable, lambda: drive(w.nobody.call("Hi"))),
        refused(tm.NoProviderAvailable, w.nobody.stream_sync("Hi").__enter__),
    ),
    "healed stream": lambda w: w.stream(),
    "awaited healed stream": lambda w: w.awaited_stream(),
    "healed stream, left early": lambda w: w.stream(left=True),
    "awaited healed stream, left early": lambda w: w.awaited_stream(left=True),
    "healed stream, dropped": lambda w: w.bounded.stream_sync("Hi").__enter__(),
    "awaited healed stream, cancelled": lambda w: w.cancelled_stream(),
    "healed stream, cut off": lambda w: refused(tm.StreamInterrupted, lambda: w.stream("cut off")),
    "healed streams, rescued": lambda w: w.rescued_streams(),
    "races": lambda w: w.races(),
    "refused healed stream": lambda w: refused(FAILURES, w.bounded.stream_sync("refuse").__enter__),
    "failover": lambda w: w.good._failover_sync(*w.failing),
    "broken contract": lambda w: refused(
        tm.ContractViolationError, lambda: drive(w.good._failover(*w.failing, contract=STRICT))
    ),
    "out of bounds": lambda w: refused(
        tm.SemanticBoundaryViolationError,
        lambda: w.bad.call_sync("Hi", semantic_domain=tm.SemanticDomain.OUT_OF_BOUNDS),
    ),
    "wrong argument": lambda w: refused(TypeError, lambda: w.good.call(None)),
    "given up": lambda w: (
        w.good.call("Hi"),
        w.good.call("Hi").close(),
        w.suspended(),
        w.suspended().close(),
        refused(asyncio.CancelledError, lambda: w.suspended().throw(asyncio.CancelledError())),
        setattr(w.pending, "held", w.suspended()),
    ),
    "_execute": lambda w: drive(w.good._execute(w.record, "Hi", "m")),
    "stream": lambda w: drive(events(w)),
    "page": lambda w: tm._engine._build_dashboard(w.good),
    "contract": lambda w: SCHEMA.validate('{"a": 1}').to_dict(),
    "diagnose": lambda w: w.good._diagnoser.diagnose("429 too many requests", 429),
    "suggest_recovery": lambda w: w.good._diagnoser.suggest_recovery(w.diagnosis, "p", "m"),
    "learner": lambda w: (
        w.learner.record("timeout", "act", True, 1.0),
        w.learner.match("timeout:x"),
        w.learner.match_best_action("timeout"),
        w.learner.get_rules(),
        w.learner.get_stats(),
    ),
    "rules": lambda w: (
        w.learner._store("k", LearnedRule("p", "a").to_dict()),
        w.learner._merge("k", {"pattern": "p", "action": "a"}),
        refused(TypeError, lambda: LearnedRule.from_dict({})),
        use_mapping(w.learner._rules, LearnedRule("p", "a")),
    ),
    "provider": lambda w: (
        w.record.can_accept(),
        w.record.release_slot(),
        w.record.record_success(1.0),
        w.record.record_failure("busy", "timeout"),
        w.record.get_category_circuit_breaker("timeout").record_success(),
        w.record.health_score(),
        w.record.to_dict(),
    ),
    "views": lambda w: (
        use_sequence(w.record.models, "m"),
        use_sequence(w.record._recent_latencies, 1.5),
        use_sequence(w.record.circuit_breaker._window, True),
        use_sequence(tm.MapeKTrace("r").phases, ("monitor", 1.0)),
        use_mapping(w.good._metrics._counters, 1),
        use_mapping(w.good._metrics._histograms, [1.0]),
        use_mapping(w.record._category_circuit_breakers, tm.CircuitBreaker()),
    ),
    "records": use_records,
    "metrics": lambda w: (
        (metrics := w.good.get_metrics()).inc("c"),
        metrics.set_gauge("g", 1.0),
        metrics.get_all(),
        metrics.prometheus_format(),
        metrics.opentelemetry_span("s", {"a": 1}),
        metrics.health_endpoint(),
    ),
    "read-outs": lambda w: (
        w.good.get_stats(),
        w.good.get_mapek_stats(),
        w.good.health_check(),
        w.good.get_available_providers(),
        w.good._read_counters(),
        tm.MapeKTrace("r").enter(MapeKPhase.PLAN),
    ),
    "locks": lambda w: (
        w.good._pool_lock.__enter__(),
        w.good._pool_lock.__exit__(),
        w.record.bulkhead._semaphore._leave(w.record.bulkhead._semaphore._join(w)),
    ),
    "errors": lambda w: pickle.loads(pickle.dumps(APIError("busy", 429))).status_code,
    "engine": lambda w: tm.SelfHealingEngine(["openai"], {"openai": "k"}).add_provider(w.record),
}


@contextlib.contextmanager
def in_no_time() -> Iterator[None]:
    def sleep(_: float) -> None:
        pass

    async def asleep(_: float) -> None:
        pass

    with mock.patch("time.sleep", sleep), mock.patch("asyncio.sleep", asleep):
        yield


def holdings(world: World) -> Counter[str]:
    world.forget()
    while gc.collect():  # a generator that is collected may leave more to collect
        pass
    found = Counter(type(thing).__name__ for thing in gc.get_objects())
    found.update({f"references to {kept!r}": sys.getrefcount(kept) for kept in KEPT})
    found.update(blocks=sys.getallocatedblocks(), bytes=allocated())
    return found


def left_behind(world: World, name: str, times: int) -> dict[str, int]:
    before = holdings(world)
    for _ in range(times):
        OPERATIONS[name](world)
    after = holdings(world)
    after.subtract(before)
    spare = {"blocks": _SPARE_BLOCKS, "bytes": _SPARE_BYTES}
    return {what: left for what, left in after.items() if left > spare.get(what, _SPARE_OBJECTS)}


def complaints(times: int, base_url: str) -> Iterator[str]:
    """What each operation left behind, every time anew."""
    for name in OPERATIONS:
        world = World(base_url)
        left_behind(world, name, _PRIMING)
        rounds = [left_behind(world, name, times)]
        while rounds[-1] and len(rounds) < _ROUNDS:
            rounds.append(left_behind(world, name, times))
        if rounds[-1]:
            yield f"{times} times {name!r} left behind {rounds[-1]}"
        world.close()


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("times", type=int)
    parser.add_argument("--leak", action="store_true", help="keeps an engine to the end")
    options = parser.parse_args()
    warnings.filterwarnings("ignore", "coroutine .* was never awaited")
    tm._engine._warn_of_leaks(True)
    rules: dict[str, ReplyLike] = {
        "refuse": 401,
        "slow": Reply(stream=["a", 0.001, "b"]),
        "cut off": Reply(stream=["a", Fault.TRUNCATED]),
    }
    simulator = ProviderSimulator(rules=rules, process=True, keep=1)
    with rehearsal(), in_no_time(), simulator:
        found = list(complaints(options.times, simulator.base_url))
        if options.leak:
            ctypes.pythonapi.Py_IncRef(ctypes.py_object(engine_on(200)))
    for complaint in found:
        print(f"not right: {complaint}")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
