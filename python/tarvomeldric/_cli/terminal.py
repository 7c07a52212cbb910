"""What a terminal gets to see that a file or a pipe does not: colour, and what goes on meanwhile."""

from __future__ import annotations

import os
import re
import sys
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from typing import TextIO
from unittest import mock

_COLOURS = {"bold": 1, "dim": 2, "red": 31, "green": 32, "cyan": 36}
_CONTROLS = re.compile(r"[\x00-\x08\x0b-\x1f\x7f-\x9f]")


def watched(stream: TextIO | None = None) -> bool:
    """Whether a person is looking at what is printed."""
    stream = stream or sys.stdout
    return stream is not None and stream.isatty()


def paint(colour: str, text: str, stream: TextIO | None = None) -> str:
    """Return ``text`` in colour when a person is looking and does not mind."""
    if not watched(stream) or os.environ.get("NO_COLOR"):
        return text
    return f"\x1b[{_COLOURS[colour]}m{text}\x1b[0m"


def tame(text: str, stream: TextIO | None = None) -> str:
    """Return a stranger's ``text`` without what would steer the terminal that shows it."""
    return _CONTROLS.sub("\N{REPLACEMENT CHARACTER}", text) if watched(stream) else text


def title(text: str) -> None:
    print(f"\n{paint('cyan', text)}", flush=True)


def aside(text: str, colour: str = "dim") -> None:
    """Print ``text`` where it does not mix with the results."""
    print(" ", paint(colour, tame(text, sys.stderr), sys.stderr), file=sys.stderr, flush=True)


def progress(text: str) -> None:
    """Show ``text`` in place of what was shown so before; an empty one makes room for other lines."""
    if watched():
        print(f"\r\x1b[K{text}", end="", flush=True)


@contextmanager
def announced_waits(say: Callable[[str], None]) -> Iterator[None]:
    """Have ``say`` told how long the engine is about to wait, each time that it does."""
    sleep = time.sleep

    def wait(seconds: float) -> None:
        say(f"… waits {seconds:.3g} s and tries again")
        sleep(seconds)

    with mock.patch("time.sleep", wait):
        yield
