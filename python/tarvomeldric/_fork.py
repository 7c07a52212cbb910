"""What a forked child does with the engines that it inherited.

The threads that held locks, slots and connections in the parent do not exist in the child, and the
connections still belong to the parent.
"""

from __future__ import annotations

import contextlib
import os
import weakref
from collections.abc import Callable
from typing import Any

_alive: weakref.WeakSet[Any] = weakref.WeakSet()
_renewals: list[Callable[[], None]] = []

# Dropping a connection would say good-bye to the server in the parent's name, so the child keeps them.
_inherited: list[Any] = []


def watch(member: Any) -> None:
    """Lets an engine or a learner start afresh in every forked child."""
    _alive.add(member)


def renew(renewal: Callable[[], None]) -> None:
    """Calls this in every forked child, before engines and learners start afresh."""
    _renewals.append(renewal)


def keep(*objects: Any) -> None:
    """Holds what belongs to the parent until the child ends."""
    _inherited.extend(objects)


def _start_afresh() -> None:
    for renewal in [*_renewals, *(member._after_fork for member in list(_alive))]:
        with contextlib.suppress(Exception):  # one that fails must not keep the next one locked
            renewal()


os.register_at_fork(after_in_child=_start_afresh)
