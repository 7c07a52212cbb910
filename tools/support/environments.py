"""An environment of its own for libraries that neither the package nor its tests need."""

from __future__ import annotations

import re
import subprocess
import sys
from pathlib import Path

import tarvomeldric

ROOT = Path(__file__).parents[2]
_INSTALL = [*("-m", "pip", "--retries", "1", "--timeout", "30", "--python"), "{}", "install"]


def environment_with(group: str, patience: float | None = None) -> Path:
    """The Python of an environment with a dependency group, and with the package as it is installed here.

    It is made once and then stays below build/.

    Raises:
        RuntimeError: The libraries cannot be installed, or not within the patience, in seconds.
    """
    home = ROOT / "build" / group
    python, ready = home / "bin" / "python", home / "ready"
    wanted = _listed(group)
    if not ready.exists() or ready.read_text() != wanted:
        _run("-m", "venv", "--clear", "--without-pip", str(home))
        install = [part.format(python) for part in _INSTALL]
        _run(*install, "--quiet", "--group", group, patience=patience)
        ready.write_text(wanted)
    libraries = next((home / "lib").glob("python*/site-packages"))
    ours = libraries / tarvomeldric.__name__
    ours.unlink(missing_ok=True)
    ours.symlink_to(Path(tarvomeldric.__file__).parent)
    return python


def _listed(group: str) -> str:
    listed = re.search(
        rf"^{group} = \[.*?\n\]", (ROOT / "pyproject.toml").read_text(), re.MULTILINE | re.DOTALL
    )
    assert listed, group
    return listed[0]


def _run(*arguments: str, patience: float | None = None) -> None:
    command = [sys.executable, *arguments]
    try:
        subprocess.run(
            command, cwd=ROOT, capture_output=True, text=True, check=True, timeout=patience
        )
    except subprocess.TimeoutExpired:
        raise RuntimeError(f"not within {patience:g} s") from None
    except subprocess.CalledProcessError as error:
        raise RuntimeError(error.stderr.strip() or error.stdout.strip()) from None
