"""A failed call heals itself: what its caller gets, blocking and awaited, and what may not change on
the way there."""

from __future__ import annotations

import asyncio
import gc
import sys
import time
import weakref
from types import SimpleNamespace
from typing import Any

import pytest

import tarvomeldric as tm
from support import provider, state_of
from tarvomeldric import APIError, Contract, SelfHealingEngine, SemanticDomain

GPT, MINI, HAIKU = "gpt-4o", "gpt-4o-mini", "claude-3-5-haiku-20241022"
NAMES = ("openai", "anthropic", "google")
# The stations of a call's road: who is asked, and for which model.
STATIONS = {"O": ("openai", GPT), "M": ("openai", MINI), "A": ("anthropic", HAIKU)}
STATIONS["G"] = ("google", "gemini-2.0-flash")
L1, L2, L3, L4 = "l1_retry", "l2_downgrade", "l3_failover", "l4_learned"
EXACT = {"semantic_domain": SemanticDomain.STRONG_EQUIVALENCE}
SCHEMA = {"contract": Contract(output_schema={"required": ["x"]})}
EMPTY_SCHEMA = {"contract": Contract(output_schema={})}
SIMILAR = {"contract": Contract(similarity_threshold=0.5, reference_text="a")}
# A text with a quotation mark shows whether the verdict is written as the host writes it.
BANNED = {"contract": Contract(forbidden_patterns=["it's|ANS", "no"])}


@pytest.fixture(params=["blocking", "awaited"])
def way(request: pytest.FixtureRequest) -> Any:
    return request.param


@pytest.fixture
def slept(way: str, monkeypatch: pytest.MonkeyPatch) -> list[float]:
    """The delays asked for in this way of calling; none of them takes any time."""
    delays: list[float] = []
    real = asyncio.sleep

    async def asleep(seconds: float) -> None:
        delays.extend([seconds] * (seconds > 0))
        await real(0)

    if way == "blocking":
        monkeypatch.setattr(time, "sleep", delays.append)
    else:
        monkeypatch.setattr(asyncio, "sleep", asleep)
    return delays


def ask(engine: Any, way: str, *arguments: Any, name: str = "call", **options: Any) -> Any:
    if way == "blocking":
        return getattr(engine, name + "_sync")(*arguments, **options)

    async def main() -> Any:
        try:
            return await getattr(engine, name)(*arguments, **options)
        finally:
            await engine.close()

    return asyncio.run(main())


class Played(SelfHealingEngine):
    """Plays outcomes instead of asking a network: a status fails, an error is raised, and in the end
    there are answers. Notes whom it asked."""

    def __init__(self, *outcomes: Any) -> None:
        super().__init__({})
        for name in NAMES:
            self.add_provider(provider(name=name))
        self.outcomes, self.road = list(outcomes), ""

    def _execute_sync(self, record: Any, _: str, model: Any, **__: Any) -> Any:
        self.road += next(at for at, it in STATIONS.items() if it == (record.name, model))
        outcome = self.outcomes.pop(0) if self.outcomes else "answer"
        if isinstance(outcome, int):
            outcome = APIError(f"HTTP {outcome}", outcome)
        if isinstance(outcome, BaseException):
            raise outcome
        return outcome

    async def _execute(self, *arguments: Any, **options: Any) -> Any:
        await asyncio.sleep(0)
        return self._execute_sync(*arguments, **options)

    def is_idle(self) -> bool:
        return all(state_of(record) == (10, 0, 0) for record in self._providers.values())


class OwnError(APIError):
    """An error of the host's own, with more to say and sometimes nothing to show."""

    def __init__(self, text: str, **more: Any) -> None:
        super().__init__(text)
        vars(self).update(more)

    def __str__(self) -> str:
        if self.args == ("",):
            raise KeyError
        return super().__str__()


def verdict(strategy: str, detail: str, passed: bool = False) -> dict[str, Any]:
    check = {"strategy": strategy, "passed": passed, "detail": detail}
    return {"passed": passed, "contract_type": strategy, "checks": [check]}


BROKEN = verdict("forbidden", "Forbidden patterns found: " + str(["it's|ANS"]))


def bar(category: str) -> Any:
    """Nothing of this kind is to be asked of anthropic."""
    return lambda engine: (
        engine._providers["anthropic"].get_category_circuit_breaker(category)._trip()
    )


def leave_nobody(engine: SelfHealingEngine) -> None:
    bar("auth_error")(engine)
    engine._providers["google"].rate_limiter = tm.RateLimiter(1, 0.0, _tokens=0.0)


def teach(engine: Any) -> None:
    engine._learner.record("model_request:openai", "failover:google", True)


def day(
    road: str, outcomes: tuple[Any, ...], end: str | Exception, fault: str = "", **more: Any
) -> Any:
    """A call's road, the outcomes there up to the answers, the heal level or the error it ends with,
    and the fault in the result."""
    usual = {"slept": [], "asked": {}, "before": bool, "text": "answer", "verdict": None}
    return SimpleNamespace(road=road, outcomes=outcomes, end=end, fault=fault, **(usual | more))


# fmt: off
DAYS = [
    day("OOOOOO", (503, 500, 503, 429, 502), L1, "server_error", slept=[1.0, 2.0, 4.0, 8.0, 16.0]),
    day("OO", (429,), L1, "rate_limit", slept=[1.0], verdict=BROKEN, asked=BANNED),
    day("OO", (429, '{"x": 1}'), L1, "rate_limit", slept=[1.0], text='{"x": 1}',
        asked=SCHEMA | EXACT, verdict=verdict("schema", "schema_ok", True)),
    day("OO", (429, None), L1, "rate_limit", slept=[1.0], text=None, asked=SIMILAR,
        verdict=verdict("similarity", "empty_text")),
    day("OM", (404,), tm.ContractViolationError(
        f"Contract validation failed after L2 downgrade: {BROKEN}", BROKEN),
        asked=BANNED | {"has_schema": True}),
    day("OOOOOOM", (429, 503, 429, 503, 429, 404), L2, "model_not_found", slept=[1.0] * 5),
    day("OMG", (404, 429), L3, "model_not_found", before=bar("model_not_found")),
    day("OA", (401,), L3, "auth_error", before=bar("timeout"),
        asked=EMPTY_SCHEMA, verdict=verdict("schema", "No valid JSON found in output")),
    day("OA", (401,), tm.ContractViolationError(
        "Response drift detected: structure_mismatch_cannot_heal. "
        "Structure mismatch cannot be healed."), asked=SCHEMA),
    day("O", (503,), tm.SemanticBoundaryViolationError(
        "Cannot self-heal in OUT_OF_BOUNDS domain (task_type=Brainstorming, "
        "reason=task_type:brainstorming). Original error: server_error",
        "out_of_bounds", "task_type:brainstorming"),
        asked=BANNED | {"task_type": "Brainstorming"}),
    day("OAG", (401, 503, 418), APIError("HTTP 418", 418)),
    day("O", (401,), RuntimeError("All providers failed"), before=leave_nobody),
    day("G", (), L4, before=teach),
    day("GG", (429,), L1, "rate_limit", slept=[1.0], before=teach),
]
# fmt: on


@pytest.mark.parametrize("day", DAYS, ids=[f"{n}-{each.road}" for n, each in enumerate(DAYS)])
def test_how_a_call_ends(day: Any, way: str, slept: list[float]) -> None:
    engine = Played(*day.outcomes)
    day.before(engine)
    if isinstance(day.end, str):
        check_result(day, ask(engine, way, "Hi", GPT, request_id="r1", **day.asked))
    else:
        with pytest.raises(type(day.end)) as raised:
            ask(engine, way, "Hi", GPT, **day.asked)
        told = vars(raised.value)
        if told.get("contract_result"):
            told["contract_result"] = told["contract_result"].to_dict()
        assert (raised.value.args, told) == (day.end.args, vars(day.end))
        assert raised.value.__context__ is None
    assert (engine.road, slept) == (day.road, day.slept)
    assert engine._read_counters()["heal_count"] == (day.end in (L1, L2, L3))
    assert engine.is_idle()


def check_result(day: Any, result: Any) -> None:
    fields = {name: getattr(result, name) for name in tm.CallResult.__match_args__}
    trace, fault = fields.pop("mapek_trace"), fields.pop("fault")
    who, model = STATIONS[day.road[-1]]
    # fmt: off
    assert fields == {
        "text": day.text, "provider": who, "model": model, "success": True, "raw_response": None,
        "original_provider": "openai", "original_model": GPT, "from_cache": False,
        "downgraded": day.end == L2, "heal_level": day.end, "latency_ms": result.latency_ms,
        "semantic_domain": day.asked.get("semantic_domain", "tau_neighborhood"),
        "validation_passed": day.verdict and day.verdict["passed"], "contract_result": day.verdict,
    }
    # fmt: on
    assert trace["total_loop_us"] > result.latency_ms * 1000 > 0
    assert trace["phases"][-1][0] == "knowledge"
    assert (trace["request_id"], trace["plan_result"]) == ("r1", day.end)
    assert getattr(fault, "category", "") == day.fault


def test_errors_reach_the_caller_as_they_were_raised(way: str, slept: list[float]) -> None:
    own = [OwnError("no more", status_code=code, left=0) for code in (401, "what?", 10**30)]
    roads: list[list[Any]] = [[e, 503, e] for e in (*own, OwnError("\ud800"), OwnError(""))]
    roads += [[*road, KeyError()] for road in ([503], [503] * 2, [404], [401], [401, 503])]
    for road in roads:
        error, engine = road[-1], Played(*road)
        kept = dict(vars(error))
        with pytest.raises(type(error)) as raised:
            ask(engine, way, "Hi", GPT)
        assert (raised.value is error, vars(error), error.__context__) == (True, kept, None)
        assert raised.traceback[-1].name == "_execute_sync"
        assert engine.is_idle()
    with pytest.raises(Exception, match="unterminated"):
        ask(Played(503, "answer"), way, "Hi", contract=Contract(forbidden_patterns=["("]))


def test_telemetry_hears_what_healed_and_changes_nothing_by_failing(
    way: str, slept: list[float], monkeypatch: pytest.MonkeyPatch
) -> None:
    def fail(**report: Any) -> None:
        reports.append(report)
        raise OSError

    def install(module: Any) -> None:
        monkeypatch.setitem(sys.modules, "tarvomeldric.telemetry", module)

    reports: list[dict[str, Any]] = []
    for module in (None, SimpleNamespace(), SimpleNamespace(TelemetryCollector=fail)):
        install(module)
        assert ask(engine := Played(503, "answer"), way, "Hi", GPT).heal_level == L1
        assert engine._telemetry is None
    assert reports == [{}]

    install(SimpleNamespace(TelemetryCollector=lambda: SimpleNamespace(record_fault=fail)))
    for status, who, model, action in [
        (503, "openai", GPT, "retry"),
        (404, "openai", MINI, "downgrade"),
        (401, "anthropic", HAIKU, "failover"),
    ]:
        reports.clear()
        engine = Played(status, "answer", "answer", 401, 401, 401)
        result, _ = ask(engine, way, "Hi", GPT), ask(engine, way, "Hi", GPT)
        with pytest.raises(APIError):
            ask(engine, way, "Hi", GPT)
        fault = {"fault_type": result.fault.category.value, "latency_ms": result.latency_ms}
        fault |= {"sub_category": result.fault.sub_category, "recovery_ok": True}
        assert reports == [fault | {"provider": who, "model": model, "recovery_action": action}]


@pytest.mark.parametrize("moment", ["backing off", "waiting for a slot", "attempting"])
def test_a_call_cancelled_while_it_heals_leaves_only_what_had_happened(moment: str) -> None:
    async def cancel_midway() -> None:
        task = asyncio.create_task(engine.call("Hi", GPT))
        while not reached[moment]():
            await asyncio.sleep(0)
        task.cancel()
        with pytest.raises(asyncio.CancelledError):
            await task

    engine = Played(503 if moment == "backing off" else 401)
    first, second, _ = engine._providers.values()
    first.rate_limiter, second.rate_limiter = (tm.RateLimiter(5, 0.0, _tokens=5.0) for _ in "12")
    held = [second.bulkhead.acquire(0) for _ in range(10 if moment == "waiting for a slot" else 0)]
    reached = {
        "backing off": lambda: first.fail_count == 1,
        "waiting for a slot": lambda: state_of(second)[1] == 1,
        "attempting": lambda: state_of(second)[2] == 1,
    }
    asyncio.run(asyncio.wait_for(cancel_midway(), 10))
    for _ in held:
        second.release_slot()
    assert engine.is_idle()
    tokens = first.rate_limiter._tokens, second.rate_limiter._tokens
    assert tokens == (4, 5 - (moment == "attempting"))
    assert (first.fail_count, second.fail_count) == (1, 0)
    assert second.bulkhead.to_dict()["rejected"] == 0


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
