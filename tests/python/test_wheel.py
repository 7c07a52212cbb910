"""What the installed package holds and shows to the rest of the process."""

from __future__ import annotations

import importlib.metadata
import subprocess
from pathlib import Path

import pytest

import tarvomeldric
import tarvomeldric._engine

pytestmark = [pytest.mark.once, pytest.mark.uninstrumented]

PACKAGE = Path(tarvomeldric.__file__).parent


def test_the_module_exports_its_init_function_only() -> None:
    symbols = subprocess.run(
        ["nm", "-D", "--defined-only", "--format=just-symbols", tarvomeldric._engine.__file__],
        check=True,
        capture_output=True,
        text=True,
    ).stdout.split()
    assert symbols == ["PyInit__engine"]


def test_the_version_of_the_metadata_is_the_version_of_the_module() -> None:
    assert importlib.metadata.version("tarvomeldric") == tarvomeldric.__version__


@pytest.mark.parametrize("name", ["_engine.pyi", "py.typed"])
def test_type_information_is_installed(name: str) -> None:
    assert (PACKAGE / name).is_file()
