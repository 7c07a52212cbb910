"""What `help` tells of everything that is public."""

from __future__ import annotations

import inspect
from collections.abc import Iterator
from enum import Enum
from typing import Any

import pytest

import tarvomeldric
import tarvomeldric.simulator
import tarvomeldric.telemetry
import tarvomeldric.types

MODULES = {
    tarvomeldric: tarvomeldric.__all__,
    tarvomeldric.simulator: tarvomeldric.simulator.__all__,
    tarvomeldric.telemetry: ["TelemetryCollector"],
    tarvomeldric.types: ["RecoveryLevel"],
}


def told(thing: Any) -> str:
    """The documentation, without the signature that the binding library puts in front of it."""
    text = inspect.getdoc(thing) or ""
    name = getattr(thing, "__name__", "")
    return text.partition("\n")[2] if name and text.startswith(f"{name}(") else text


def classes() -> Iterator[type]:
    for module, names in MODULES.items():
        yield from filter(inspect.isclass, (getattr(module, name) for name in names))


def public() -> Iterator[tuple[str, Any]]:
    for module, names in MODULES.items():
        yield module.__name__, module
        for name in names:
            thing = getattr(module, name)
            if inspect.isclass(thing) or inspect.isroutine(thing) or callable(thing):
                yield name, thing
    for cls in classes():
        for name in filter(lambda name: not name.startswith("_"), vars(cls)):
            member = getattr(cls, name)
            if callable(member) or inspect.isdatadescriptor(member):
                yield f"{cls.__name__}.{name}", member


def test_everything_public_is_documented() -> None:
    things = dict(public())
    assert {"tarvomeldric", "run", "CallResult", "CallResult.text", "LearnedRule.from_dict"} <= set(
        things
    )
    assert [name for name, thing in things.items() if not told(thing).strip()] == []


@pytest.mark.parametrize("cls", [cls for cls in classes() if not issubclass(cls, Enum)])
def test_a_class_tells_what_its_constructor_takes(cls: type) -> None:
    about = told(cls) + told(cls.__init__)  # type: ignore[misc]
    for name in inspect.signature(cls).parameters:
        if not name.startswith("_"):
            assert name in about
