"""A word on the command line that stands for the standard input."""

from __future__ import annotations

import sys


def given(word: str) -> str:
    """Return ``word``, or for "-" what the standard input holds, without the last line's end."""
    if word != "-":
        return word
    return sys.stdin.buffer.read().decode("utf-8", "replace").removesuffix("\n")
