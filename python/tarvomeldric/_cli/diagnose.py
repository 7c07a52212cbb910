"""``diagnose``: what the engine makes of an error."""

from __future__ import annotations

import argparse
import json
from typing import Any

from tarvomeldric import CircuitBreaker, Diagnoser, Diagnosis, FaultCategory, _engine

from .terminal import paint, tame
from .words import given

_DOWNGRADED = (FaultCategory.MODEL_NOT_FOUND, FaultCategory.VALIDATION_ERROR)


def main(options: argparse.Namespace) -> int:
    """Print the diagnosis; return 1 when the error is not a known one."""
    text = given(options.text)
    diagnoser = Diagnoser()
    diagnosis = diagnoser.diagnose(text, options.status)
    facts = {
        "category": str(diagnosis.category),
        "label": diagnosis.sub_category,
        "confidence": diagnosis.confidence,
        "found_by": "status" if options.status in _engine._STATUS_MAP else "text",
        "row": _row(text),
        "should_retry": diagnosis.should_retry,
        "skip_to_failover": diagnosis.skip_to_failover,
        "retry_after": diagnosis.retry_after,
        "suggestion": _suggestion(diagnoser, diagnosis),
        "cooldown_seconds": _cooldown(diagnosis),
    }
    if options.json:
        print(json.dumps(facts, indent=2))
    else:
        _tell(facts, diagnosis, options.status)
    return 1 if diagnosis.category == FaultCategory.UNKNOWN else 0


def _row(text: str) -> dict[str, Any] | None:
    """The row of the pattern table that the text matches: the first one, which named the label."""
    for number, (pattern, *_) in enumerate(_engine._COMPILED, 1):
        if found := pattern.search(text):
            return {"number": number, "pattern": pattern.pattern, "words": found.group()}
    return None


def _suggestion(diagnoser: Diagnoser, diagnosis: Diagnosis) -> dict[str, Any]:
    action = diagnoser.suggest_recovery(diagnosis)
    return {"action": action.action, "level": str(action.level), "delay": action.delay}


def _cooldown(diagnosis: Diagnosis) -> float:
    breaker = CircuitBreaker()
    breaker.trip_with_fault(str(diagnosis.category))
    return breaker.cooldown_seconds


def _tell(facts: dict[str, Any], diagnosis: Diagnosis, status: int | None) -> None:
    row, suggestion = facts["row"], facts["suggestion"]
    known = diagnosis.category != FaultCategory.UNKNOWN
    lines = {
        "category": paint("green" if known else "red", facts["category"]),
        "confidence": f"{facts['confidence']:g}, by the {_judge(facts, status)}",
        "label": facts["label"],
        "matched": f'"{tame(row["words"])}" by row {row["number"]}: {row["pattern"]}'
        if row
        else "no row",
        "healing": _healing(diagnosis),
        "suggested": f"{suggestion['action']} ({suggestion['level']}) after {suggestion['delay']:g} s",
        "breaker": f"stays open for {facts['cooldown_seconds']:g} s once this opens it",
    }
    for name, value in lines.items():
        print(f"  {name:<11} {value}")


def _judge(facts: dict[str, Any], status: int | None) -> str:
    if facts["found_by"] == "status":
        return f"status {status}"
    return "text" if facts["row"] else "lack of anything known"


def _healing(diagnosis: Diagnosis) -> str:
    if diagnosis.should_retry:
        return f"retried up to {_engine._MAX_RETRIES} times, then failed over"
    if diagnosis.category in _DOWNGRADED:
        return "not retried; a cheaper model of the provider, then failed over"
    return "not retried; failed over at once"
