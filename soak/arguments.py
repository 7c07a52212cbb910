"""Random arguments of calls and of streams."""

import random
from typing import Any

from providers import STREAMS

from tarvomeldric import CallPolicy, Contract, RetryBudget, SemanticDomain


class Prompt(str):
    """A text that can be counted: as long as a call lives, so does its prompt."""

    __slots__ = ("__weakref__",)


_MODELS = ("gpt-4o", "gpt-4o", "claude-sonnet-4-20250514", "gemini-1.5-pro", "no-such-model", None)
_KINDS = ("chat", "chat", "chat", "embeddings", "images", "audio")
_STRICT = Contract(output_schema={"required": ["x"]}, forbidden_patterns=["junk"])
_LOOSE = Contract(similarity_threshold=0.1, reference_text='{"x": 1}', required_entities=["x"])
_TASKS: list[dict[str, Any]] = [
    {},
    {"task_type": "storytelling"},
    {"task_type": "ner", "contract": _STRICT},
    {"task_type": "ner", "contract": _STRICT},
    {"task_type": "rewriting", "contract": _STRICT},
    {"task_type": "rewriting", "contract": _LOOSE},
    {"task_type": "no such task", "has_schema": True, "contract": _LOOSE},
    {"semantic_domain": SemanticDomain.TAU_NEIGHBORHOOD, "contract": _LOOSE},
]
_BUDGET = RetryBudget(ratio=0.5, min_retries_per_second=5.0, burst=10.0)
_STREAMED = (*STREAMS, "Hi", "Hello")


def of_call(chance: random.Random, text: str) -> dict[str, Any]:
    return {
        "prompt": Prompt(f"{text} {chance.randrange(100)}"),
        "model": chance.choice(_MODELS),
        "api_type": chance.choice(_KINDS),
        "timeout": chance.choice((0.1, 0.2, 0.3)),
        "bulkhead_timeout": chance.choice((0, 0.01, 0.05, 0.2)),
        **chance.choice(_TASKS),
    }


def of_stream(chance: random.Random) -> dict[str, Any]:
    return {"prompt": Prompt(chance.choice(_STREAMED)), "model": "gpt-4o", "timeout": 0.2}


def of_healed_stream(chance: random.Random) -> dict[str, Any]:
    return {
        "prompt": Prompt(chance.choice(_STREAMED)),
        "model": chance.choice(_MODELS),
        "first_token_timeout": 0.2,
        "idle_timeout": 0.2,
        "total_timeout": chance.choice((None, 0.1, 0.3)),
        "bulkhead_timeout": chance.choice((0, 0.05)),
        **chance.choice(_TASKS),
    }


def of_policy(chance: random.Random) -> CallPolicy:
    """No pause of its is as long as the one under back-pressure, by which that is known."""
    return CallPolicy(
        deadline=chance.choice((None, 0.1, 0.3, 0.7)),
        attempt_timeout=chance.choice((None, 0.06, 0.15)),
        max_attempts=chance.choice((None, None, 1, 3)),
        max_retries=chance.choice((1, 5)),
        initial_backoff=chance.choice((0.03, 1.0)),
        jitter=chance.choice((False, True)),
        retry_after=chance.choice((False, True)),
        order=chance.choice(("retry_first", "failover_first")),
        respect_breakers=chance.choice((False, True)),
        validate=chance.choice(("healed", "all")),
        providers=chance.choice((None, None, ("google", "openai"), ("anthropic", "nobody"))),
        exact_model=chance.random() < 0.2,
        retry_budget=chance.choice((None, None, _BUDGET)),
        hedge_after=chance.choice((None, None, 0.002, 0.02, "p95")),
        hedge_burst=100.0,
    )
