"""Which provider and which model: the small decisions, as the host may ask for them."""

from __future__ import annotations

import inspect
import itertools
from typing import Any

import pytest
from helpers import engine_with, provider

from tarvomeldric import LearnedRule, SelfHealingEngine, SemanticDomain


@pytest.fixture
def engine() -> SelfHealingEngine:
    return engine_with(*(provider(name=name) for name in ("azure", "openai", "groq")))


def test_a_model_picks_its_provider_and_health_picks_the_rest(engine: Any) -> None:
    names = engine.get_available_providers()
    engine._providers["groq"].record_success(5.0)
    assert engine._pick_provider("gpt-4o", names) == "openai"  # first in the table, not in the list
    assert engine._pick_provider("gpt-4o", ["azure", "groq"]) == "azure"
    assert [engine._pick_provider(model, names) for model in (None, "", "llama")] == ["groq"] * 3
    assert engine._pick_fallback(["azure", "openai"]) == "azure"
    with pytest.raises(KeyError):
        engine._pick_fallback(["nobody"])


@pytest.mark.parametrize(
    ("name", "asked", "sent"),
    [
        ("openai", "gpt-4o", "gpt-4o"),
        ("openai", "gpt-4-turbo", "gpt-4o-mini"),
        ("openai", None, "gpt-4o-mini"),
        ("groq", None, "deepseek-chat"),
        ("groq", "llama3-70b", "llama3-70b"),
        ("deepseek", "deepseek-reasoner", "deepseek-reasoner"),
    ],
)
def test_a_model_is_resolved(engine: Any, name: str, asked: str | None, sent: str) -> None:
    assert engine._resolve_model(name, asked) == sent


def test_a_downgrade_is_one_step_and_none_out_of_bounds(engine: Any) -> None:
    chain = ["gemini-1.5-pro", "gemini-2.0-flash", "gemini-1.5-flash", None]
    for model, cheaper in itertools.pairwise(chain):
        assert engine._get_downgraded_model("google", model) == cheaper
    assert engine._get_downgraded_model("deepseek", "deepseek-reasoner") is None
    assert engine._get_downgraded_model("openai", "gpt-4o", SemanticDomain.OUT_OF_BOUNDS) is None
    assert engine.get_metrics().get_counter("downgrade_blocked_oob") == 1


@pytest.mark.parametrize(
    ("model", "hint"),
    [
        ("Meta/Llama-3.1-8B-Instruct", "nvidia"),
        ("GPT-4o", "openai"),
        ("chatgpt-4o", "unknown"),
        ("my-claude", "anthropic"),
        ("mistral-large", "unknown"),
        ("", None),
        (None, None),
    ],
)
def test_a_model_hints_at_its_family(engine: Any, model: str | None, hint: str | None) -> None:
    assert engine._model_to_error_hint(model) == (hint and f"model_request:{hint}")


def test_providers_come_from_keys_lists_and_maps(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("GROQ_API_KEY", "from the environment")
    monkeypatch.setenv("AZURE_OPENAI_API_KEY", "never discovered")
    found: Any = SelfHealingEngine(api_keys={"openai": "given", "google": "", "groq": None})  # type: ignore[dict-item]
    assert {name: record.api_key for name, record in found._providers.items()} == {
        "openai": "given",
        "groq": "from the environment",
    }
    listed: Any = SelfHealingEngine(["openai"])
    assert (listed._providers["openai"].api_key, listed.health_check()) == (
        "",
        {"openai": "no_key"},
    )
    own = {"mine": provider()}
    assert SelfHealingEngine(own)._providers is own
    for wrong, message in [
        (["azure"], "azure.*choose from: openai, .*, azure$"),
        ("openai", "got str"),
    ]:
        with pytest.raises((TypeError, ValueError), match=message):
            SelfHealingEngine(wrong)  # type: ignore[arg-type]
    for discover in (found._auto_discover, lambda keys: found._init_from_list(["openai"], keys)):
        with pytest.raises(TypeError, match="api_keys must be dict or None, not int"):
            discover(5)


def test_every_public_operation_tells_its_signature() -> None:
    for function in (SelfHealingEngine, SelfHealingEngine.call, LearnedRule, LearnedRule.from_dict):
        assert inspect.signature(function).parameters
