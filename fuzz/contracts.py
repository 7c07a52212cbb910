"""Contracts on random answers: each check says what a few lines of Python say.

The pieces in which a document is looked for have a fuzzer of their own; what is done with them, and
every other check, is the interpreter's text work (its parser, its case folding, its expressions), so
the answers are made here.
"""

from __future__ import annotations

import hashlib
import json
import random
import re
from typing import Any

from drive import drive, mangled, text

from tarvomeldric import Contract

PATTERNS = ["as an ai", r"\bcat\b", "É", r"(?m)^x", r"\{.*\}", "[\ud800-\udfff]", "(a+)+$", "", "i"]
Check = tuple[str, bool, str]


def document(piece: str | None) -> Any:
    try:
        return None if piece is None else json.loads(piece)
    except (ValueError, RecursionError):
        return None


def first(pattern: str, answer: str) -> str | None:
    found = re.search(pattern, answer, re.DOTALL)
    return found[0] if found else None


def readable(answer: str) -> bool:
    try:
        json.loads(answer)
    except (ValueError, RecursionError):
        return False
    return True


def schema(required: list[Any] | None, answer: str) -> tuple[bool, str]:
    found = document(answer)
    if not readable(answer):
        found = document(first(r"\{[^{}]*\}", answer))
        if found is None:
            found = document(first(r"\[.*\]", answer))
    if found is None:
        return False, "No valid JSON found in output"
    complaint = "Missing keys: "
    if isinstance(found, list) and found and isinstance(found[0], dict) and required:
        found, complaint = found[0], "Missing keys in list items: "
    if not isinstance(found, dict):
        return True, "schema_ok"
    missing = [key for key in required or [] if key not in found]
    return not missing, f"{complaint}{missing}" if missing else "schema_ok"


def similarity(threshold: float, reference: str, answer: str) -> tuple[bool, str]:
    words, wanted = set(answer.lower().split()), set(reference.lower().split())
    if not words or not wanted:
        return False, "empty_text"
    share = len(words & wanted) / len(words | wanted)
    return share >= (threshold or 0.8), f"jaccard={share:.3f} threshold={threshold or 0.8}"


def entities(wanted: list[str], answer: str) -> tuple[bool, str]:
    missing = [entity for entity in wanted if entity.lower() not in answer.lower()]
    return not missing, f"Missing entities: {missing}" if missing else "all_entities_present"


def forbidden(patterns: list[str], answer: str) -> tuple[bool, str]:
    found = [pattern for pattern in patterns if re.search(pattern, answer, re.IGNORECASE)]
    return not found, f"Forbidden patterns found: {found}" if found else "no_forbidden_patterns"


def check(random: random.Random) -> None:
    answer = mangled(random, text(random))
    digest = hashlib.sha256(answer.encode("utf-8", "surrogatepass")).hexdigest()[:16]
    required = random.choice((None, [], ["name", "age"], ["name", 1, None, "\ud800"]))
    threshold = random.choice((0.0, 0.5, 1.0, 0.25))
    reference = random.choice((text(random), answer, answer.upper()))
    wanted = [random.choice((text(random, 1), answer[:9].swapcase())) for _ in range(2)]
    patterns = random.sample(PATTERNS, 3)
    contract = Contract(
        output_schema={} if required is None else {"required": required},
        determinism_hash=random.choice((digest, "0" * 16)),
        similarity_threshold=threshold,
        reference_text=reference,
        required_entities=wanted,
        forbidden_patterns=patterns,
    )
    same = contract.determinism_hash == digest
    expected = {
        "schema": schema(required, answer),
        "determinism": (same, f"hash_match={same}"),
        "similarity": similarity(threshold, reference, answer),
        "entities": entities(wanted, answer),
        "forbidden": forbidden(patterns, answer),
    }
    result = contract.validate(answer)
    assert {c.strategy: (c.passed, c.detail) for c in result.checks} == expected, answer
    assert result.passed == all(passed for passed, _ in expected.values())


if __name__ == "__main__":
    drive(check)
