"""The names that a server goes by.

A page from elsewhere can give its own name the server's address, and read what is served there as
if it were its own. Its requests still name the page's host, and that tells them from ours.
"""

from __future__ import annotations

import contextlib
import ipaddress
import re
from collections.abc import Sequence

_NAME = r"[\w.-]+|\[[\da-f:.]+\]"
_AUTHORITY = re.compile(f"({_NAME})(?::\\d*)?", re.ASCII | re.IGNORECASE)


class HostNames:
    """What a `Host` may say: the loopback's names, the one that is bound to, and those allowed."""

    def __init__(self, bound: str, allowed: Sequence[str] = ()) -> None:
        self._names = {_plain(name) for name in ("localhost", bound, *allowed)} - {""}

    def __contains__(self, authority: str) -> bool:
        parts = _AUTHORITY.fullmatch(authority.strip())
        return parts is not None and (_plain(parts[1]) in self._names or is_loopback(parts[1]))


def is_loopback(name: str) -> bool:
    """Whether it is an address of this machine alone."""
    with contextlib.suppress(ValueError):
        return ipaddress.ip_address(_plain(name)).is_loopback
    return False


def require_names(given: object, argument: str) -> Sequence[str]:
    """What was given for an argument, if it is a sequence of names or addresses without ports."""
    if not isinstance(given, Sequence) or isinstance(given, (str, bytes)):
        raise TypeError(f"{argument} must be a sequence of str or None, not {type(given).__name__}")
    for name in given:
        if not isinstance(name, str):
            raise TypeError(f"{argument} must hold str, not {type(name).__name__}")
        if not re.fullmatch(_NAME, name, re.ASCII | re.IGNORECASE):
            raise ValueError(
                f"{argument} must hold host names without a port, addresses of IPv6 in brackets, not {name!r}"
            )
    return given


def _plain(name: str) -> str:
    return name.lower().removesuffix(".").strip("[]")
