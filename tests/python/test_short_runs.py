"""The short forms of `make soak`, and of `make fuzz` where the oracle is Python; the examples."""

from __future__ import annotations

import subprocess
import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).parents[2]
PROGRAMS = [
    ("soak/run.py", "--seconds 9 --leaks 0 --exits 0 --interrupts 0"),
    pytest.param(
        "soak/run.py",
        "--seconds 0 --leaks 700 --exits 0 --interrupts 0",
        marks=pytest.mark.uninstrumented,
    ),
    ("fuzz/contracts.py", "--seconds 4"),
    ("fuzz/rules_file.py", "--seconds 4"),
    *((f"examples/{path.name}", "") for path in sorted((ROOT / "examples").glob("*.py"))),
]
PROGRAMS.remove(("examples/demo.py", ""))  # the command line's own tests run it


@pytest.mark.once
@pytest.mark.parametrize(("program", "arguments"), PROGRAMS)
def test_a_short_run_ends_well(program: str, arguments: str) -> None:
    command = [sys.executable, str(ROOT / program), *arguments.split()]
    done = subprocess.run(command, capture_output=True, text=True)
    assert done.returncode == 0, done.stdout + done.stderr
    assert done.stderr == ""
