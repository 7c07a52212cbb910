"""A failed call heals itself: what its caller gets, blocking and awaited, and what may not change on
the way there."""

from __future__ import annotations

import asyncio
import time
from types import SimpleNamespace
from typing import Any

import pytest

import tarvomeldric as tm
from support import Slots, provider, slots_of
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
# A text with a quotation mark shows whether the verdict is written as Python writes it.
BANNED = {"contract": Contract(forbidden_patterns=["it's|ANS", "no"])}


# What a call does by default is what it does by the policy of defaults.
@pytest.fixture(params=["blocking", "awaited", "blocking, by a policy", "awaited, by a policy"])
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

    if way.startswith("blocking"):
        monkeypatch.setattr(time, "sleep", delays.append)
    else:
        monkeypatch.setattr(asyncio, "sleep", asleep)
    return delays


def ask(engine: Any, way: str, *arguments: Any, name: str = "call", **options: Any) -> Any:
    seen = engine.with_policy(tm.CallPolicy()) if "policy" in way and name == "call" else engine
    if way.startswith("blocking"):
        return getattr(seen, name + "_sync")(*arguments, **options)

    async def main() -> Any:
        try:
            return await getattr(seen, name)(*arguments, **options)
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
        self.reports: list[Any] = []
        self._telemetry = SimpleNamespace(record_fault=lambda **it: self.reports.append(it))

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
        return all(slots_of(record) == Slots(free=10) for record in self._providers.values())


class OwnError(APIError):
    """An error of the application's own, with more to say and sometimes nothing to show."""

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


def leave_nobody(engine: SelfHealingEngine) -> None:
    for name in ("anthropic", "google"):
        engine._providers[name].rate_limiter = tm.RateLimiter(1, 0.0, _tokens=0.0)


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
    day("OOO", (503, 500), L1, "server_error", slept=[1.0, 2.0]),
    day("OO", (429,), L1, "rate_limit", slept=[1.0], verdict=BROKEN, asked=BANNED),
    day("OO", (429, '{"x": 1}'), L1, "rate_limit", slept=[1.0], text='{"x": 1}',
        asked=SCHEMA | EXACT, verdict=verdict("schema", "schema_ok", True)),
    day("OO", (429, None), L1, "rate_limit", slept=[1.0], text=None, asked=SIMILAR,
        verdict=verdict("similarity", "empty_text")),
    day("OM", (404,), tm.ContractViolationError(
        f"Contract validation failed after L2 downgrade: {BROKEN}", BROKEN),
        asked=BANNED | {"has_schema": True}),
    day("OM", (404,), L2, "model_not_found"),
    day("OA", (401,), L3, "auth_error", asked=EMPTY_SCHEMA,
        verdict=verdict("schema", "No valid JSON found in output")),
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
        result = ask(engine, way, "Hi", GPT, request_id="r1", **day.asked)
        check_result(day, result)
        assert engine.reports == ([report_of(result)] if result.fault else [])
    else:
        with pytest.raises(type(day.end)) as raised:
            ask(engine, way, "Hi", GPT, **day.asked)
        told = vars(raised.value)
        asked = told.pop("attempts", None)
        foreign = "policy" not in way or isinstance(day.end, APIError)
        assert asked is None if foreign else len(asked) == len(day.road)
        if told.get("contract_result"):
            told["contract_result"] = told["contract_result"].to_dict()
        assert told == vars(day.end)
        assert raised.value.args == day.end.args
        assert raised.value.__context__ is None
        is_own = isinstance(day.end, APIError)
        assert str(raised.value.__cause__) == ("None" if is_own else f"HTTP {day.outcomes[-1]}")
    assert engine.road == day.road
    assert slept == day.slept
    assert engine._read_counters()["heal_count"] == (day.end in (L1, L2, L3))
    assert engine.is_idle()


def report_of(result: Any) -> dict[str, Any]:
    """What telemetry hears of a call that was healed."""
    # fmt: off
    return {
        "fault_type": result.fault.category.value, "sub_category": result.fault.sub_category,
        "provider": result.provider, "model": result.model, "latency_ms": result.latency_ms,
        "recovery_action": {L1: "retry", L2: "downgrade", L3: "failover"}[result.heal_level],
        "recovery_ok": True,
    }
    # fmt: on


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
    assert result.latency_ms > 0
    assert trace["total_loop_us"] > result.latency_ms * 1000
    assert trace["phases"][-1][0] == "knowledge"
    assert trace["request_id"] == "r1"
    assert trace["plan_result"] == day.end
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
        assert raised.value is error
        assert vars(error) == kept
        assert error.__context__ is None
        assert raised.traceback[-1].name == "_execute_sync"
        assert engine.is_idle()
    with pytest.raises(Exception, match="unterminated"):
        ask(Played(503, "answer"), way, "Hi", contract=Contract(forbidden_patterns=["("]))


def test_a_failover_by_hand(way: str) -> None:
    engine = Played("answer", "answer")
    fault = tm.Diagnosis(tm.FaultCategory.TIMEOUT, 0.9, True, False, sub_category="timeout:slow")
    bounds = tm.SemanticClassification(SemanticDomain.OUT_OF_BOUNDS, "by hand")
    given = ("Hi", None, "openai", fault, bounds, "first", "model", "r1")
    # A contract is not applied where nothing should have been healed.
    plain = ask(engine, way, *given, name="_failover", **BANNED)
    assert plain.fault is fault
    assert plain.mapek_trace is None
    assert plain.validation_passed is None
    assert plain.provider == "anthropic"
    assert plain.model == HAIKU
    assert plain.original_provider == "first"
    assert plain.original_model == "model"

    trace = tm.MapeKTrace("r2", plan_result="mine")
    assert ask(engine, way, *given, name="_failover", trace=trace).mapek_trace == trace.to_dict()
    assert trace.execute_result == "healed"
    assert trace.plan_result == "mine"
    assert trace.total_loop_us == 0
    for record in engine._providers.values():
        record.healthy = record.name == "openai"
    with pytest.raises(RuntimeError, match=r"^All providers failed$"):
        ask(engine, way, *given, name="_failover", trace=trace)
    assert trace.execute_result == "failed"
    assert len(trace.phases) == 2
    for wrong in ({"call_start": "now"}, {"trace": {}}, {"contract": {}}):
        with pytest.raises(TypeError, match=next(iter(wrong))):
            ask(engine, way, *given, name="_failover", **wrong)


def test_the_latency_of_a_diagnosis_covers_reading_the_text(way: str) -> None:
    class SlowError(APIError):
        def __str__(self) -> str:
            time.sleep(0.02)
            return "invalid key"

    engine = Played(SlowError("", 401))
    ask(engine, way, "Hi", GPT)
    engine._diagnoser.diagnose(SlowError(""))
    assert min(engine._diagnoser._latencies) > 20_000
