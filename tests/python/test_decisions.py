"""Which provider and which model: the small decisions, as the host may ask for them."""

from __future__ import annotations

import inspect
import time
from typing import Any

import pytest

from support import engine_with, provider
from tarvomeldric import LearnedRule, SelfHealingEngine, SemanticDomain


def test_a_provider_is_picked_by_model_health_and_advice() -> None:
    engine: Any = engine_with(*(provider(name=name) for name in ("azure", "openai", "groq")))
    names = engine.get_available_providers()
    engine._providers["groq"].record_success(5.0)
    assert engine._pick_provider("gpt-4o", names) == "openai"  # first in the table, not in the list
    assert engine._pick_provider("gpt-4o", ["azure", "groq"]) == "azure"
    assert [engine._pick_provider(model, names) for model in (None, "", "llama")] == ["groq"] * 3
    assert engine._pick_fallback(["azure", "openai"]) == "azure"
    with pytest.raises(KeyError):
        engine._pick_fallback(["nobody"])

    rules, advised = {}, {"action": "try failover:azure first", "last_seen": time.time()}
    for pattern, confidence in {"timeout": 0.7, "timeout:slow": 0.9}.items():
        rules[pattern] = LearnedRule(pattern, confidence=confidence, **advised)
    engine._learner._rules = rules
    engine._providers["azure"]._recent_latencies.append(400.0)
    assert engine._provider_priority("azure", "timeout", "timeout:slow") == 50 + 27 + 8
    assert engine._provider_priority("azure", "timeout") == 50 + 21 + 8
    assert engine._provider_priority("openai", "timeout", "timeout:slow") == 50


def test_a_model_is_resolved_downgraded_and_hints_at_its_family() -> None:
    engine: Any = engine_with()
    asked = [("openai", "gpt-4-turbo"), ("groq", None), ("groq", "llama3-70b")]
    resolved = ["gpt-4o-mini", "deepseek-chat", "llama3-70b"]
    assert [engine._resolve_model(*each) for each in asked] == resolved
    assert engine._get_downgraded_model("google", "gemini-1.5-pro") == "gemini-2.0-flash"
    assert engine._get_downgraded_model("google", "gemini-1.5-flash") is None
    assert engine._get_downgraded_model("openai", "gpt-4o", SemanticDomain.OUT_OF_BOUNDS) is None
    assert engine.get_metrics().get_counter("downgrade_blocked_oob") == 1
    assert engine._model_to_error_hint("my-claude") == "model_request:anthropic"
    assert [engine._model_to_error_hint(model) for model in ("", None)] == [None] * 2


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
        with pytest.raises(TypeError, match="api_keys must be dict or None, not int"):
            discover(5)


def test_every_public_operation_tells_its_signature() -> None:
    for function in (SelfHealingEngine, SelfHealingEngine.call, LearnedRule, LearnedRule.from_dict):
        assert inspect.signature(function).parameters
