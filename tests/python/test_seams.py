"""What a program may replace, ask for and hand in: executions, decisions, keys and arguments."""

from __future__ import annotations

import asyncio
import copy
import pickle
import re
import time
from collections.abc import Callable
from typing import Any

import pytest

from support import Slots, engine_with, provider, slots_of
from tarvomeldric import Diagnoser, LearnedRule, SelfHealingEngine, SemanticDomain

Ask = Callable[..., Any]


def ask_awaited(engine: SelfHealingEngine, /, *arguments: Any, **options: Any) -> Any:
    return asyncio.run(engine.call(*arguments, **options))


@pytest.fixture(params=[SelfHealingEngine.call_sync, ask_awaited], ids=["call_sync", "call"])
def ask(request: pytest.FixtureRequest) -> Ask:
    asked: Ask = request.param
    return asked


class Recorder:
    """An execution of the application's own: notes what it is given and answers, or fails."""

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
    assert result.text == "answer"
    assert result.raw_response == {"set": "by the host"}
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
    assert slots_of(record) == Slots(free=10)
    assert engine.get_metrics().get_counter("success_primary") == succeeded


def test_a_trace_that_nobody_asked_for_travels_and_stays_the_same_object(ask: Ask) -> None:
    result = ask(on_instance(Recorder()), "Hi")
    travelled = pickle.loads(pickle.dumps(copy.copy(result)))
    assert travelled == result
    assert travelled.mapek_trace["phases"][0][0] == "monitor"
    assert result.mapek_trace is result.mapek_trace
    result.mapek_trace = {"other": 1}
    assert result.mapek_trace == {"other": 1}


WRONG: list[tuple[str, Any]] = [("prompt", None), ("prompt", b"Hi"), ("model", 3), ("cfg", None)]
WRONG += [("task_type", None), ("semantic_domain", "strong_equiv"), ("contract", {})]
WRONG += [("request_id", 7), ("bulkhead_timeout", None), ("bulkhead_timeout", "1")]
WRONG += [("request_id", None), ("api_type", None)]


@pytest.mark.parametrize(("name", "wrong"), WRONG)
def test_wrong_arguments_are_named_before_anything_happens(name: str, wrong: Any) -> None:
    engine: Any = engine_with()
    for form in (engine.call_sync, engine.call):
        with pytest.raises(TypeError, match=rf"\b{name}\b"):
            form(**{"prompt": "Hi", name: wrong})
    assert engine.get_stats()["call_count"] == 0
    assert engine._providers["mine"].rate_limiter.to_dict()["tokens_remaining"] == 1_000_000


def test_the_pipelines_own_decisions_can_be_asked_for() -> None:
    engine: Any = engine_with(*(provider(name=name) for name in ("azure", "openai", "groq")))
    names = engine.get_available_providers()
    engine._providers["groq"].record_success(5.0)
    assert engine._pick_provider("gpt-4o", names) == "openai"
    assert engine._pick_provider(None, names) == "groq"
    assert engine._pick_fallback(["azure", "openai"]) == "azure"
    with pytest.raises(KeyError):
        engine._pick_fallback(["nobody"])
    assert engine._resolve_model("openai", "gpt-4-turbo") == "gpt-4o-mini"
    assert engine._resolve_model("groq", None) == "deepseek-chat"
    assert engine._model_to_error_hint("my-claude") == "model_request:anthropic"
    assert engine._model_to_error_hint(None) is None
    assert engine._get_downgraded_model("google", "gemini-1.5-pro") == "gemini-2.0-flash"
    assert engine._get_downgraded_model("openai", "gpt-4o", SemanticDomain.OUT_OF_BOUNDS) is None
    assert engine.get_metrics().get_counter("downgrade_blocked_oob") == 1


def test_advice_for_the_label_counts_else_that_for_the_category() -> None:
    engine: Any = engine_with(provider(name="azure"))
    for pattern, confidence in {"odd": 0.7, "odd:slow": 0.9}.items():
        advice: Any = {"action": "failover:azure", "last_seen": time.time()}
        engine._learner._rules[pattern] = LearnedRule(pattern, confidence=confidence, **advice)
    assert engine._provider_priority("azure", "odd", "odd:slow") == 50 + 27
    assert engine._provider_priority("azure", "odd") == 50 + 21


def test_providers_come_from_keys_lists_and_maps(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("GROQ_API_KEY", "from the environment")
    monkeypatch.setenv("AZURE_OPENAI_API_KEY", "never discovered")
    keys: Any = {"openai": "given", "google": "", "groq": None}
    found: Any = SelfHealingEngine(api_keys=keys)
    read = {name: record.api_key for name, record in found._providers.items()}
    assert read == {"openai": "given", "groq": "from the environment"}
    listed: Any = SelfHealingEngine(["openai"])
    assert listed._providers["openai"].api_key == ""
    assert listed.health_check() == {"openai": "no_key"}
    own = {"mine": provider()}
    assert SelfHealingEngine(own)._providers is own
    with pytest.raises(ValueError, match=r"azure.*choose from: openai, .*, azure$"):
        SelfHealingEngine(["azure"])
    with pytest.raises(TypeError, match="got str"):
        SelfHealingEngine("openai")  # type: ignore[arg-type]
    for discover in (found._auto_discover, lambda keys: found._init_from_list(["openai"], keys)):
        with pytest.raises(TypeError, match=r"api_keys must be dict\[str, str\] . None, not int"):
            discover(5)


def test_a_diagnosis_keeps_its_text_in_lower_case_whatever_the_script() -> None:
    assert Diagnoser().diagnose("ÉTÉ \u212a БИТ \ud800").raw_error == "été k бит \ud800"
