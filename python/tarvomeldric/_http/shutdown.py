"""How what was made here ends: with the process, with a fork, with a loop that is gone already."""

from __future__ import annotations

import atexit
import contextlib
import threading
from collections.abc import Iterator

from tarvomeldric import _fork


class _Gate:
    """Lets threads in until the process exits, which waits for those inside.

    A daemon thread that loads certificates while the TLS library is being taken down would take the
    process with it. Nobody waits for anybody else before that.
    """

    def __init__(self) -> None:
        self.open()

    def open(self) -> None:
        self._inside: set[threading.Event] = set()
        self._shut_by: int | None = None

    @contextlib.contextmanager
    def passed(self) -> Iterator[None]:
        gone = threading.Event()
        self._inside.add(gone)
        try:
            if self._shut_by not in (None, threading.get_ident()):
                gone.set()
                threading.Event().wait()  # for good: this is a daemon thread
            yield
        finally:
            gone.set()
            self._inside.discard(gone)

    def shut(self) -> None:
        self._shut_by = threading.get_ident()
        for gone in list(self._inside):
            gone.wait(10.0)


gate = _Gate()


atexit.register(gate.shut)
_fork.renew(gate.open)
