"""The examples with other libraries' clients, in an environment that has these."""

from __future__ import annotations

import re
import subprocess
from pathlib import Path

import pytest

from support.environments import environment_with

EXAMPLES = sorted((Path(__file__).parents[2] / "examples" / "clients").glob("with_*.py"))
HEALED = "provider second, model house-small, attempts 2, heal l3_failover, fault "
FAULTS = {"server_error", "timeout", "connection_error", "auth_error"}


@pytest.fixture(scope="module")
def python() -> Path:
    try:
        return environment_with("clients", patience=75.0)
    except RuntimeError as error:
        pytest.skip(f"the libraries cannot be installed: {str(error).splitlines()[-1]}")


@pytest.mark.once
@pytest.mark.uninstrumented
@pytest.mark.parametrize("example", EXAMPLES, ids=lambda path: path.stem)
def test_an_unchanged_client_lives_through_a_bad_day(example: Path, python: Path) -> None:
    done = subprocess.run([python, "-W", "error", example], capture_output=True, text=True)
    assert (done.returncode, done.stderr) == (0, "")
    answers = re.findall(r"  provider .*", done.stdout)
    assert {answer.strip().removeprefix(HEALED) for answer in answers} == FAULTS
