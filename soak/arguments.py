"""Random arguments of calls and of streams."""

import random
from typing import Any

from providers import STREAMS

from tarvomeldric import Contract, SemanticDomain


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
