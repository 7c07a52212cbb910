"""``run``: the quick start, and a question to the providers that it finds."""

from __future__ import annotations

import argparse
import sys
from contextlib import nullcontext

import tarvomeldric
from tarvomeldric import CallResult, SelfHealingEngine, _engine

from .failures import FAILURES
from .terminal import announced_waits, aside, tame, watched
from .words import given


def main(options: argparse.Namespace) -> int:
    """Print what was found, or the answer; return 1 when there is no healthy provider, or no answer."""
    asking = options.prompt is not None
    prompt = given(options.prompt) if asking else ""
    with tarvomeldric.run(dict(options.key), verbose=not asking) as engine:
        if not engine.get_available_providers():
            return _nobody(engine)
        return _ask(engine, prompt, options) if asking else 0


def _nobody(engine: SelfHealingEngine) -> int:
    if engine._providers:
        aside(f"no provider is healthy: {', '.join(engine._providers)}")
    else:
        aside(f"no provider has a key; set one of {', '.join(_engine._ENV_MAP)}")
    return 1


def _ask(engine: SelfHealingEngine, prompt: str, options: argparse.Namespace) -> int:
    try:
        with announced_waits(aside) if watched(sys.stderr) else nullcontext():
            result = engine.call_sync(prompt, options.model, options.task)
    except FAILURES as error:
        aside(f"{type(error).__name__}: {error}", "red")
        return 1
    print(tame(result.text or ""), flush=True)
    aside(_story(result))
    return 0


def _story(result: CallResult) -> str:
    """Who answered, and what it took."""
    told = f"{result.provider}/{result.model}, {result.latency_ms:.0f} ms"
    if not result.heal_level:
        return f"{told}, at the first attempt"
    fault = f" of {result.fault.sub_category}" if result.fault else ""
    first = f"{result.original_provider}/{result.original_model}"
    return f"{told}, {result.heal_level}{fault}; first choice {first}"
