"""A limit that many processes have in common: its limiter, and who carries its tokens from Redis.

What is asked for and what may be spent is the core's to say (`guards/fleet_share.cpp`), what there
is that of the script in `_fleet_limit.lua`, which runs in Redis. This is the way between the two.
"""

from __future__ import annotations

import hashlib
import math
import os
import re
import secrets
import threading
import weakref
from collections.abc import Iterator
from pathlib import Path
from queue import Empty, SimpleQueue
from typing import Any

from tarvomeldric import _fork, _redis
from tarvomeldric._engine import _FleetRateLimiter

PREFIX = "tarvomeldric:limit:"  # of a limiter's key
SCRIPT = Path(__file__).with_name("_fleet_limit.lua").read_text(encoding="utf-8")

_DIGEST = hashlib.sha1(SCRIPT.encode(), usedforsecurity=False).hexdigest()
_TIMEOUT_S = 0.5  # seconds for an exchange, connecting included
_LONGEST_PAUSE_S = 60.0
_NAME = re.compile(r"[\w.:/@+-]{1,200}", re.ASCII)
_SCHEMES = ("redis://", "rediss://", "unix://")
_MOST_A_MINUTE = 60_000_000
_LARGEST_BURST = 1_000_000_000
_LONGEST_ERROR = 200  # characters


def check_settings(
    name: str,
    requests_per_minute: float,
    burst: int | None = None,
    redis_url: str | None = None,
    share_retry_after: bool = True,
) -> None:
    """Raises what `FleetRateLimiter` raises for these, without joining a fleet."""
    _require_type("name", name, str, "str")
    if not _NAME.fullmatch(name):
        raise ValueError("name must be 1 to 200 of: letters, digits, . : / @ + - _")
    _require_type("requests_per_minute", requests_per_minute, (int, float), "float")
    if not 0 < requests_per_minute <= _MOST_A_MINUTE:
        raise ValueError(f"requests_per_minute must be above 0, at most {_MOST_A_MINUTE}")
    if burst is not None:
        _require_type("burst", burst, int, "int")
        if not 1 <= burst <= _LARGEST_BURST:
            raise ValueError(f"burst must be within 1 and {_LARGEST_BURST}")
    _require_type("share_retry_after", share_retry_after, bool, "bool")
    if redis_url is not None:
        _require_type("redis_url", redis_url, str, "str")
    _require_url(_url_of(redis_url))


def _require_type(name: str, value: object, wanted: type | tuple[type, ...], called: str) -> None:
    if not isinstance(value, wanted) or (isinstance(value, bool) and wanted is not bool):
        raise TypeError(f"{name} must be {called}, not {type(value).__name__}")


def _require_url(url: str) -> None:
    if not url:
        raise ValueError("redis_url must be given, or TARVOMELDRIC_REDIS_URL set")
    try:
        import redis.connection
    except ImportError:
        raise ImportError("FleetRateLimiter needs redis: install tarvomeldric[redis]") from None
    library: Any = redis.connection
    try:
        library.parse_url(url)
    except ValueError:  # its text may have a password in it
        raise ValueError(f"redis_url must be an address by {', '.join(_SCHEMES)}") from None


def _url_of(given: str | None) -> str:
    return given or os.environ.get("TARVOMELDRIC_REDIS_URL", "")


class FleetRateLimiter(_FleetRateLimiter):
    """A rate limiter that all processes with the same Redis and the same name have in common.

    `acquire` answers at once from what was leased beforehand, also while Redis is away; a thread in
    the background leases tokens by the twentieth of a second. Every request takes a token, retries
    included. A process that has not heard of Redis yet, as in its first moments, has none.
    `docs/fleet.md` tells what it admits when, and what becomes of it when Redis is away.

    Args:
        name: What the limit is called in Redis: one for each account at a provider.
        requests_per_minute: The limit of the whole fleet; above 0. All members are to give the same.
        burst: How many requests may be made at once when few were made before, at least 1; a tenth
            of a minute's by default.
        redis_url: Where the Redis is; `TARVOMELDRIC_REDIS_URL` of the environment by default.
        share_retry_after: Whether all members heed what a provider told one of them in a
            `Retry-After`, up to 15 minutes, as far as their policies heed it.

    Raises:
        TypeError: An argument is of another type.
        ValueError: An argument is out of its bounds, or there is no address of a Redis.
        ImportError: The package `redis` is not installed.
    """

    def __init__(
        self,
        name: str,
        *,
        requests_per_minute: float,
        burst: int | None = None,
        redis_url: str | None = None,
        share_retry_after: bool = True,
    ) -> None:
        check_settings(name, requests_per_minute, burst, redis_url, share_retry_after)
        if burst is None:
            burst = max(1, math.floor(requests_per_minute / 10))
        self._settings = {
            "name": name,
            "requests_per_minute": requests_per_minute,
            "burst": burst,
            "redis_url": redis_url,
            "share_retry_after": share_retry_after,
        }
        self._error = ""
        courier = _courier_to(_url_of(redis_url))
        super().__init__(requests_per_minute / 60, burst, share_retry_after, courier.ring)
        courier.serve(self, PREFIX + name)

    @property
    def fleet(self) -> dict[str, Any]:
        """How this member stands, for people to read.

        `members` as of the last exchange and the `largest_membership` ever, tokens it is `holding`,
        tokens `owed` for what it spent without Redis, whether it is `connected`, the last `error`.
        """
        return {**self._figures(), "error": self._error}

    def __repr__(self) -> str:
        shown = [f"{name}={value!r}" for name, value in self._settings.items() if "url" not in name]
        return f"{type(self).__name__}({', '.join(shown)})"

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, FleetRateLimiter):
            return NotImplemented
        return self._settings == other._settings

    def __reduce__(self) -> tuple[Any, ...]:
        return _remade, (type(self), self._settings)


def _remade(cls: type[FleetRateLimiter], settings: dict[str, Any]) -> FleetRateLimiter:
    return cls(**settings)


class _Member:
    """A limiter as its fleet knows it: by a name of its own, and not for longer than it is in use."""

    def __init__(self, limiter: FleetRateLimiter, key: str, courier: _Courier) -> None:
        self.limiter = weakref.ref(limiter, lambda _: courier.ring())
        self.key = key
        self.rename()

    def rename(self) -> None:
        self.name = secrets.token_hex(8)


class _Courier:
    """Goes between the limiters of this process and one Redis, on a thread that ends with them."""

    def __init__(self, url: str) -> None:
        self._url = url
        self._members: list[_Member] = []
        self._running = False
        self._begin()

    def _begin(self) -> None:
        self._bell: SimpleQueue[None] = SimpleQueue()
        self._client: Any = None
        self._silent = True

    def ring(self) -> None:
        """Wakes the thread, from wherever; never waits."""
        self._bell.put(None)

    def serve(self, limiter: FleetRateLimiter, key: str) -> None:
        with _changing:
            self._members.append(_Member(limiter, key, self))
            self._start()
        self.ring()

    def renew(self) -> None:
        """Starts afresh in the child of a fork, with members that the fleet does not know."""
        _fork.keep(self._client, self._bell)
        self._begin()
        self._running = False
        for member in self._members:
            member.rename()
        if self._members:
            self._start()

    def _start(self) -> None:
        if not self._running:
            threading.Thread(target=self._run, daemon=True, name="fleet limits").start()
            self._running = True

    def _run(self) -> None:
        while self._keep_members():
            try:
                self._bell.get(timeout=self._pause())
                while True:
                    self._bell.get_nowait()
            except Empty:
                pass
            self._serve_due()

    def _keep_members(self) -> bool:
        with _changing:
            self._members = [member for member in self._members if member.limiter()]
            self._running = bool(self._members)
            if self._running:
                return True
            client, self._client, self._silent = self._client, None, True
        if client is not None:
            client.close()
        return False

    def _alive(self) -> Iterator[tuple[_Member, FleetRateLimiter]]:
        for member in list(self._members):
            limiter = member.limiter()
            if limiter is not None:
                yield member, limiter

    def _pause(self) -> float:
        dues = (limiter._due() for _, limiter in self._alive())
        return min(max(min(dues, default=0.0), 0.0), _LONGEST_PAUSE_S)

    def _serve_due(self) -> None:
        due = [(member, limiter) for member, limiter in self._alive() if limiter._due() <= 0]
        if not due:
            return
        try:
            with _redis.exchange(_TIMEOUT_S):
                replies = self._exchange(due)
        except Exception as error:
            self._silent = True
            replies = [_told(error)] * len(due)
        for (_, limiter), reply in zip(due, replies, strict=True):
            _settle(limiter, reply)

    def _exchange(self, due: list[tuple[_Member, FleetRateLimiter]]) -> list[Any]:
        if self._client is None:
            self._client = _redis.connect(self._url)
        if self._silent:
            # Answered before anything is asked for: a server that was stopped comes to what it was
            # sent meanwhile, and would grant it. It may not know the script, or no longer.
            self._client.script_load(SCRIPT)
        batch = self._client.pipeline(transaction=False)
        for member, limiter in due:
            batch.evalsha(_DIGEST, 1, member.key, member.name, *limiter._ask())
        replies = [
            _told(reply) if isinstance(reply, Exception) else reply
            for reply in batch.execute(raise_on_error=False)
        ]
        self._silent = any(isinstance(reply, str) for reply in replies)
        return replies


def _told(failure: Exception) -> str:
    # The frames of its traceback know the limiters, which would outlive their owners.
    failure.__traceback__ = None
    return f"{type(failure).__name__}: {failure}"[:_LONGEST_ERROR]


def _settle(limiter: FleetRateLimiter, reply: Any) -> None:
    """Ends a limiter's exchange with a reply, or with the text of what went wrong."""
    limiter._error = ""
    try:
        if isinstance(reply, str):
            raise ValueError(reply)
        limiter._settle(*reply[:7])
    except Exception as error:
        limiter._fail()
        limiter._error = reply if isinstance(reply, str) else _told(error)


_changing = threading.Lock()
_couriers: weakref.WeakValueDictionary[str, _Courier] = weakref.WeakValueDictionary()


def _courier_to(url: str) -> _Courier:
    with _changing:
        courier = _couriers.get(url)
        if courier is None:
            courier = _couriers[url] = _Courier(url)
        return courier


def _start_afresh() -> None:
    global _changing
    _changing = threading.Lock()
    for courier in list(_couriers.values()):
        courier.renew()


_fork.renew(_start_afresh)
