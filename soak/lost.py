"""Connections that nobody closed.

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


class Lost:
    """Counts what the interpreter says of them, instead of having it written."""

    def __init__(self) -> None:
        self.connections: list[str] = []

    @contextmanager
    def counted(self) -> Iterator[None]:
        with warnings.catch_warnings():
            warnings.simplefilter("always", ResourceWarning)
            self._write = warnings.showwarning
            warnings.showwarning = self._show
            yield

    def complaints(self, calls: int) -> Iterator[str]:
        if len(self.connections) > _MOST + _MOST_A_CALL * calls:
            yield f"{len(self.connections)} connections left unclosed: {self.connections[:10]}"

    def _show(self, message: Any, category: Any, *rest: Any, **more: Any) -> None:
        text = str(message)
        if category is ResourceWarning and text.startswith("unclosed "):
            if not text.startswith("unclosed <socket"):  # its transport is told of, too
                self.connections.append(text)
        else:
            self._write(message, category, *rest, **more)
