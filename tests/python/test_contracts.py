"""What a contract makes of an output, check by check."""

from __future__ import annotations

import re
from typing import Any

import pytest

from tarvomeldric import Contract

# One of each kind; random ones are the fuzzer's.
KEYS, WORDS = {"required": ["a", "b"]}, {"similarity_threshold": 0.5, "reference_text": "a b c"}
CHECKS: list[tuple[dict[str, Any], str, bool, str]] = [
    ({"output_schema": KEYS}, 'Sure: {"a": 1, "b": null}.', True, "schema_ok"),
    ({"output_schema": KEYS}, '{"a": 1}', False, "Missing keys: ['b']"),
    ({"output_schema": KEYS}, '[{"a": 1}]', False, "Missing keys in list items: ['b']"),
    ({"output_schema": ["no schema"]}, "{}", True, "schema_ok"),
    ({"output_schema": {}}, "Sure.", False, "No valid JSON found in output"),
    ({"determinism_hash": "2cf24dba5fb0a30e"}, "hello", True, "hash_match=True"),
    (WORDS, "A  b\td", True, "jaccard=0.500 threshold=0.5"),
    ({"required_entities": ["cat", "Rome"]}, "CONCATENATE", False, "Missing entities: ['Rome']"),
    ({"forbidden_patterns": ["b.", "x"]}, "ABC", False, "Forbidden patterns found: ['b.']"),
    ({"forbidden_patterns": []}, "anything", True, "no_forbidden_patterns"),
]


@pytest.mark.parametrize(("fields", "output", "passed", "detail"), CHECKS, ids=range(len(CHECKS)))
def test_one_check(fields: Any, output: str, passed: bool, detail: str) -> None:
    result = Contract(**fields).validate(output)
    [check] = result.checks
    assert check.detail == detail
    assert check.passed == passed
    assert result.passed == passed
    assert result.contract_type == check.strategy


def test_all_checks_are_made_in_their_order() -> None:
    result = Contract({}, "0" * 16, 0.5, "a b", ["a"], ["b"]).validate("b").to_dict()
    assert [(check["strategy"], check["passed"]) for check in result["checks"]] == [
        ("schema", False),
        ("determinism", False),
        ("similarity", True),
        ("entities", False),
        ("forbidden", False),
    ]
    assert result["passed"] is False
    assert result["contract_type"] == "schema"


NO_CHECKS: dict[str, Any] = {"similarity": {"similarity_threshold": 0.5}, "forbidden": {}}


@pytest.mark.parametrize("kind", NO_CHECKS)
def test_without_a_check_everything_passes(kind: str) -> None:
    result = Contract(**NO_CHECKS[kind]).validate("")
    assert result.checks == []
    assert result.passed
    assert result.contract_type == kind


def test_what_cannot_be_checked_is_the_callers_error() -> None:
    with pytest.raises(re.error, match="unterminated"):
        Contract(forbidden_patterns=["("]).validate("a")
    with pytest.raises(TypeError, match="iterable"):
        Contract(output_schema={"required": 5}).validate("{}")
    number = "9" * 5000  # too long where Python says so
    try:
        int(number)
    except ValueError:
        assert not Contract(output_schema={}).validate(number).passed


def test_a_hostile_megabyte_is_searched_once() -> None:
    contract = Contract(output_schema={"required": ["x"]})
    for piece in ("[", "{", "}", "]", "[{", "{[", "[]{", "}{", '{"a":', "[1,", '"[', "x"):
        output = piece * ((1 << 20) // len(piece))
        for text in (output, output + "]", "[" + output, "x" + output + "{"):
            contract.validate(text)  # starting over at every bracket would take hours
