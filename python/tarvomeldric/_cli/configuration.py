"""A gateway's configuration, and what is wrong with it, at a shell."""

from __future__ import annotations

import contextlib
import sys
from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from tarvomeldric.gateway.config import Config, ConfigError

_PACKAGES = {"starlette", "uvicorn", "httptools", "uvloop", "prometheus_client", "tomli"}
_MISSING = "the gateway needs more packages: pip install 'tarvomeldric[gateway]'"


def read(path: str) -> contextlib.nullcontext[Config]:
    """What a file says; ConfigError or OSError where it says nothing that can be served."""
    from pathlib import Path

    from tarvomeldric.gateway.config import load

    return contextlib.nullcontext(load(Path(path)))


def complain(error: ConfigError) -> int:
    """Print what is wrong, a line each; the exit status."""
    for line in error.lines:
        print(f"tarvomeldric: {line}", file=sys.stderr)
    return 1


def missing(error: ImportError) -> int:
    """The same for a package that only the extra installs; any other is a mistake of ours."""
    if error.name is None or error.name.partition(".")[0] not in _PACKAGES:
        raise error
    print(f"tarvomeldric: {_MISSING}", file=sys.stderr)
    return 1
