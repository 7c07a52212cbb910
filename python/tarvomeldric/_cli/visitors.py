"""Who calls whom on the day that ``serve`` shows."""

from __future__ import annotations

import asyncio
import contextlib
import random
from typing import Any

from tarvomeldric import Contract, SelfHealingEngine
from tarvomeldric.simulator import Fault, Reply

from .failures import FAILURES

VISITORS = 6
_PAUSE_S = 1.0  # seconds between two calls of a visitor, on average

PROVIDERS: dict[str, dict[str, Any]] = {
    "anthropic": {"default": Reply(delay=0.05)},
    "google": {"default": Reply(delay=0.4)},
    "openai": {"fault_rate": 0.2, "faults": (429, 503, 404, Fault.RESET)},
    "deepseek": {"default": 401},  # its breaker opens, and stays open for minutes
}

_CALLS: list[dict[str, Any]] = [
    {"model": "gpt-4o"},
    {"model": "gpt-4o", "task_type": "summarization"},
    {"model": "gpt-4o", "task_type": "storytelling"},
    {
        "model": "gpt-4o",
        "task_type": "extraction",
        "contract": Contract(forbidden_patterns=["as an AI"]),
    },
    {"model": "claude-sonnet-4-20250514"},
    {"model": "gemini-2.0-flash"},
    {"model": "deepseek-chat"},
]


async def visit(engine: SelfHealingEngine, number: int) -> None:
    """Call again and again, until cancelled. The same number makes the same calls."""
    chance = random.Random(number)
    while True:
        await asyncio.sleep(chance.expovariate(1.0 / _PAUSE_S))
        with contextlib.suppress(*FAILURES):
            await engine.call("What is the total of invoice 7?", **chance.choice(_CALLS))
