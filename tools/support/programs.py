"""Programs in interpreters of their own, which import what this one can import."""

from __future__ import annotations

import os
import subprocess
import sys


def start_child(code: str, *arguments: str, strict: bool = True) -> subprocess.Popen[str]:
    """Starts a program; a strict one fails on every warning."""
    options = ["-X", "dev", "-W", "error"] if strict else []
    return subprocess.Popen(
        [sys.executable, *options, "-c", code, *arguments],
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
        env={**os.environ, "PYTHONPATH": os.pathsep.join(sys.path)},
    )


def run_child(code: str, *arguments: str, strict: bool = True) -> str:
    """What the program printed; it must end well and complain about nothing."""
    with start_child(code, *arguments, strict=strict) as child:
        try:
            out, err = child.communicate(timeout=180)
        finally:
            child.kill()
    assert child.returncode == 0, (child.returncode, err)
    assert err == "", err
    return out.strip()
