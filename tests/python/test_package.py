"""What the installed package holds, and what it tells of everything that is public."""

from __future__ import annotations

import asyncio
import importlib.metadata
import inspect
import subprocess
import sys
from collections.abc import Coroutine, Iterator
from enum import Enum
from typing import Any
from unittest.mock import create_autospec

import pytest

import tarvomeldric
import tarvomeldric.simulator
import tarvomeldric.telemetry
import tarvomeldric.types
from support import engine_with
from tarvomeldric import LearnedRule, SelfHealingEngine, _engine

MODULES: dict[Any, list[str]] = {
    tarvomeldric: tarvomeldric.__all__,
    tarvomeldric.simulator: tarvomeldric.simulator.__all__,
    tarvomeldric.telemetry: ["TelemetryCollector", "log_to"],
    tarvomeldric.types: ["RecoveryLevel"],
}
THINGS = [getattr(module, name) for module, names in MODULES.items() for name in names]
CLASSES = [thing for thing in THINGS if inspect.isclass(thing)]


@pytest.mark.once
@pytest.mark.uninstrumented
def test_the_module_exports_its_init_function_only() -> None:
    command = ["nm", "-D", "--defined-only", "--format=just-symbols", _engine.__file__]
    symbols = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    assert symbols == "PyInit__engine\n"


@pytest.mark.once
@pytest.mark.uninstrumented
def test_the_version_of_the_metadata_is_the_version_of_the_module() -> None:
    assert importlib.metadata.version("tarvomeldric") == tarvomeldric.__version__


def told(thing: Any) -> str:
    """The documentation, without the signature that the binding library puts in front of it."""
    text = inspect.getdoc(thing) or ""
    name = getattr(thing, "__name__", "")
    return text.partition("\n")[2] if name and text.startswith(f"{name}(") else text


def documented() -> Iterator[Any]:
    yield from MODULES
    yield from (thing for thing in THINGS if callable(thing))
    for cls in CLASSES:
        members = [getattr(cls, name) for name in vars(cls) if not name.startswith("_")]
        yield from (each for each in members if callable(each) or inspect.isdatadescriptor(each))


def test_everything_public_is_documented() -> None:
    things = list(documented())
    assert LearnedRule.from_dict in things
    assert tarvomeldric.CallResult.text in things
    assert [thing for thing in things if not told(thing).strip()] == []


def is_made_elsewhere(cls: type) -> bool:
    """By the engine, or by Python's own constructor of errors."""
    return issubclass(cls, RuntimeError) or cls.__name__ in (
        "EngineView",
        "Observation",
        "Stream",
        "SyncStream",
    )


@pytest.mark.parametrize(
    "cls", [cls for cls in CLASSES if not issubclass(cls, Enum) and not is_made_elsewhere(cls)]
)
def test_a_class_tells_what_its_constructor_takes(cls: type) -> None:
    about = told(cls) + told(cls.__init__)  # type: ignore[misc]
    for name in inspect.signature(cls).parameters:
        if not name.startswith("_"):
            assert name in about


@pytest.mark.parametrize("function", [SelfHealingEngine.call, LearnedRule.from_dict])
def test_an_operation_tells_its_signature(function: Any) -> None:
    assert inspect.signature(function).parameters


def test_python_knows_what_is_to_be_awaited() -> None:
    engine = create_autospec(SelfHealingEngine, instance=True)
    engine.call.return_value = "answer"
    assert asyncio.run(engine.call("Hi")) == "answer"
    assert not isinstance(engine.call_sync("Hi"), Coroutine)
    awaited = SelfHealingEngine.call, engine_with().call, SelfHealingEngine._execute
    assert all(map(inspect.iscoroutinefunction, awaited)) == (sys.version_info >= (3, 12))
    assert not inspect.iscoroutinefunction(SelfHealingEngine.call_sync)
