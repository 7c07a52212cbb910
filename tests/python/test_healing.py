"""A failed call heals itself: every ending over real HTTP, blocking and awaited, and what may not
change on the way there."""

from __future__ import annotations

import asyncio
import gc
import sys
import time
import weakref
from collections.abc import Callable, Iterator
from contextlib import ExitStack
from types import SimpleNamespace
from typing import Any

import pytest
from helpers import engine_with, provider, state_of

import tarvomeldric as tm
from tarvomeldric import APIError, Contract, SelfHealingEngine, SemanticDomain
from tarvomeldric.simulator import Fault, ProviderSimulator, ReplyLike

GPT, MINI, HAIKU = "gpt-4o", "gpt-4o-mini", "claude-3-5-haiku-20241022"
NAMES = ("openai", "anthropic", "google")
# The stations of a call's road: where its requests go, and which model they ask for.
STATIONS = dict(O=("openai", GPT), M=("openai", MINI), A=("anthropic", HAIKU))  # noqa: C408
STATIONS["G"] = ("google", "gemini-2.0-flash")
L1, L2, L3, L4 = "l1_retry", "l2_downgrade", "l3_failover", "l4_learned"
EXACT = {"semantic_domain": SemanticDomain.STRONG_EQUIVALENCE}
SCHEMA = {"contract": Contract(output_schema={"required": ["x"]})}
EMPTY_SCHEMA = {"contract": Contract(output_schema={})}
SIMILAR = {"contract": Contract(similarity_threshold=0.5, reference_text="a")}
# A text with a quotation mark shows whether the verdict is written as the host writes it.
BANNED = {"contract": Contract(forbidden_patterns=["it's|ANS", "no"])}
WAYS = pytest.mark.parametrize("way", ["blocking", "awaited"])


def ask(engine: Any, way: str, *arguments: Any, name: str = "call", **options: Any) -> Any:
    if way == "blocking":
        return getattr(engine, name + "_sync")(*arguments, **options)

    async def main() -> Any:
        try:
            return await getattr(engine, name)(*arguments, **options)
        finally:
            await engine.close()

    return asyncio.run(main())


@pytest.fixture
def slept(monkeypatch: pytest.MonkeyPatch) -> list[float]:
    """The delays asked for; none of them takes any time."""
    delays: list[float] = []
    real = asyncio.sleep

    async def asleep(seconds: float) -> None:
        delays.append(seconds)
        await real(0)

    monkeypatch.setattr(time, "sleep", delays.append)
    monkeypatch.setattr(asyncio, "sleep", asleep)
    return delays


def verdict(strategy: str, detail: str, passed: bool = False) -> dict[str, Any]:
    check = {"strategy": strategy, "passed": passed, "detail": detail}
    return {"passed": passed, "contract_type": strategy, "checks": [check]}


NO_JSON = verdict("schema", "No valid JSON found in output")
BROKEN = verdict("forbidden", "Forbidden patterns found: " + str(["it's|ANS"]))


def violation(where: str) -> Exception:
    return tm.ContractViolationError(f"Contract validation failed after {where}: {BROKEN}")


def bar(engine: SelfHealingEngine, category: str) -> None:
    engine._providers["anthropic"].get_category_circuit_breaker(category)._trip()


def occupy(engine: SelfHealingEngine) -> None:
    engine._providers["google"].rate_limiter = tm.RateLimiter(1, 0.0, _tokens=0.0)


def teach(engine: Any) -> None:
    engine._learner.record("model_request:openai", "failover:google", True)


def day(
    road: str, replies: tuple[ReplyLike, ...], end: str | Exception, fault: str = "", **more: Any
) -> Any:
    """A call's road, what its stations reply (one without a reply says "answer"), the heal level or
    the error it ends with, and the fault in the result."""
    usual = {"slept": [], "verdict": None, "asked": {}, "before": bool, "first": fault}
    usual |= {"text": "answer", "attributes": {}, "heals": isinstance(end, str) and end != L4}
    return SimpleNamespace(road=road, replies=replies, end=end, fault=fault, **(usual | more))


# fmt: off
DAYS = [
    day("OO", (429,), L1, "rate_limit", slept=[1.0]),
    day("OOOOOO", (503, 500, 503, 429, 502), L1, "server_error", slept=[1.0, 2.0, 4.0, 8.0, 16.0]),
    day("OO", (429,), violation("L1 retry"), slept=[1.0], asked=BANNED | EXACT),
    day("OO", (429,), L1, "rate_limit", slept=[1.0], verdict=BROKEN, asked=BANNED),
    day("OO", (429, '{"x": 1}'), L1, "rate_limit", slept=[1.0], text='{"x": 1}',
        asked=SCHEMA | EXACT, verdict=verdict("schema", "schema_ok", True)),
    day("OO", (429, Fault.NULL), L1, "rate_limit", slept=[1.0], text=None, asked=SIMILAR,
        verdict=verdict("similarity", "empty_text")),
    day("OM", (404,), L2, "model_not_found"),
    day("OOOOOOM", (429, 503, 429, 503, 429, 404), L2, "model_not_found", slept=[1.0] * 5,
        first="rate_limit"),
    day("OM", (404,), violation("L2 downgrade"), asked=BANNED | {"has_schema": True}),
    day("OMA", (404, 429), L3, "model_not_found"),
    day("OA", (401,), L3, "auth_error"),
    day("OOOOOOAG", (429,) * 6 + (503,), L3, "rate_limit", slept=[1.0] * 5),
    day("OG", (401,), L3, "auth_error", before=lambda engine: bar(engine, "auth_error")),
    day("OA", (401,), L3, "auth_error", before=lambda engine: bar(engine, "timeout")),
    day("OA", (401,), violation("L3 failover to anthropic"), heals=1,
        asked=BANNED | {"task_type": "ner"}),
    day("OA", (401,), L3, "auth_error", verdict=BROKEN, asked=BANNED),
    day("OA", (401,), L3, "auth_error", verdict=NO_JSON, asked=EMPTY_SCHEMA),
    day("OA", (401,), tm.ContractViolationError(
        "Response drift detected: structure_mismatch_cannot_heal. "
        "Structure mismatch cannot be healed."),
        asked=SCHEMA, attributes={"contract_result": None}),
    day("O", (503,), tm.SemanticBoundaryViolationError(
        "Cannot self-heal in OUT_OF_BOUNDS domain (task_type=Brainstorming, "
        "reason=task_type:brainstorming). Original error: server_error"),
        attributes={"domain": "out_of_bounds", "reason": "task_type:brainstorming"},
        asked=BANNED | {"task_type": "Brainstorming"}),
    day("OAG", (401, 503, 418), APIError(
        'HTTP 418: {"error": {"message": "The request failed.", "code": 418}}'),
        attributes={"status_code": 418, "__context__": None, "__cause__": None}),
    day("O", (401,), RuntimeError("All providers failed"),
        before=lambda engine: (bar(engine, "auth_error"), occupy(engine))),
    day("G", (), L4, before=teach),
    day("GG", (429,), L1, "rate_limit", slept=[1.0], before=teach),
]
# fmt: on


@pytest.fixture(scope="module")
def simulators() -> Iterator[dict[str, ProviderSimulator]]:
    with ExitStack() as stack:
        yield {name: stack.enter_context(ProviderSimulator(default="answer")) for name in NAMES}


@WAYS
@pytest.mark.parametrize("day", DAYS, ids=[f"{n}-{each.road}" for n, each in enumerate(DAYS)])
def test_how_a_call_ends(day: Any, way: str, simulators: Any, slept: list[float]) -> None:
    stations = [STATIONS[letter] for letter in day.road]
    for name, simulator in simulators.items():
        replies = zip(stations, day.replies, strict=False)
        simulator.clear()
        simulator.script(*(reply for station, reply in replies if station[0] == name))
    records = [provider(each.base_url, name) for name, each in simulators.items()]
    given = {"request_id": "r1", "temperature": 0.5, **day.asked}
    with engine_with(*records) as engine:
        day.before(engine)
        if isinstance(day.end, str):
            check_result(day, stations[-1], ask(engine, way, "Hi", GPT, **given))
        else:
            with pytest.raises(type(day.end)) as raised:
                ask(engine, way, "Hi", GPT, **given)
            assert str(raised.value) == str(day.end)
            assert {key: getattr(raised.value, key) for key in day.attributes} == day.attributes
            if "validation" in str(day.end):
                assert raised.value.contract_result.to_dict() == BROKEN
        assert engine._read_counters()["heal_count"] == day.heals
    assert slept == day.slept
    common = {"messages": [{"role": "user", "content": "Hi"}], "temperature": 0.5}
    for record in records:
        models = [model for name, model in stations if name == record.name]
        received = [request.body for request in simulators[record.name].requests]
        assert received == [{"model": model, **common} for model in models]
        assert state_of(record) == (10, 0, 0)


def check_result(day: Any, station: tuple[str, str], result: Any) -> None:
    fields = {name: getattr(result, name) for name in tm.CallResult.__match_args__}
    trace, fault, raw = (fields.pop(key) for key in ("mapek_trace", "fault", "raw_response"))
    exact = "semantic_domain" in day.asked
    # fmt: off
    assert fields == {
        "text": day.text, "provider": station[0], "model": station[1], "success": True,
        "original_provider": "openai", "original_model": GPT, "from_cache": False,
        "downgraded": day.end == L2, "heal_level": day.end, "latency_ms": result.latency_ms,
        "semantic_domain": "strong_equiv" if exact else "tau_neighborhood",
        "validation_passed": day.verdict and day.verdict["passed"], "contract_result": day.verdict,
    }
    # fmt: on
    phases = ["monitor", "analyze", "plan", "execute", "knowledge"]
    assert [name for name, _ in trace.pop("phases")] == phases
    assert trace.pop("total_loop_us") > result.latency_ms * 1000 > 0
    found = day.first or "provider_selected", day.first or "nominal"
    done = day.end, "healed" if day.fault else "ok", True
    assert list(trace.values()) == ["r1", *found, *done]
    if day.fault:
        assert (fault.category, fault.sub_category, raw) == (day.fault, day.fault, None)
    else:
        assert (fault, raw["choices"][0]["message"]["content"]) == (None, "answer")


class Played(SelfHealingEngine):
    """Plays outcomes instead of asking a network: a status fails, an error is raised."""

    def __init__(self, *outcomes: Any) -> None:
        super().__init__({})
        for name in NAMES:
            self.add_provider(provider(name=name))
        self.outcomes = list(outcomes)

    def _execute_sync(self, *_: Any, **__: Any) -> Any:
        outcome = self.outcomes.pop(0)
        if isinstance(outcome, int):
            outcome = APIError(f"HTTP {outcome}", outcome)
        if isinstance(outcome, BaseException):
            raise outcome
        return outcome

    async def _execute(self, *_: Any, **__: Any) -> Any:
        await asyncio.sleep(0)
        return self._execute_sync()


class OwnError(APIError):
    """An error of the host's own, with more to say and sometimes nothing to show."""

    def __init__(self, text: str, **more: Any) -> None:
        super().__init__(text)
        vars(self).update(more)

    def __str__(self) -> str:
        if self.args == ("",):
            raise KeyError
        return super().__str__()


@WAYS
def test_errors_reach_the_caller_as_they_were_raised(way: str, slept: list[float]) -> None:
    own = [OwnError("no more", status_code=code, left=0) for code in (401, "what?", 10**30)]
    for error in (*own, OwnError("\ud800"), OwnError("")):
        check_passes(error, way, error, 503, error)
    for road in ([503], [503] * 2, [404], [401], [401, 503]):
        error = KeyError("of another kind")
        check_passes(error, way, *road, error)
    with pytest.raises(Exception, match="unterminated"):
        ask(Played(503, "answer"), way, "Hi", contract=Contract(forbidden_patterns=["("]))


def check_passes(error: Exception, way: str, *road: Any) -> None:
    kept, engine = dict(vars(error)), Played(*road)
    with pytest.raises(type(error)) as raised:
        ask(engine, way, "Hi", GPT)
    assert (raised.value is error, vars(error), error.__context__) == (True, kept, None)
    assert raised.traceback[-1].name == "_execute_sync"
    assert [state_of(record) for record in engine._providers.values()] == [(10, 0, 0)] * 3


@WAYS
@pytest.mark.parametrize("failing", ["module", "class", "constructor", "report"])
def test_telemetry_hears_what_healed_and_changes_nothing_by_failing(
    way: str, failing: str, slept: list[float], monkeypatch: pytest.MonkeyPatch
) -> None:
    def fail(**report: Any) -> None:
        reports.append(report)
        raise OSError

    made = fail if failing == "constructor" else lambda: SimpleNamespace(record_fault=fail)
    module = SimpleNamespace(**({} if failing == "class" else {"TelemetryCollector": made}))
    module = None if failing == "module" else module  # type: ignore[assignment]
    monkeypatch.setitem(sys.modules, "tarvomeldric.telemetry", module)
    for status, level, *healer in [
        (503, L1, "openai", GPT, "retry"),
        (404, L2, "openai", MINI, "downgrade"),
        (401, L3, "anthropic", HAIKU, "failover"),
    ]:
        reports: list[dict[str, Any]] = []
        engine = Played(status, "answer", "answer", 401, 401, 401)
        result = ask(engine, way, "Hi", GPT)
        assert (result.heal_level, ask(engine, way, "Hi", GPT).heal_level) == (level, "")
        with pytest.raises(APIError):
            ask(engine, way, "Hi", GPT)
        assert (engine._telemetry is None) == (failing != "report")
        fault, told = result.fault, ("provider", "model", "recovery_action")
        report = {"fault_type": fault.category.value, "sub_category": fault.sub_category}
        report |= {**dict(zip(told, healer, strict=True)), "recovery_ok": True}
        report["latency_ms"] = result.latency_ms
        expected = {"report": [report], "constructor": [{}] * len(reports)}
        assert reports == expected.get(failing, [])


def test_the_loop_goes_on_during_a_back_off() -> None:
    engine, done = Played(429, *["answer"] * 51), []

    async def main() -> None:
        healed = asyncio.create_task(engine.call("Hi", GPT))
        await asyncio.sleep(0.01)
        for _ in range(50):
            done.append((await engine.call("Hi", GPT)).heal_level)
        assert not healed.done()
        done.append((await healed).heal_level)

    asyncio.run(main())
    assert done == [""] * 50 + [L1]


async def cancel_when(engine: Played, reached: Callable[[], bool]) -> None:
    task = asyncio.create_task(engine.call("Hi", GPT))
    while not reached():
        assert not task.done()
        await asyncio.sleep(0)
    task.cancel()
    with pytest.raises(asyncio.CancelledError):
        await task


@pytest.mark.parametrize("moment", ["backing off", "waiting for a slot", "attempting"])
def test_a_call_cancelled_while_it_heals_leaves_only_what_had_happened(moment: str) -> None:
    engine = Played(503 if moment == "backing off" else 401)
    first, second, _ = engine._providers.values()
    for record in first, second:
        record.rate_limiter = tm.RateLimiter(5, 0.0, _tokens=5.0)
    held = [second.bulkhead.acquire(0) for _ in range(10 if moment == "waiting for a slot" else 0)]
    reached = {
        "backing off": lambda: first.fail_count == 1,
        "waiting for a slot": lambda: state_of(second)[1] == 1,
        "attempting": lambda: state_of(second)[2] == 1,
    }
    asyncio.run(cancel_when(engine, reached[moment]))
    for _ in held:
        second.release_slot()
    for record, spent, failed in [(first, 1, 1), (second, int(moment == "attempting"), 0)]:
        assert state_of(record) == (10, 0, 0)
        assert record.rate_limiter._tokens == 5 - spent
        assert (record.bulkhead.to_dict()["rejected"], record.fail_count) == (0, failed)
    counted = set(engine.get_metrics().get_all()["counters"])
    assert counted - {"fault_server_error", "fault_auth_error"} <= {
        "calls_total",
        "l1_skip_to_failover",
    }


def test_a_forgotten_call_is_collected_with_the_error_it_keeps() -> None:
    loop, error = asyncio.new_event_loop(), OwnError("HTTP 503", status_code=503)
    engine = Played(error)
    record, gone = engine._providers["openai"], weakref.ref(engine)
    call: Any = engine.call("Hi", GPT)
    vars(error).update(call=call, engine=engine)
    task: Any = loop.create_task(call)
    while record.fail_count == 0:
        loop.run_until_complete(asyncio.sleep(0))
    task._log_destroy_pending = False
    loop.close()
    del task, call, engine, error
    gc.collect()
    assert (gone(), state_of(record)) == (None, (10, 0, 0))


@WAYS
def test_a_failover_by_hand(way: str) -> None:
    engine = Played("answer", "answer")
    fault = tm.Diagnosis(tm.FaultCategory.TIMEOUT, 0.9, True, False, sub_category="timeout:slow")
    bounds = tm.SemanticClassification(SemanticDomain.OUT_OF_BOUNDS, "by hand")
    given = ("Hi", None, "openai", fault, bounds, "first", "model", "r1")
    # A contract is not applied where nothing should have been healed.
    plain = ask(engine, way, *given, name="_failover", **BANNED)
    assert (plain.fault is fault, plain.mapek_trace, plain.validation_passed) == (True, None, None)
    assert (plain.provider, plain.model, plain.original_model) == ("anthropic", HAIKU, "model")

    trace = tm.MapeKTrace("r2", plan_result="mine")
    assert ask(engine, way, *given, name="_failover", trace=trace).mapek_trace == trace.to_dict()
    assert (trace.plan_result, trace.execute_result, trace.total_loop_us) == ("mine", "healed", 0)
    for record in engine._providers.values():
        record.healthy = record.name == "openai"
    with pytest.raises(RuntimeError, match=r"^All providers failed$"):
        ask(engine, way, *given, name="_failover", trace=trace)
    assert (trace.execute_result, len(trace.phases)) == ("failed", 2)
    for wrong in ({"call_start": "now"}, {"trace": {}}, {"contract": {}}):
        with pytest.raises(TypeError, match=next(iter(wrong))):
            ask(engine, way, *given, name="_failover", **wrong)


def test_the_priority_of_a_candidate() -> None:
    engine = Played()
    learner: Any = engine._learner
    rules = learner._rules
    latencies = engine._providers["google"]._recent_latencies
    rules.clear()
    for pattern, confidence in {"timeout": 0.7, "timeout:slow": 0.9}.items():
        rules[pattern] = tm.LearnedRule(
            pattern, "try failover:google first", confidence=confidence, last_seen=time.time()
        )
    latencies.append(400.0)
    assert engine._provider_priority("google", "timeout", "timeout:slow") == 50 + 27 + 8
    assert engine._provider_priority("google", "timeout") == 50 + 21 + 8
    assert engine._provider_priority("openai", "timeout", "timeout:slow") == 50
    for latency, bonus in [(1.0, 9.995), (1999.0, 0.005), (2000.0, 0), (5000.0, 0)]:
        latencies[0] = latency
        assert engine._provider_priority("google", "unknown") == pytest.approx(50 + bonus)
