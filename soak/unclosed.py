"""Counts connections that the HTTP library left unclosed, and tells when there are too many.

A task that is cancelled while the HTTP library closes connections whose server went away makes the
library forget some of them. That happens seldom, and cannot be helped from outside; an engine that
forgets its connections does so all the time.
"""

import warnings
from collections.abc import Iterator
from contextlib import contextmanager
from typing import Any

_MOST = 4
_MOST_A_CALL = 1 / 5000


@contextmanager
def collected() -> Iterator[list[str]]:
    """What the interpreter says of them, instead of having it written."""
    connections: list[str] = []
    write = warnings.showwarning

    def show(message: Any, category: Any, *rest: Any, **more: Any) -> None:
        text = str(message)
        if category is not ResourceWarning or not text.startswith("unclosed "):
            write(message, category, *rest, **more)
        elif not text.startswith("unclosed <socket"):  # its transport is told of, too
            connections.append(text)

    with warnings.catch_warnings():
        warnings.simplefilter("always", ResourceWarning)
        warnings.showwarning = show
        yield connections


def excess(connections: list[str], calls: int) -> Iterator[str]:
    if len(connections) > _MOST + _MOST_A_CALL * calls:
        yield f"{len(connections)} connections left unclosed: {connections[:10]}"
