"""The diagnoser beside a row-by-row walk with the host's own patterns."""

from __future__ import annotations

import random
import re
from typing import Any

import pytest

from tarvomeldric import Diagnoser, FaultCategory
from tarvomeldric._engine import _COMPILED, _DECISION, _PATTERNS, _STATUS_MAP

# Of several scripts, with what makes case and white space hard: characters that fold onto ASCII
# letters, white space beyond ASCII and what only looks like it, half characters, controls.
ODD = "\u0131\u0130\u212a\u017f\u017f\u2126\u00df\u1e9e\u03a3\u03c2\ufb05\u0345\u00b5\u00c5\u212b"
SPACE = " \t\n\v\f\r\x1c\x1d\x1e\x1f\x85\xa0\u1680\u2003\u200b\u2028\u2029\u202f\u3000\ufeff"
OTHER = "\0\x7f\ud800\udfff\uffff\U0001f600\U0010ffff限流通义额度بитЖ"
FOLDS = {"i": "iI\u0131\u0130", "k": "kK\u212a", "s": "sS\u017f"}


def pieces() -> list[str]:
    """What the patterns are made of: their literal parts, whole and in halves."""
    found = {
        piece
        for pattern, *_ in _PATTERNS
        for piece in re.split(r"[|()]|\.\*|\.\?|\?|\\s\*", pattern.replace("\\.", "."))
        if piece
    }
    return sorted(found) + sorted(piece[: len(piece) // 2] for piece in found)


def random_text(chance: random.Random, parts: list[str]) -> str:
    def piece() -> str:
        part = chance.choice(parts)
        folded = "".join(chance.choice(FOLDS.get(c, c + c.upper())) for c in part)
        other = chance.choice(SPACE), chance.choice(ODD + OTHER)
        return chance.choice([part, part, folded, folded, *other])

    return "".join(piece() for _ in range(chance.randint(1, 9)))


def walked(text: str, status: int | None) -> tuple[Any, ...]:
    lowered = text.lower()
    row = next((row for row in _COMPILED if row[0].search(lowered)), None)
    category, confidence, label = FaultCategory.UNKNOWN, 0.5, "unknown"
    if status in _STATUS_MAP:
        category, confidence = _STATUS_MAP[status], 0.95
        label = f"{category}:http_{status}"
    if row is not None:
        label = row[5]
        if category is FaultCategory.UNKNOWN:
            category, confidence = row[1], row[2]
    wait = 1.0 if category is FaultCategory.RATE_LIMIT else None
    return (category, confidence, *_DECISION[category], wait, lowered[:500], label)


def diagnosed(diagnoser: Diagnoser, text: str, status: int | None) -> tuple[Any, ...]:
    diagnosis = diagnoser.diagnose(Exception(text), status)
    return tuple(getattr(diagnosis, name) for name in diagnosis.__match_args__)


def test_random_texts_are_diagnosed_as_by_a_walk() -> None:
    chance, parts, diagnoser = random.Random(45), pieces(), Diagnoser()
    labels: dict[str, int] = {}
    statuses = [None, None, None, 0, 418, -429, *_STATUS_MAP]
    for _ in range(20_000):
        text, status = random_text(chance, parts), chance.choice(statuses)
        expected = walked(text, status)
        assert diagnosed(diagnoser, text, status) == expected, ascii(text)
        labels[expected[-1]] = labels.get(expected[-1], 0) + 1
    # The texts reach the whole table: nearly every label that a row can give.
    assert len(labels.keys() & {row[5] for row in _PATTERNS}) >= 30
    assert diagnoser.get_latency_stats()["count"] == len(diagnoser._latencies) <= 10_000


@pytest.mark.parametrize("filler", ["x", "限", "\n", "\ud800", "\u0131"], ids=ascii)
def test_a_megabyte_is_only_more_text(filler: str) -> None:
    body, diagnoser = filler * 1_000_000, Diagnoser()
    assert diagnosed(diagnoser, body + "\n429", None) == walked(body + "\n429", None)
    assert diagnoser.diagnose(body).sub_category == "unknown"


def test_words_that_patterns_begin_with_cost_one_pass() -> None:
    words = "anthropic model " * 60_000  # a walk would take minutes: it tries anew from every word
    assert Diagnoser().diagnose(words).sub_category == "unknown"
    assert Diagnoser().diagnose(words + "overloaded").sub_category == "rate_limit:anthropic"
