"""Records, enumerations, errors and tables as an application meets them."""

from __future__ import annotations

import copy
import enum
import json
import pickle
from collections import deque
from collections.abc import MutableSequence
from typing import Any

import pytest

import tarvomeldric as t
from support import KEY, provider
from tarvomeldric.types import RecoveryLevel

REQUIRED: dict[Any, tuple[Any, ...]] = {
    t.Bulkhead: (),
    t.CallResult: ("text", "provider", "model"),
    t.CircuitBreaker: (),
    t.Contract: (),
    t.Diagnosis: (t.FaultCategory.TIMEOUT, 0.5, True, False),
    t.LearnedRule: ("timeout", "retry:wait"),
    t.MapeKTrace: ("id",),
    t.ProviderConfig: ("mine", "http://x/v1", KEY),
    t.RateLimiter: (),
    t.RecoveryAction: (RecoveryLevel.L1_RETRY, "retry", "default", 1.0, {"a": 1}),
    t.SemanticClassification: (t.SemanticDomain.OUT_OF_BOUNDS, "reason"),
}


def test_live_views_change_the_record_they_belong_to() -> None:
    record = provider()
    record.models += ["a", "b", "c"]
    record.models[0], record.models[1:] = "z", ["x", "y"]
    assert list(reversed(record.models)) == ["y", "x", "z"]
    assert record.models[1:] == ["x", "y"]
    assert record.models[-1] == "y"
    assert record.models.pop() == "y"
    assert isinstance(record.models, MutableSequence)
    with pytest.raises(TypeError):
        record.models.extend([None])
    with pytest.raises(IndexError):
        record.models[-9]
    assert record.models == ["z", "x"]
    assert provider().models == []
    assert "********" in repr(record)
    record._recent_latencies.extend(range(150))
    assert record._recent_latencies == deque(range(50, 150), maxlen=100)
    record.circuit_breaker._window.extend([True, False] * 15)
    assert record.circuit_breaker.to_dict()["window_errors"] == 10


def test_nested_records_keep_their_identity() -> None:
    breaker, limiter, bulkhead = t.CircuitBreaker(2), t.RateLimiter(), t.Bulkhead(3)
    record = provider(circuit_breaker=breaker, rate_limiter=limiter, bulkhead=bulkhead)
    assert record.circuit_breaker is breaker
    assert record.rate_limiter is limiter
    assert record.bulkhead is bulkhead
    breaker.trip_with_fault("timeout")
    assert record.is_available() is False
    category = record.get_category_circuit_breaker("x")
    assert record._category_circuit_breakers["x"] is category
    assert record._category_circuit_breakers == {"x": t.CircuitBreaker()}
    record.circuit_breaker = t.CircuitBreaker()
    assert record.is_available() is True
    fault = t.Diagnosis("of my own", 1, 1, 0)  # type: ignore[arg-type]
    result = t.CallResult("t", "p", "m", fault=fault, raw_response={"a": fault})
    assert result.fault is fault
    assert result.raw_response["a"] is fault
    assert fault.category == "of my own"
    assert fault.should_retry is True
    bulkhead._semaphore = t._engine.Semaphore(1)  # type: ignore[misc]
    assert bulkhead.acquire(0)
    assert not bulkhead.acquire(0)


@pytest.mark.parametrize("kind", [t.FaultCategory, t.CircuitState, t.MapeKPhase, t.SemanticDomain])
def test_enumerations_are_texts_on_every_python(kind: Any) -> None:
    for member in kind:
        assert isinstance(member, (str, enum.Enum))
        assert member == member.value
        assert hash(member) == hash(member.value)
        assert str(member) == member.value
        assert f"{member:>30}" == f"{member.value:>30}"
        assert json.dumps(member) == f'"{member.value}"'
        assert kind(member.value) is member
        assert kind[member.name] is member
        assert copy.deepcopy(member) is member
        assert pickle.loads(pickle.dumps(member)) is member
    with pytest.raises(TypeError, match="phase"):
        t.MapeKTrace("id").enter("monitor")  # type: ignore[arg-type]


ERRORS: list[tuple[Any, tuple[Any, ...], dict[str, Any]]] = [
    (t.APIError, ("m", 503), {"status_code": 503}),
    (t.APIError, ("m", 429.0), {"status_code": 429}),
    (t.APIError, ("m",), {"status_code": None}),
    (t.ContractViolationError, ("m", {"passed": False}), {"contract_result": {"passed": False}}),
    (t.ContractViolationError, ("m",), {"contract_result": None}),
    (t.SemanticBoundaryViolationError, ("m", "d", "r"), {"domain": "d", "reason": "r"}),
    (t.SemanticBoundaryViolationError, ("m",), {"domain": "", "reason": ""}),
]


@pytest.mark.parametrize(("kind", "given", "expected"), ERRORS)
def test_errors_carry_their_attributes(kind: Any, given: Any, expected: dict[str, Any]) -> None:
    error, own = kind(*given), type("Own", (kind,), {})(*given)
    for twin in (error, pickle.loads(pickle.dumps(error)), copy.copy(error), own):
        assert isinstance(twin, kind)
        assert str(twin) == "m"
        assert twin.args == ("m",)
        assert vars(twin) == expected
    for wrong in ((None,), (3,), (), (*given, *"too many")):
        with pytest.raises(TypeError):
            kind(*wrong)


@pytest.mark.parametrize("kind", REQUIRED, ids=lambda kind: kind.__name__)
def test_records_are_made_compared_copied_and_pickled(kind: Any) -> None:
    given, names = REQUIRED[kind], kind.__match_args__
    record = kind(**dict(zip(names, given, strict=False)))
    everything = [getattr(record, name) for name in names]
    twins = [kind(*everything), kind(**dict(zip(names, everything, strict=True)))]
    twins += [copy.copy(record), copy.deepcopy(record), pickle.loads(pickle.dumps(record))]
    for twin in twins:
        assert type(twin) is kind
        assert twin == record
        assert not twin != record  # noqa: SIM202
    with pytest.raises(TypeError, match="unhashable"):
        hash(record)
    for wrong in ({"nonsense": 1}, *({name: 1} for name in names[: len(given)])):
        with pytest.raises(TypeError, match=next(iter(wrong))):
            kind(*given, **wrong)
    for name, value in zip(names, everything, strict=True):
        if type(value) is float:
            setattr(record, name, 7)
            assert getattr(record, name) == 7.0
            assert record != twins[0]
            with pytest.raises(TypeError, match=rf"{kind.__name__}\.{name}"):
                setattr(record, name, "7")
