"""An environment of its own for libraries that neither the package nor its tests need."""

from __future__ import annotations

import subprocess
import sys
from pathlib import Path

import tarvomeldric

ROOT = Path(__file__).parents[2]
_INSTALL = [*("-m", "pip", "--retries", "1", "--timeout", "30", "--python"), "{}", "install"]


def environment_with(group: str) -> Path:
    """The Python of an environment with a dependency group, and with the package as it is installed here.

    It is made once and then stays below build/.

    Raises:
        RuntimeError: The libraries cannot be installed; pip's own words.
    """
    home = ROOT / "build" / group
    python, ready = home / "bin" / "python", home / "ready"
    wanted = (ROOT / "pyproject.toml").read_text()
    if not ready.exists() or ready.read_text() != wanted:
        _run("-m", "venv", "--clear", "--without-pip", str(home))
        _run(*(part.format(python) for part in _INSTALL), "--quiet", "--group", group)
        ready.write_text(wanted)
    libraries = next((home / "lib").glob("python*/site-packages"))
    ours = libraries / tarvomeldric.__name__
    ours.unlink(missing_ok=True)
    ours.symlink_to(Path(tarvomeldric.__file__).parent)
    return python


def _run(*arguments: str) -> None:
    done = subprocess.run([sys.executable, *arguments], cwd=ROOT, capture_output=True, text=True)
    if done.returncode != 0:
        raise RuntimeError(done.stderr.strip() or done.stdout.strip())
