"""What a contract makes of an output, check by check."""

from __future__ import annotations

import re
from typing import Any

import pytest

from support import run_child
from tarvomeldric import Contract

OK, NO_JSON = "schema_ok", "No valid JSON found in output"
PAIR = {"required": ["name", "age"]}
HASH = "2cf24dba5fb0a30e"
DEEP = 100_000

# fmt: off
SCHEMA: list[tuple[Any, str, str]] = [
    (PAIR, '{"name": 1, "age": null}', OK),
    ({"required": [1, "it's", None]}, '{"1": 0}', "Missing keys: [1, \"it's\", None]"),
    ({"properties": {"name": {}}}, "{}", OK),
    (["name"], "{}", OK),
    # In prose: the first innermost object, else what the widest brackets enclose.
    (PAIR, 'Sure } {"name": "x",\n "age": 3}. Done {"a": 1}', OK),
    (PAIR, 'Sure: {"name": 1, "age": {"years": 3}}', "Missing keys: ['name', 'age']"),
    (PAIR, 'Use {x}: [{"name": 1}]', "Missing keys in list items: ['age']"),
    (PAIR, 'Use {x, [{"name": 1, "age": 3}, 2] here', OK),
    ({}, "Either [1] or [2]", NO_JSON),
    # Documents that are no objects.
    *((PAIR, text, NO_JSON) for text in ("", "null")),
    *((PAIR, text, OK) for text in (" 42 ", "NaN", '"name"', "false", "[]", '[1, {"name": 1}]')),
    (PAIR, '[{"name": 1}, {"name": 1, "age": 2}]', "Missing keys in list items: ['age']"),
    # What the host's parser gives up on counts as a syntax error.
    ({}, "[" * DEEP + "]" * DEEP, NO_JSON),
    (PAIR, '{"name":' * DEEP + "1" + "}" * DEEP, "Missing keys: ['age']"),
    (PAIR, 'Well\ud800 {"name": "\ud800\u00e9", "age": "\U0001f600"} \ud800', OK),
]
CHECKS: list[tuple[dict[str, Any], str, bool, str]] = [
    *(({"output_schema": schema}, output, end == OK, end) for schema, output, end in SCHEMA),
    ({"determinism_hash": HASH}, "hello", True, "hash_match=True"),
    ({"determinism_hash": ""}, "\ud800", False, "hash_match=False"),
    *(({"similarity_threshold": limit, "reference_text": wanted}, output, passed, detail)
      for limit, wanted, output, passed, detail in [
          (0.8, "The  cat\tsat", "sat the CAT", True, "jaccard=1.000 threshold=0.8"),
          (0.5, "the cat sat", "the cat ran", True, "jaccard=0.500 threshold=0.5"),
          (0.0, "a b c d", "a b c", False, "jaccard=0.750 threshold=0.8"),
          (1.0, "\u00c9t\u00e9", "\u00e9T\u00c9\u2003", True, "jaccard=1.000 threshold=1.0"),
          (-1.0, "a", " \n", False, "empty_text"),
          (0.1, "", "a", False, "empty_text")]),
    ({"required_entities": ["cat", "Rome"]}, "CONCATENATE", False, "Missing entities: ['Rome']"),
    ({"required_entities": ["\u00c9t\u00e9", ""]}, "\u00e9T\u00c9", True, "all_entities_present"),
    ({"forbidden_patterns": ["as an AI", r"\bno\b"]}, "AS AN ai, know", False,
     "Forbidden patterns found: ['as an AI']"),
    ({"forbidden_patterns": [r"(?m)^x\S+$", "\u00e9"]}, "a\nxyz\n\u00c9", False,
     "Forbidden patterns found: ['(?m)^x\\\\S+$', '\u00e9']"),
    ({"forbidden_patterns": []}, "anything", True, "no_forbidden_patterns"),
]
# fmt: on


@pytest.mark.parametrize(("fields", "output", "passed", "detail"), CHECKS, ids=range(len(CHECKS)))
def test_one_check(fields: Any, output: str, passed: bool, detail: str) -> None:
    result = Contract(**fields).validate(output)
    assert [(check.passed, check.detail) for check in result.checks] == [(passed, detail)]
    assert (result.passed, result.contract_type) == (passed, result.checks[0].strategy)


def test_all_checks_are_made_in_their_order() -> None:
    result = Contract({}, "0" * 16, 0.5, "a b", ["a"], ["b"]).validate("b")
    assert list(result.to_dict()) == ["passed", "contract_type", "checks"]
    made = {check["strategy"]: check["passed"] for check in result.to_dict()["checks"]}
    order = ["schema", "determinism", "similarity", "entities", "forbidden"]
    assert (list(made), list(made.values())) == (order, [False, False, True, False, False])
    for kind, fields in {"similarity": {"similarity_threshold": 0.5}, "forbidden": {}}.items():
        result = Contract(**fields).validate("")
        assert (result.passed, result.checks, result.contract_type) == (True, [], kind)


def test_what_cannot_be_checked_is_the_callers_error() -> None:
    with pytest.raises(re.error, match="unterminated"):
        Contract(forbidden_patterns=["("]).validate("a")
    with pytest.raises(TypeError, match="iterable"):
        Contract(output_schema={"required": 5}).validate("{}")
    number = "9" * 5000  # too long where the host says so
    try:
        int(number)
    except ValueError:
        assert Contract(output_schema={}).validate(number).checks[0].detail == NO_JSON


HOSTILE = """
from tarvomeldric import Contract
for piece in "[", "{", "}", "]", "[{", "{[", "[]{", "}{", '{"a":', "[1,", '"[', "x":
    output = piece * ((1 << 20) // len(piece))
    for text in output, output + "]", "[" + output, "x" + output + "{":
        Contract(output_schema={"required": ["x"]}).validate(text)
"""


def test_a_hostile_megabyte_is_searched_once() -> None:
    # A search that starts over at every bracket would take hours.
    assert run_child(HOSTILE) == ""
