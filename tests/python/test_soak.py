"""The short form of `make soak`."""

from __future__ import annotations

import subprocess
import sys
from pathlib import Path

import pytest

RUN = Path(__file__).parents[2] / "soak" / "run.py"


@pytest.mark.once
def test_a_short_soak_ends_well() -> None:
    command = [sys.executable, str(RUN), "--seconds", "9", "--exits", "0", "--interrupts", "0"]
    done = subprocess.run(command, capture_output=True, text=True)
    assert done.returncode == 0, done.stdout + done.stderr
