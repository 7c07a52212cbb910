"""What is asked for: random arguments of calls and of streams."""

import random
from typing import Any

from tarvomeldric import Contract, SemanticDomain


class Prompt(str):
    """A text that can be found again: as long as a call lives, so does its prompt."""

    __slots__ = ("__weakref__",)


MODELS = ("gpt-4o", "gpt-4o", "claude-sonnet-4-20250514", "gemini-1.5-pro", "no-such-model", None)
KINDS = ("chat", "chat", "chat", "embeddings", "images", "audio")
TOO_MANY = "Too many of us."  # the providers answer this with 429

STRICT = Contract(output_schema={"required": ["x"]}, forbidden_patterns=["junk"])
LOOSE = Contract(similarity_threshold=0.1, reference_text='{"x": 1}', required_entities=["x"])
TASKS: list[dict[str, Any]] = [
    {},
    {"task_type": "storytelling"},
    {"task_type": "ner", "contract": STRICT},
    {"task_type": "ner", "contract": STRICT},
    {"task_type": "rewriting", "contract": STRICT},
    {"task_type": "rewriting", "contract": LOOSE},
    {"task_type": "no such task", "has_schema": True, "contract": LOOSE},
    {"semantic_domain": SemanticDomain.TAU_NEIGHBORHOOD, "contract": LOOSE},
]


def call(chance: random.Random, text: str = "Hi") -> dict[str, Any]:
    """The arguments of a call."""
    return {
        "prompt": Prompt(f"{text} {chance.randrange(100)}"),
        "model": chance.choice(MODELS),
        "api_type": chance.choice(KINDS),
        "timeout": chance.choice((0.1, 0.2, 0.3)),
        "bulkhead_timeout": chance.choice((0, 0.01, 0.05, 0.2)),
        **chance.choice(TASKS),
    }


def stream(chance: random.Random, prompts: list[str]) -> dict[str, Any]:
    """The arguments of a stream."""
    return {"prompt": Prompt(chance.choice(prompts)), "model": "gpt-4o", "timeout": 0.2}
