"""Where the host may put its own execution, and the arguments that a call refuses."""

from __future__ import annotations

import asyncio
import copy
import itertools
import pickle
import re
from collections.abc import Callable
from typing import Any

import pytest

from support import engine_with, provider, state_of
from tarvomeldric import (
    APIError,
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
        self.calls.append((record, prompt, model, options))
        if isinstance(self.answer, BaseException):
            raise self.answer
        return self.answer

    async def awaited(self, *arguments: Any, **options: Any) -> Any:
        await asyncio.sleep(0)
        return self(*arguments, **options)


def on_instance(execution: Recorder) -> SelfHealingEngine:
    engine = engine_with()
    engine._execute_sync = execution  # type: ignore[method-assign]
    engine._execute = execution.awaited  # type: ignore[method-assign,assignment]
    return engine


def in_subclass(execution: Recorder) -> SelfHealingEngine:
    class Mine(SelfHealingEngine):
        def _execute_sync(self, *arguments: Any, **options: Any) -> Any:
            return execution(*arguments, **options)

        async def _execute(self, *arguments: Any, **options: Any) -> Any:  # type: ignore[override]
            return await execution.awaited(*arguments, **options)

    return Mine({"mine": provider()})


@pytest.mark.parametrize("place", [on_instance, in_subclass])
def test_a_replaced_execution_is_what_the_pipeline_calls(ask: Ask, place: Any) -> None:
    execution = Recorder()
    engine = place(execution)
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

    succeeded = engine.get_metrics().get_counter("success_primary")
    for error in (KeyError("k"), KeyboardInterrupt(), SystemExit(3)):
        execution.answer = error
        with pytest.raises(type(error)) as raised:
            ask(engine, "Hi")
        assert raised.value is error
    assert state_of(record) == (10, 0, 0)
    assert engine.get_metrics().get_counter("success_primary") == succeeded


def test_a_trace_that_nobody_asked_for_travels_and_stays_the_same_object(ask: Ask) -> None:
    result = ask(on_instance(Recorder()), "Hi")
    travelled = pickle.loads(pickle.dumps(copy.copy(result)))
    assert travelled == result
    assert travelled.mapek_trace["phases"][0][0] == "monitor"
    assert result.mapek_trace is result.mapek_trace
    result.mapek_trace = {"other": 1}
    assert result.mapek_trace == {"other": 1}


def test_a_status_that_is_none_does_not_hide_the_failure(ask: Ask) -> None:
    for status in (10**30, -1, True):
        engine = on_instance(Recorder(APIError("x", status)))
        with pytest.raises((APIError, SemanticBoundaryViolationError), match="x"):
            ask(engine, "Hi", semantic_domain=SemanticDomain.OUT_OF_BOUNDS)


WRONG: dict[str, list[Any]] = {
    "prompt": [None, b"Hi"],
    "model": [3],
    "task_type": [None],
    "semantic_domain": ["strong_equiv"],
    "contract": [{}],
    "api_type": [None],
    "request_id": [None, 7],
    "bulkhead_timeout": [None, "1"],
    "cfg": [None],
}


@pytest.mark.parametrize("name", WRONG)
def test_wrong_arguments_are_named_before_anything_happens(name: str) -> None:
    engine: Any = engine_with()
    for wrong, form in itertools.product(WRONG[name], [engine.call_sync, engine.call]):
        with pytest.raises(TypeError, match=rf"\b{name}\b"):
            form(**{"prompt": "Hi", name: wrong})
    assert engine.get_stats()["call_count"] == 0
    assert engine._providers["mine"].rate_limiter.to_dict()["tokens_remaining"] == 1_000_000
