"""Where the host may put its own execution, and the arguments that a call refuses."""

from __future__ import annotations

import asyncio
import copy
import pickle
import re
from collections.abc import Callable
from typing import Any

import pytest
from helpers import engine_with, provider, state_of

from tarvomeldric import (
    APIError,
    RateLimiter,
    SelfHealingEngine,
    SemanticBoundaryViolationError,
    SemanticDomain,
)

Ask = Callable[..., Any]


def ask_awaited(engine: SelfHealingEngine, /, *arguments: Any, **options: Any) -> Any:
    return asyncio.run(engine.call(*arguments, **options))


@pytest.fixture(params=[SelfHealingEngine.call_sync, ask_awaited], ids=["call_sync", "call"])
def ask(request: pytest.FixtureRequest) -> Ask:
    asked: Ask = request.param
    return asked


class Recorder:
    """An execution of the host's own: notes what it is given and answers, or fails."""

    def __init__(self, answer: Any = "answer") -> None:
        self.answer = answer
        self.calls: list[Any] = []

    def __call__(self, record: Any, prompt: str, model: str, **options: Any) -> Any:
        self.calls.append((record, prompt, model, dict(options)))
        options.clear()  # a copy: it changes nothing for later attempts
        if isinstance(self.answer, BaseException):
            raise self.answer
        return self.answer

    async def awaited(self, *arguments: Any, **options: Any) -> Any:
        await asyncio.sleep(0)
        return self(*arguments, **options)


def on_instance(execution: Recorder, monkeypatch: pytest.MonkeyPatch) -> SelfHealingEngine:
    engine = engine_with()
    engine._execute_sync = execution  # type: ignore[method-assign]
    engine._execute = execution.awaited  # type: ignore[method-assign,assignment]
    return engine


def in_subclass(execution: Recorder, monkeypatch: pytest.MonkeyPatch) -> SelfHealingEngine:
    class Mine(SelfHealingEngine):
        def _execute_sync(self, *arguments: Any, **options: Any) -> Any:
            return execution(*arguments, **options)

        async def _execute(self, *arguments: Any, **options: Any) -> Any:  # type: ignore[override]
            return await execution.awaited(*arguments, **options)

    return Mine({"mine": provider()})


def on_class(execution: Recorder, monkeypatch: pytest.MonkeyPatch) -> SelfHealingEngine:
    for name, function in (("_execute_sync", execution), ("_execute", execution.awaited)):
        monkeypatch.setattr(SelfHealingEngine, name, staticmethod(function))
    return engine_with()


PLACES = pytest.mark.parametrize("place", [on_instance, in_subclass, on_class])


@PLACES
def test_a_replaced_execution_is_what_the_pipeline_calls(
    ask: Ask, place: Any, monkeypatch: pytest.MonkeyPatch
) -> None:
    execution = Recorder()
    engine = place(execution, monkeypatch)
    engine._last_raw_response = {"set": "by the host"}
    result = ask(engine, "Hi", "my-model", request_id="r", api_type="audio", temperature=0.5)
    assert (result.text, result.raw_response) == ("answer", {"set": "by the host"})
    [(record, *given)] = execution.calls
    assert record is engine._providers["mine"]
    assert given == ["Hi", "my-model", {"temperature": 0.5, "api_type": "audio"}]
    assert result.mapek_trace["request_id"] == "r"
    execution.answer = [0.5, None]
    assert ask(engine, "Hi").text == "[0.5, null]"
    execution.answer = None
    assert ask(engine, "Hi").text is None
    assert re.fullmatch("[0-9a-f]{8}", ask(engine, "Hi").mapek_trace["request_id"])


def test_a_trace_that_nobody_asked_for_travels_and_stays_the_same_object(
    ask: Ask, monkeypatch: pytest.MonkeyPatch
) -> None:
    result = ask(on_instance(Recorder(), monkeypatch), "Hi")
    travelled = pickle.loads(pickle.dumps(copy.copy(result)))
    assert travelled == result
    assert travelled.mapek_trace["phases"][0][0] == "monitor"
    assert result.mapek_trace is result.mapek_trace
    result.mapek_trace = {"other": 1}
    assert result.mapek_trace == {"other": 1}


@PLACES
@pytest.mark.parametrize("error", [KeyError("k"), KeyboardInterrupt(), SystemExit(3)])
def test_what_a_replaced_execution_raises_is_what_the_caller_gets(
    ask: Ask, place: Any, error: BaseException, monkeypatch: pytest.MonkeyPatch
) -> None:
    engine = place(Recorder(error), monkeypatch)
    with pytest.raises(type(error)) as raised:
        ask(engine, "Hi")
    assert raised.value is error
    record = engine._providers["mine"]
    assert state_of(record) == (10, 0, 0)
    counters = engine.get_metrics().get_all()["counters"]
    assert counters["calls_total"] == 1
    assert "success_primary" not in counters


def test_a_status_that_is_none_does_not_hide_the_failure(ask: Ask) -> None:
    for status in (10**30, -1, True):
        engine = on_instance(Recorder(APIError("x", status)), pytest.MonkeyPatch())
        with pytest.raises((APIError, SemanticBoundaryViolationError), match="x"):
            ask(engine, "Hi", semantic_domain=SemanticDomain.OUT_OF_BOUNDS)


REFUSED: list[tuple[str, dict[str, Any]]] = [
    ("prompt", {"prompt": None}),
    ("prompt", {"prompt": b"Hi"}),
    ("model", {"model": 3}),
    ("task_type", {"task_type": None}),
    ("semantic_domain", {"semantic_domain": "strong_equiv"}),
    ("semantic_domain", {"semantic_domain": 1}),
    ("contract", {"contract": {}}),
    ("api_type", {"api_type": None}),
    ("request_id", {"request_id": 7}),
    ("request_id", {"request_id": None}),
    ("bulkhead_timeout", {"bulkhead_timeout": "1"}),
    ("bulkhead_timeout", {"bulkhead_timeout": None}),
    ("cfg", {"cfg": None}),
]


@pytest.mark.parametrize(("name", "given"), REFUSED)
def test_wrong_arguments_are_named_before_anything_happens(
    name: str, given: dict[str, Any]
) -> None:
    engine = engine_with()
    for form in (engine.call_sync, engine.call):
        with pytest.raises(TypeError, match=rf"\b{name}\b"):
            form(**{"prompt": "Hi", **given})
    assert engine.get_stats()["call_count"] == 0
    assert engine._providers["mine"].rate_limiter.to_dict()["tokens_remaining"] == 1_000_000


def full(name: str) -> Any:
    record = provider(name=name, slots=1)
    assert record.bulkhead.acquire(0)
    return record


def dry(name: str) -> Any:
    return provider(name=name, rate_limiter=RateLimiter(1, 0.0, 0.0))


@pytest.mark.parametrize("refusing", [full, dry])
def test_admission_falls_back_once_and_then_refuses(ask: Ask, refusing: Any) -> None:
    engine = on_instance(execution := Recorder(), pytest.MonkeyPatch())
    free = provider(name="c")
    for records, message, counted in [
        ([], "No healthy providers available.", "errors_no_provider"),
        ([provider(healthy=False)], "No healthy providers available.", "errors_no_provider"),
        ([refusing("a")], "Primary rate-limited, no fallback available.", "rate_limited"),
        # Of three, the healthiest of the two others is asked, and no third.
        (
            [refusing("a"), refusing("b"), free],
            "All providers rate-limited or at capacity.",
            "bulkhead_rejected",
        ),
    ]:
        engine._providers = {record.name: record for record in records}
        before = engine.get_metrics().get_counter(counted)
        with pytest.raises(RuntimeError, match=f"^{re.escape(message)}$"):
            ask(engine, "Hi", bulkhead_timeout=0.01)
        assert engine.get_metrics().get_counter(counted) == before + 1
    assert execution.calls == []
    free.record_success(1.0)
    taken = refusing("a")
    taken.success_count = 5
    engine._providers = {record.name: record for record in (taken, refusing("b"), free)}
    result = ask(engine, "Hi", "m", bulkhead_timeout=0)
    assert (result.original_provider, result.provider) == ("a", "c")
    if refusing is full:
        assert taken.rate_limiter._tokens == 1_000_000
        assert taken.bulkhead.to_dict()["rejected"] == 1


@pytest.mark.parametrize(("calls", "faults", "pauses"), [(10, 10, 0), (11, 4, 1), (20, 6, 0)])
def test_back_pressure_pauses_half_a_second(
    ask: Ask, calls: int, faults: int, pauses: int, monkeypatch: pytest.MonkeyPatch
) -> None:
    async def sleep(seconds: float) -> None:
        slept.append(seconds)

    slept: list[float] = []
    engine = on_instance(Recorder(), monkeypatch)
    engine.get_metrics().inc("calls_total", calls)
    engine.get_metrics().inc("fault_rate_limit", faults)
    monkeypatch.setattr("time.sleep", slept.append)
    monkeypatch.setattr("asyncio.sleep", sleep)
    assert ask(engine, "Hi").text == "answer"
    assert [seconds for seconds in slept if seconds] == [0.5] * pauses
