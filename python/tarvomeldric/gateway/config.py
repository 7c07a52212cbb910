"""What a gateway is told by its TOML file: read, checked, and made into what serves."""

from __future__ import annotations

import inspect
import re
import sys
from collections import Counter
from collections.abc import Sequence
from dataclasses import dataclass, field, replace
from pathlib import Path
from typing import Any, Literal, NewType
from urllib.parse import urlsplit

from tarvomeldric import (
    Bulkhead,
    CallPolicy,
    CircuitBreaker,
    Contract,
    FleetRateLimiter,
    ProviderConfig,
    RateLimiter,
    SelfHealingEngine,
    _engine,
)
from tarvomeldric._fleet_limits import check_settings
from tarvomeldric._host_names import is_loopback, require_names
from tarvomeldric.clients.requests import SENDABLE
from tarvomeldric.clients.routes import Route
from tarvomeldric.gateway.tables import WRONG, Reader, below, parameters_of, reference

Secret = NewType("Secret", str)  # stands in the environment, never in the file
Name = NewType("Name", str)  # of a provider in the file

_PRESETS = dict(_engine._ENV_MAP.values())
_HEADER_NAME = re.compile(r"[!#$%&'*+.^_`|~\w-]+", re.ASCII)
_UNGUARDED = "server.tokens: an address that others can reach needs at least one"


class ConfigError(Exception):
    """Everything that is wrong with a configuration, a line each."""

    def __init__(self, lines: Sequence[str]) -> None:
        super().__init__("\n".join(lines))
        self.lines = tuple(lines)


def _require_positive(record: Any, names: Sequence[str]) -> None:
    for name in names:
        value = getattr(record, name)
        if isinstance(value, int | float) and not 0 < value < float("inf"):
            raise ValueError(f"{name} must be above 0, and finite")


def _is_address(url: str) -> bool:
    try:
        parts = urlsplit(url)
        return bool(
            not re.search(r"[\x00-\x20?#]", url)
            and parts.scheme in ("http", "https")
            and parts.hostname
            and parts.port != 0
        )
    except ValueError:  # the port, or an address in brackets
        return False


@dataclass(frozen=True)
class Server:
    """Where the gateway listens, to whom, and how much it takes. Times are in seconds.

    Attributes:
        host: The address.
        port: 0 takes a free one.
        allowed_hosts: More names that it goes by, for what stands before it.
        tokens: What clients show as their key; nobody needs one where there is none.
        max_body: The longest body of a request, in bytes.
        max_waiting: The requests that are under way at a time.
        body_timeout: What a client may take to send a body.
        keep_alive: How long a connection is kept on which nothing is asked.
    """

    host: str = "127.0.0.1"
    port: int = 4000
    allowed_hosts: Sequence[str] = ()
    tokens: Sequence[Secret] = field(default=(), repr=False)
    max_body: int = 10 * 1024 * 1024
    max_waiting: int = 1000
    body_timeout: float = 30.0
    keep_alive: int = 60

    def __post_init__(self) -> None:
        _require_positive(self, ("max_body", "max_waiting", "body_timeout", "keep_alive"))
        if not 0 <= self.port <= 65535:
            raise ValueError("port must be within 0 and 65535")
        if self.host.startswith("["):
            raise ValueError("host must be without brackets")
        require_names(self.allowed_hosts, "allowed_hosts")

    def require_guard(self) -> None:
        """ConfigError where strangers could reach the address, and no token is needed."""
        if not (self.host == "localhost" or is_loopback(self.host) or self.tokens):
            raise ConfigError([_UNGUARDED])

    def at(self, host: str | None, port: int | None) -> Server:
        """The same at another host or port, where one is given."""
        try:
            moved = self if host is None else replace(self, host=host)
            moved = moved if port is None else replace(moved, port=port)
        except ValueError as error:
            raise ConfigError([f"server.{error}"]) from None
        moved.require_guard()
        return moved


@dataclass(frozen=True)
class Streams:
    """The time-outs of streamed answers, in seconds."""

    first_token_timeout: float = 8.0
    idle_timeout: float = 30.0

    def __post_init__(self) -> None:
        _require_positive(self, ("first_token_timeout", "idle_timeout"))


@dataclass(frozen=True)
class Fleet:
    """A limit that several gateways have in common; what it holds is that of `FleetRateLimiter`."""

    name: str
    requests_per_minute: float
    burst: int | None = None
    redis_url: Secret | None = field(default=None, repr=False)
    share_retry_after: bool = True

    def __post_init__(self) -> None:
        check_settings(**vars(self))

    def limiter(self) -> FleetRateLimiter:
        return FleetRateLimiter(**vars(self))


@dataclass(frozen=True)
class Provider:
    """One provider. Where it is need not be said of the presets, which then have their models, too."""

    api_key: Secret = field(default=Secret(""), repr=False)
    base_url: str | None = None
    models: Sequence[str] | None = None
    slots: int = 10
    burst: int = 60
    requests_per_second: float = 10.0
    fleet: Fleet | None = None
    breaker: CircuitBreaker | None = None
    extra_headers: dict[str, str] | None = field(default=None, repr=False)
    extra_query: dict[str, str] | None = field(default=None, repr=False)

    def __post_init__(self) -> None:
        _require_positive(self, ("slots", "burst", "requests_per_second"))
        if self.base_url is not None and not _is_address(self.base_url):
            raise ValueError("base_url must be http:// or https:// and a host, without a query")
        if not all(self.models or ["any"]):
            raise ValueError("models must be names, and no empty ones")
        if not SENDABLE.fullmatch(self.api_key):
            raise ValueError("api_key must be printable ASCII")
        for name, value in (self.extra_headers or {}).items():
            if not (_HEADER_NAME.fullmatch(name) and SENDABLE.fullmatch(value)):
                raise ValueError("extra_headers must be names and printable ASCII")
        if self.breaker is not None:
            try:
                _require_positive(self.breaker, list(parameters_of(CircuitBreaker)))
            except ValueError as error:
                raise ValueError(f"breaker {error}") from None

    def record(self, name: str) -> ProviderConfig:
        if self.base_url is None:
            record = _engine._preset_record(name, _PRESETS[name], {name: self.api_key})
        else:
            record = ProviderConfig(name, self.base_url.rstrip("/"), self.api_key)
        if self.models is not None:
            record.models = list(self.models)
        rate = self.requests_per_second
        record.rate_limiter = RateLimiter(self.burst, rate, _tokens=self.burst)
        record.bulkhead = Bulkhead(self.slots)
        record.circuit_breaker = self.breaker or CircuitBreaker()
        record.extra_headers = self.extra_headers or {}
        record.extra_query = self.extra_query or {}
        return record


@dataclass(frozen=True)
class Served:
    """Who serves a route, and what the model is called there."""

    provider: Name
    model: str


def _with(own: Any, others: dict[str, inspect.Parameter]) -> inspect.Signature:
    """What a constructor takes that hands some of its arguments on to another one."""
    _self, *mine, _rest = inspect.signature(own, eval_str=True).parameters.values()
    taken = [*mine, *(it for it in others.values() if it.name not in {own.name for own in mine})]
    return inspect.Signature([it.replace(kind=inspect.Parameter.KEYWORD_ONLY) for it in taken])


class Policy:
    """The policy of every call: one to begin with, and what is different."""

    def __init__(
        self,
        base: Literal["interactive", "batch", "none"] = "interactive",
        providers: Sequence[Name] | None = None,
        **changes: Any,
    ) -> None:
        bases = {"interactive": CallPolicy.interactive, "batch": CallPolicy.batch}
        self.base = base
        self.before = bases.get(base, CallPolicy)()
        if providers is not None:
            changes["providers"] = providers
        self.calls: CallPolicy = self.before.replace(**changes)

    __signature__ = _with(__init__, parameters_of(CallPolicy))

    def changes(self) -> dict[str, Any]:
        """What is different, by name."""
        both = {name: (getattr(self.before, name), getattr(self.calls, name)) for name in _POLICY}
        return {name: after for name, (before, after) in both.items() if before != after}


_POLICY = tuple(parameters_of(CallPolicy))


class RouteTable:
    """A route: a `Route`, and what its contract holds, in one table."""

    def __init__(
        self,
        name: str,
        providers: dict[Name, str] | Sequence[Served],
        task_type: str = "",
        **contract: Any,
    ) -> None:
        if isinstance(providers, Sequence):
            serving: dict[Any, str] = {each.provider: each.model for each in providers}
            if len(serving) < len(providers):
                raise ValueError("providers must name each one once")
        else:
            serving = dict(providers)
        for pattern in contract.get("forbidden_patterns") or ():
            try:
                re.compile(pattern)
            except re.error as error:
                raise ValueError(f"forbidden_patterns must hold patterns: {error.msg}") from None
        self.route = Route(name, serving, task_type, Contract(**contract) if contract else None)

    __signature__ = _with(__init__, parameters_of(Contract))


@dataclass(frozen=True)
class Config:
    """What is served, and how."""

    providers: dict[str, Provider]
    server: Server = field(default_factory=Server)
    streams: Streams = field(default_factory=Streams)
    policy: Policy = field(default_factory=Policy)
    routes: Sequence[RouteTable] = ()
    passthrough: Name | None = None

    def engine(self) -> SelfHealingEngine:
        records = {name: it.record(name) for name, it in self.providers.items()}
        for name, provider in self.providers.items():
            if provider.fleet is not None:
                records[name].rate_limiter = provider.fleet.limiter()
        return SelfHealingEngine(records)


def load(path: Path) -> Config:
    """The configuration in a file.

    Raises:
        ConfigError: It cannot be; everything that is wrong with it is told at once, no value is.
        OSError: The file cannot be read.
        ImportError: Python 3.10 reads TOML only with the package `tomli`.
    """
    if sys.version_info >= (3, 11):
        import tomllib
    else:
        import tomli as tomllib
    try:
        try:
            document = tomllib.loads(path.read_bytes().decode())
        except ValueError as error:
            raise ConfigError([f"the file is not TOML: {_place_of(error)}"]) from None
        return config_of(document)
    except RecursionError:
        raise ConfigError(["the file is nested too deeply"]) from None


def config_of(document: dict[str, Any]) -> Config:
    """The configuration that a document describes.

    Raises:
        ConfigError: As above.
    """
    listed = document.get("providers")
    names = list(listed) if isinstance(listed, dict) else []

    def provider(given: str, path: str) -> Any:
        name = reader.text(given, path)
        if name is WRONG or name in names:
            return name
        return reader.unknown(path, f"there is no provider {given!r}", given, names)

    def secret(given: str, path: str) -> Any:
        variable = reference(given)
        if variable is None:
            return reader.wrong(path, "must be ${NAME}, a variable of the environment")
        said = reader.text(given, path)
        if said is not WRONG and not (said := said.strip()):  # a file's last line has its end
            return reader.wrong(path, f"{variable} is empty in the environment")
        return said

    reader = Reader({Name: provider, Secret: secret})
    found = reader.members(Config, document, "")
    _check(reader, document, found)
    if reader.problems:
        raise ConfigError(reader.problems)
    return Config(**found)


def _check(reader: Reader, document: dict[str, Any], found: dict[str, Any]) -> None:
    """What no table shows by itself."""
    listed, routes = document.get("providers"), document.get("routes")
    if listed == {}:
        reader.wrong("providers", "at least one is needed")
    for name, table in listed.items() if isinstance(listed, dict) else ():
        path = below("providers", name)
        if not isinstance(table, dict):
            continue
        for own in ("burst", "requests_per_second"):
            if own in table and "fleet" in table:
                reader.wrong(below(path, own), "cannot be beside fleet, which has the limit")
        if not name:
            reader.wrong(path, "needs a name")
        if "base_url" not in table:
            if name not in _PRESETS:
                what = "is missing, and the name is not a preset's"
                reader.unknown(below(path, "base_url"), what, name, _PRESETS)
            elif "api_key" not in table:
                reader.wrong(below(path, "api_key"), "is missing")
    tables = routes if isinstance(routes, list) else []
    for name, times in Counter(it.get("name") for it in tables if isinstance(it, dict)).items():
        if times > 1 and isinstance(name, str):
            reader.wrong("routes", f"{name!r} is there {times} times")
    policy, routes = found.get("policy", WRONG), found.get("routes", WRONG)
    if policy is not WRONG and routes is not WRONG and policy.calls.providers is not None:
        for at, table in enumerate(routes):
            if not set(policy.calls.providers) & set(table.route.providers):
                reader.wrong(f"routes[{at}].providers", "policy.providers leaves all of them out")
    server = found.get("server", WRONG)
    if server is not WRONG:
        try:
            server.require_guard()
        except ConfigError as error:
            reader.problems += error.lines


def _place_of(error: ValueError) -> str:
    """Where a file breaks off from being TOML, without what stands there."""
    place = str(error).rpartition("(at ")[2].removesuffix(")")
    return f"see {place}" if place.startswith(("line ", "end ")) else "it must be UTF-8"
